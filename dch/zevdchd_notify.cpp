#include "zevdchd_notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/trace.h"
#include "zevdchd.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

bool notifyServiceManager(const std::string &text) {
    ZEVD_TRACE_FUNCTION("zevdchd::notifyServiceManager");
    const char *where = getenv("NOTIFY_SOCKET");
    if (where == nullptr || where[0] == '\0') return trc.exit(false);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    size_t length = strlen(where);
    // '@' stands for the leading zero of an abstract name; a path is
    // absolute.
    if ((where[0] != '@' && where[0] != '/') || length >= sizeof address.sun_path) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: NOTIFY_SOCKET <%s> is not a socket address\n", where);
        return trc.exit(false);
    }
    memcpy(address.sun_path, where, length);
    if (where[0] == '@') address.sun_path[0] = '\0';
    auto addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: no socket to notify the service manager: errno=%d\n",
                   errno);
        return trc.exit(false);
    }
    ssize_t sent = sendto(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr *>(&address), addressLength);
    int sendError = errno;
    close(fd);
    if (sent != static_cast<ssize_t>(text.size())) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: the service manager could not be notified at <%s>: errno=%d\n", where,
                   sendError);
        return trc.exit(false);
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "Notified the service manager: %s\n", text.c_str());
    return trc.exit(true);
}

}  // namespace zevd::dch
