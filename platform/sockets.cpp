// IPv4 socket helpers, and the sockets a service manager hands over.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "zev0.h"

namespace {

// Socket activation: a service manager that opened the sockets itself starts
// the process with them as descriptors 3, 4, ... and says how many in
// LISTEN_FDS, for the process LISTEN_PID names (a child that inherited the
// variables is not meant).
constexpr int kFirstListenFd = 3;
// More would be a variable gone wrong, not a unit's list of sockets.
constexpr long kMaxListenFds = 1024;

class InheritedSockets {
public:
    InheritedSockets() {
        const char *pidText = getenv("LISTEN_PID");
        const char *countText = getenv("LISTEN_FDS");
        long pid = 0;
        long count = 0;
        if (!decimal(pidText, &pid) || !decimal(countText, &count)) return;
        if (pid != static_cast<long>(getpid()) || count < 1 || count > kMaxListenFds) return;
        for (int fd = kFirstListenFd; fd < kFirstListenFd + static_cast<int>(count); ++fd) {
            // Not passed on to the programs this process starts.
            if (ZEV0_SetCloExecFlag(fd) == 0) _fds.push_back(fd);
        }
    }

    // Takes the inherited IPv4 socket of the type bound to the port, if one
    // is left: -1 otherwise. With peek it stays for a later take.
    int take(int sockType, unsigned short portNetOrder, bool peek) {
        std::lock_guard<std::mutex> guard(_lock);
        for (auto it = _fds.begin(); it != _fds.end(); ++it) {
            if (!matches(*it, sockType, portNetOrder)) continue;
            int fd = *it;
            if (!peek) _fds.erase(it);
            return fd;
        }
        return -1;
    }

private:
    static bool decimal(const char *text, long *value) {
        if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
        char *end = nullptr;
        errno = 0;
        *value = strtol(text, &end, 10);
        return errno == 0 && *end == '\0';
    }

    static bool matches(int fd, int sockType, unsigned short portNetOrder) {
        int type = 0;
        socklen_t length = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != sockType)
            return false;
        struct sockaddr_in local;
        memset(&local, 0, sizeof local);
        length = sizeof local;
        if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&local), &length) != 0)
            return false;
        return local.sin_family == AF_INET && local.sin_port == portNetOrder;
    }

    std::mutex _lock;
    std::vector<int> _fds;  // not yet taken
};

InheritedSockets &inheritedSockets() {
    // Read at the first use, while the variables are those the process was
    // started with; never destroyed (descriptors may be taken at any time).
    static InheritedSockets *sockets = new InheritedSockets;
    return *sockets;
}

int sockTypeOf(int type) {
    return type == 1 ? SOCK_STREAM : SOCK_DGRAM;
}

}  // namespace

extern "C" {

int ZEV0_HasInheritedSocket(int type, unsigned short portNetOrder) {
    if ((type != 1 && type != 2) || portNetOrder == 0) return 0;
    return inheritedSockets().take(sockTypeOf(type), portNetOrder, true) >= 0 ? 1 : 0;
}

int ZEV0_SetCloExecFlag(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags < 0) return -1;
    return fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

int ZEV0_OpenLocalSocket(int type, unsigned short portNetOrder, struct sockaddr_in *address,
                         int /*flag*/, int *error, int /*reserved*/) {
    int sockType = sockTypeOf(type);
    if (type != 1 && type != 2) {
        if (error != nullptr) *error = EINVAL;
        errno = EINVAL;
        return -1;
    }
    if (portNetOrder != 0) {
        int fd = inheritedSockets().take(sockType, portNetOrder, false);
        if (fd >= 0) {
            // Bound (and for a stream, listening) already: handed over as
            // it is.
            if (address != nullptr) {
                socklen_t len = sizeof *address;
                getsockname(fd, reinterpret_cast<struct sockaddr *>(address), &len);
            }
            if (error != nullptr) *error = 0;
            return fd;
        }
    }
    int fd = socket(AF_INET, sockType | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error != nullptr) *error = errno;
        return -1;
    }
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = portNetOrder;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (portNetOrder != 0) {
        const char *bind = getenv("ZEVA_DCH_BIND");
        if (bind != nullptr && bind[0] != '\0' && inet_pton(AF_INET, bind, &local.sin_addr) != 1) {
            close(fd);
            if (error != nullptr) *error = EINVAL;
            errno = EINVAL;
            return -1;
        }
        if (sockType == SOCK_STREAM) {
            int on = 1;
            setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        }
    }
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&local), sizeof local) != 0) {
        int saved = errno;
        close(fd);
        if (error != nullptr) *error = saved;
        errno = saved;
        return -1;
    }
    if (address != nullptr) {
        socklen_t len = sizeof *address;
        if (getsockname(fd, reinterpret_cast<struct sockaddr *>(address), &len) != 0)
            *address = local;
    }
    if (error != nullptr) *error = 0;
    return fd;
}

int ZEV0_CloseTheSocket(int fd) {
    if (fd < 0) return -1;
    return close(fd);
}

unsigned short ZEV0_RetrieveSockPort(int fd) {
    struct sockaddr_in address;
    socklen_t len = sizeof address;
    memset(&address, 0, sizeof address);
    if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &len) != 0) return 0;
    return ntohs(address.sin_port);
}

char *ZEV0_LocalHostNameString(void) {
    static thread_local char name[HOST_NAME_MAX + 1];
    if (gethostname(name, sizeof name) != 0) return nullptr;
    name[sizeof name - 1] = '\0';
    return name;
}

int ZEV0_ConvertNameToAddr(const char *name, unsigned short port, struct sockaddr_in *address) {
    if (name == nullptr || address == nullptr) return 0;
    struct sockaddr_in result;
    memset(&result, 0, sizeof result);
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    if (inet_pton(AF_INET, name, &result.sin_addr) == 1) {
        *address = result;
        return 1;
    }
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo *found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) == 0 && found != nullptr) {
        result.sin_addr = reinterpret_cast<struct sockaddr_in *>(found->ai_addr)->sin_addr;
        freeaddrinfo(found);
        *address = result;
        return 1;
    }
    if (found != nullptr) freeaddrinfo(found);
    // A host whose own name does not resolve still reaches itself on loopback.
    char host[HOST_NAME_MAX + 1];
    if (gethostname(host, sizeof host) == 0) {
        host[sizeof host - 1] = '\0';
        if (strcmp(host, name) == 0) {
            result.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            *address = result;
            return 1;
        }
    }
    return 0;
}

}  // extern "C"
