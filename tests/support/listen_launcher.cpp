// Starts a program as a service manager does under socket activation: the
// descriptors 3, 4, ... that this launcher was started with stay open across
// the exec, counted in LISTEN_FDS, for the process that LISTEN_PID names
// (this one: the exec keeps the pid).
// usage: zevd_listen_launcher COUNT PROGRAM [ARG...]
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kFirstListenFd = 3;
constexpr long kMaxCount = 64;

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: zevd_listen_launcher COUNT PROGRAM [ARG...]\n");
        return 2;
    }
    char *end = nullptr;
    long count = strtol(argv[1], &end, 10);
    if (*argv[1] == '\0' || *end != '\0' || count < 1 || count > kMaxCount) {
        fprintf(stderr, "zevd_listen_launcher: COUNT takes 1 to %ld, not '%s'\n", kMaxCount,
                argv[1]);
        return 2;
    }
    for (int fd = kFirstListenFd; fd < kFirstListenFd + static_cast<int>(count); ++fd) {
        int flags = fcntl(fd, F_GETFD);
        if (flags < 0 || fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC) != 0) {
            fprintf(stderr, "zevd_listen_launcher: descriptor %d is not open\n", fd);
            return 2;
        }
    }
    setenv("LISTEN_FDS", argv[1], 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    execvp(argv[2], argv + 2);
    perror("zevd_listen_launcher: exec");
    return 127;
}
