// What the reliability suites share: whether to run at full size, and a
// look at another process's resident memory and descriptors.
#ifndef ZEVD_TESTS_SUPPORT_RELIABILITY_H
#define ZEVD_TESTS_SUPPORT_RELIABILITY_H

#include <dirent.h>
#include <sys/types.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace zevd::test {

// True when ZEVD_RELIABILITY_FULL=1 asks for the full counts.
inline bool reliabilityFull() {
    const char *value = getenv("ZEVD_RELIABILITY_FULL");
    return value != nullptr && value[0] == '1';
}

// The resident memory of process pid in KiB, or -1.
inline long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
    return -1;
}

// The open descriptors of process pid, or -1.
inline int openDescriptors(pid_t pid) {
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count - 2;  // "." and ".."
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_RELIABILITY_H
