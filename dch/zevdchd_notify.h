// Readiness and status for a service manager that asked for them: one
// datagram of "NAME=value" lines to the AF_UNIX socket NOTIFY_SOCKET names.
#ifndef ZEVD_DCH_ZEVDCHD_NOTIFY_H
#define ZEVD_DCH_ZEVDCHD_NOTIFY_H

#include <string>

namespace zevd::dch {

// Sends text ("READY=1\nSTATUS=...") as one datagram to the socket that
// NOTIFY_SOCKET names: a path, or "@name" in the abstract namespace. Without
// the variable it sends nothing and returns false; a socket that cannot be
// reached is traced and returns false. Never blocks.
bool notifyServiceManager(const std::string &text);

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_NOTIFY_H
