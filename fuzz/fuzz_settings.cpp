// Any bytes as the settings file that ZEVA_SETTINGS_FILE names, read through
// ZEV0_QueryProductSpec and rewritten once through ZEV0_UpdateProductSpec.
// Nothing may crash or read past a value. A value read is one line's text
// after its '=' (so it holds no newline and stands in the file after an
// '='), the same on a second read, and item 3 always has one. An update
// of one item then reads back as written and leaves every other item as it
// was.
//
// The file lies in a directory of the process's own (under /dev/shm when
// there is one), removed when the process ends.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "zev0.h"

namespace {

std::string &directory() {
    static auto *dir = new std::string;
    return *dir;
}

std::string &settingsPath() {
    static auto *path = new std::string;
    return *path;
}

void removeFiles() {
    unlink(settingsPath().c_str());
    rmdir(directory().c_str());
}

bool writeFile(const uint8_t *data, size_t size) {
    int fd = open(settingsPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    return done == size;
}

std::optional<std::string> query(int item) {
    const char *value = ZEV0_QueryProductSpec(item);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

// Item numbers that the text may hold: up to nine digits before an '='
// (blanks between allowed), at most 16 of them, and the items the library
// itself reads.
std::vector<int> itemsOf(const std::string &text) {
    std::vector<int> items = {0, 3, 21, 22};
    size_t pos = 0;
    while (items.size() < 20 && (pos = text.find('=', pos)) != std::string::npos) {
        size_t end = pos;
        while (end > 0 && (text[end - 1] == ' ' || text[end - 1] == '\t')) --end;
        size_t start = end;
        while (start > 0 && end - start < 9 && text[start - 1] >= '0' && text[start - 1] <= '9')
            --start;
        ++pos;
        if (start == end) continue;
        int item = atoi(text.substr(start, end - start).c_str());
        bool known = false;
        for (int seen : items) known = known || seen == item;
        if (!known) items.push_back(item);
    }
    return items;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    // Called by libFuzzer and again by the first input (the replay has no
    // one else to call it): one directory per process.
    if (!directory().empty()) return 0;
    setenv("ZEVA_TRACE", "none", 1);
    struct stat shm;
    std::string pattern =
        (stat("/dev/shm", &shm) == 0 && S_ISDIR(shm.st_mode)) ? "/dev/shm" : "/tmp";
    pattern += "/fuzz_settings.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) abort();
    directory() = name.data();
    settingsPath() = directory() + "/settings";
    setenv("ZEVA_SETTINGS_FILE", settingsPath().c_str(), 1);
    atexit(removeFiles);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    if (!writeFile(data, size)) return 0;
    std::string text(reinterpret_cast<const char *>(data), size);

    std::vector<int> items = itemsOf(text);
    std::vector<std::optional<std::string>> values;
    for (int item : items) {
        std::optional<std::string> value = query(item);
        if (item == 3 && !value) __builtin_trap();
        if (value) {
            if (value->find('\n') != std::string::npos) __builtin_trap();
            bool fromFile = text.find("=" + *value) != std::string::npos;
            if (!fromFile && !(item == 3 && *value == "zevd")) __builtin_trap();
        }
        if (query(item) != value) __builtin_trap();
        values.push_back(value);
    }

    // One item rewritten: the last one found in the text, or item 7.
    size_t changed = items.size() > 4 ? items.size() - 1 : items.size();
    int item = changed < items.size() ? items[changed] : 7;
    std::string written = "fuzz-" + std::to_string(size);
    if (ZEV0_UpdateProductSpec(item, written.c_str()) != 1) __builtin_trap();
    if (query(item) != written) __builtin_trap();
    for (size_t i = 0; i < items.size(); ++i)
        if (i != changed && query(items[i]) != values[i]) __builtin_trap();
    return 0;
}
