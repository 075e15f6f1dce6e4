// How a function of libzevd610 traces: one line opens the frame, each
// return states its value once.
//
//   int ZEVA_Example(int x) {
//       ZEVD_TRACE_FUNCTION("ZEVA_Example");
//       ZEVD_TRACE(trc, TRACE_DETAIL, "x <%d>\n", x);
//       return trc.exit(x);
//   }
//
// The file names its trace unit once with ZEVD_TRACE_UNIT(unitZeva). With
// the levels off, opening a frame costs one comparison of the unit's sync
// counter and one test of the mask.
#ifndef ZEVD_COMMON_TRACE_H
#define ZEVD_COMMON_TRACE_H

#include <cstdint>
#include <type_traits>

#include "zev0.h"
#include "zevd610.h"

namespace zevd {

// The five trace units of the library, one per source file.
extern TraceUnit unitZevdipc;
extern TraceUnit unitZevdsock;
extern TraceUnit unitZevdlpc;
extern TraceUnit unitZevdchcl;
extern TraceUnit unitZeva;

// Flags word of every function record of this library.
inline constexpr unsigned int kTraceRecordFlags = 0x200;

// The record's mask, refreshed only when its unit's counter has moved.
inline unsigned int traceLevel(TraceFunctionRecord *rec) {
    unsigned int copy = __atomic_load_n(&rec->syncCopy, __ATOMIC_ACQUIRE);
    if (copy == __atomic_load_n(&rec->unit->syncCounter, __ATOMIC_ACQUIRE))
        return __atomic_load_n(&rec->mask, __ATOMIC_RELAXED);
    return TLG1_Sync(rec);
}

// The source line of a return, taken at the call site. A type of its own so
// that it never competes with a result for an int argument.
struct SourceLine {
    explicit SourceLine(int at = __builtin_LINE()) : line(at) {}
    int line;
};

class TraceFrame {
public:
    // events false: the level only, no entry or exit events.
    explicit TraceFrame(TraceFunctionRecord *rec, bool events = true)
        : rec_(rec), mask_(traceLevel(rec)) {
        if (events && (mask_ & TRACE_ENTRY_EXIT) != 0) {
            TLG1_Event(rec_, rec_->line, TLG1_EVENT_ENTRY);
            owed_ = true;
        }
    }
    TraceFrame(const TraceFrame &) = delete;
    TraceFrame &operator=(const TraceFrame &) = delete;
    ~TraceFrame() {
        if (owed_) TLG1_Event(rec_, rec_->line, TLG1_EVENT_EXIT);
    }

    bool on(unsigned int bits) const { return (mask_ & bits) != 0; }
    unsigned int mask() const { return mask_; }
    TraceFunctionRecord *record() const { return rec_; }

    // Exit event with the result (kind 1), when the entry event was written.
    template <typename T>
    T exit(T value, SourceLine at = SourceLine()) {
        if (owed_) {
            owed_ = false;
            TLG1_Event(rec_, at.line, TLG1_EVENT_EXIT_VALUE, asLong(value));
        }
        return value;
    }
    // Exit event without a result (kind 2).
    void exit(SourceLine at = SourceLine()) {
        if (owed_) {
            owed_ = false;
            TLG1_Event(rec_, at.line, TLG1_EVENT_EXIT);
        }
    }
    // Hands the exit event to the caller, who writes it some other way (a
    // forked child writes its own without locking): true when it was owed.
    bool takeExit() {
        bool owed = owed_;
        owed_ = false;
        return owed;
    }

private:
    template <typename T>
    static long asLong(T value) {
        if constexpr (std::is_pointer_v<T>)
            return static_cast<long>(reinterpret_cast<std::intptr_t>(value));
        else
            return static_cast<long>(value);
    }

    TraceFunctionRecord *rec_;
    unsigned int mask_;
    bool owed_ = false;
};

}  // namespace zevd

// Names the trace unit of the file that follows.
#define ZEVD_TRACE_UNIT(unit) \
    [[maybe_unused]] static constexpr TraceUnit *zevdFileUnit = &::zevd::unit

#define ZEVD_TRACE_RECORD_(traceName)                                        \
    static TraceFunctionRecord zevdTraceRecord = {                           \
        nullptr,  traceName,        static_cast<int>(sizeof(traceName) - 1), \
        __LINE__, zevdFileUnit,     ::zevd::kTraceRecordFlags,               \
        0,        TLG1_NEVER_SYNCED}

// Opens a traced function: refreshes its level into `trc` and writes the
// entry event when TRACE_ENTRY_EXIT is set.
#define ZEVD_TRACE_FUNCTION(traceName) \
    ZEVD_TRACE_RECORD_(traceName);     \
    ::zevd::TraceFrame trc(&zevdTraceRecord)

// Like ZEVD_TRACE_FUNCTION without entry and exit events.
#define ZEVD_TRACE_LEVEL(traceName) \
    ZEVD_TRACE_RECORD_(traceName);  \
    ::zevd::TraceFrame trc(&zevdTraceRecord, false)

// One trace line at the given level.
#define ZEVD_TRACE(frame, level, ...)                                                \
    do {                                                                             \
        if ((frame).on(level)) TLG1_Printf((frame).record(), __LINE__, __VA_ARGS__); \
    } while (0)

#endif  // ZEVD_COMMON_TRACE_H
