// A directory of its own under /tmp, removed with what it holds; and whole
// files read and written, for the suites of the state directory.
#ifndef ZEVD_TESTS_SUPPORT_TEMP_DIR_H
#define ZEVD_TESTS_SUPPORT_TEMP_DIR_H

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

namespace zevd::test {

class TempDir {
public:
    // Made as /tmp/PREFIX-XXXXXX, opened as a directory descriptor too.
    explicit TempDir(const char *prefix = "zevdchd-test") {
        std::string pattern = std::string("/tmp/") + prefix + "-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
        if (!path_.empty()) fd_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    ~TempDir() {
        if (fd_ >= 0) close(fd_);
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    // Empty when it could not be made.
    const std::string &path() const { return path_; }
    int fd() const { return fd_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    // Every name in the directory, sorted.
    std::vector<std::string> names() const { return namesStartingWith(""); }
    std::vector<std::string> namesStartingWith(const std::string &prefix) const {
        std::vector<std::string> out;
        std::error_code error;
        for (const auto &entry : std::filesystem::directory_iterator(path_, error)) {
            std::string name = entry.path().filename().string();
            if (name.rfind(prefix, 0) == 0) out.push_back(name);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    std::string path_;
    int fd_ = -1;
};

inline std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_TEMP_DIR_H
