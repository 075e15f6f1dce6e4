// The library's trace lines, read by zevdctl for the few facts that the
// return values of the C API do not carry: whether a catalogue query that
// failed was answered with an empty text or not answered at all, and why
// the registration builder refused a text.
#ifndef ZEVD_TOOLS_ZEVDCTL_TRACE_H
#define ZEVD_TOOLS_ZEVDCTL_TRACE_H

#include <string>
#include <vector>

namespace zevdctl {

// While it lives, every trace line of the process comes here, with the
// levels in extraLevels (ZEVA_TRACE syntax, e.g.
// "DCHclient::dc_getApplHelp=error+storage") on top of ZEVA_TRACE's. When
// ZEVA_TRACE asks for a trace (is set and not "none"), each line still goes
// on to ZEVA_TRACE_FILE, else to standard error. Destroyed, it gives the
// trace back its own levels and destination. One at a time, while no other
// thread traces.
class TraceWatch {
public:
    explicit TraceWatch(const std::string &extraLevels);
    ~TraceWatch();
    TraceWatch(const TraceWatch &) = delete;
    TraceWatch &operator=(const TraceWatch &) = delete;

    // The first line seen that holds part, from part on without its line
    // end; empty when none did.
    std::string find(const std::string &part) const;
    bool saw(const std::string &part) const { return !find(part).empty(); }

private:
    static void take(void *watch, const char *line, size_t length);

    std::vector<std::string> lines_;
    int forwardTo_ = -1;  // the descriptor lines go on to, -1: none
    bool ownsForward_ = false;
};

}  // namespace zevdctl

#endif  // ZEVD_TOOLS_ZEVDCTL_TRACE_H
