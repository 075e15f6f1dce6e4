// The daemon's transport for the fuzz targets that drive a Dch: every
// answer and delivery "goes", and nothing is sent.
#ifndef ZEVD_FUZZ_QUIET_TRANSPORT_H
#define ZEVD_FUZZ_QUIET_TRANSPORT_H

#include <cstddef>

#include "zevdchd.h"

namespace zevd::fuzz {

class QuietTransport final : public zevd::dch::Transport {
public:
    bool answer(const zevd::dch::Peer &, const char *, size_t) override { return true; }
    bool deliver(const zevd::dch::Peer &, const char *, size_t) override { return true; }
};

}  // namespace zevd::fuzz

#endif  // ZEVD_FUZZ_QUIET_TRANSPORT_H
