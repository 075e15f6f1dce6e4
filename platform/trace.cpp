// Trace facility: levels per unit and per function from ZEVA_TRACE, lines to
// ZEVA_TRACE_FILE (or standard error) or to a sink, one write per line.
#include "trace_internal.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <fcntl.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "zev0.h"

namespace zev0 {
namespace {

constexpr unsigned int kDefaultMask = TLG1_ERROR;

struct ScopeLevel {
    std::string scope;  // "*", a unit name, or a function's trace name
    unsigned int mask;
};

struct TraceState {
    std::mutex configLock;  // levels, units, generation
    std::vector<ScopeLevel> levels;
    TraceUnit *units = nullptr;
    TraceFunctionRecord *records = nullptr;  // linked through their link words
    unsigned int generation = 1;

    std::mutex outputLock;  // destination of lines, with outputFd below
    bool ownsFd = false;
    TLG1_Sink sink = nullptr;
    void *sinkCtx = nullptr;
};

TraceState &state() {
    static TraceState *s = new TraceState;  // never destroyed: lines may come from exit handlers
    return *s;
}

// What an unlocked line needs, readable without taking a lock: the file's
// descriptor (changed only under outputLock) and the local zone's offset
// from UTC in seconds, as the last local time computed had it.
std::atomic<int> outputFd{STDERR_FILENO};
std::atomic<long> utcOffset{0};
// Set while the lines go to a standard error that is the journal's stream:
// then each line starts with its syslog priority ("<3>"), which the journal
// takes off and keeps as the entry's priority.
std::atomic<bool> journalPriorities{false};

// Syslog priorities of the lines.
constexpr int kPriorityError = 3;
constexpr int kPriorityWarning = 4;
constexpr int kPriorityNotice = 5;
constexpr int kPriorityInfo = 6;
constexpr int kPriorityDebug = 7;

// Whether standard error is the stream that JOURNAL_STREAM ("DEVICE:INODE",
// set by the service manager) names: a descriptor inherited from elsewhere
// keeps the variable but is another file.
bool stderrIsJournal() {
    const char *stream = getenv("JOURNAL_STREAM");
    if (stream == nullptr || stream[0] == '\0') return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long device = strtoull(stream, &end, 10);
    if (errno != 0 || end == stream || *end != ':') return false;
    const char *inodeText = end + 1;
    unsigned long long inode = strtoull(inodeText, &end, 10);
    if (errno != 0 || end == inodeText || *end != '\0') return false;
    struct stat info;
    if (fstat(STDERR_FILENO, &info) != 0) return false;
    return static_cast<unsigned long long>(info.st_dev) == device &&
           static_cast<unsigned long long>(info.st_ino) == inode;
}

// The priority of a line by its text (after the prefix): the facility's
// words for errors, warnings and notes, hex dumps at debug, the rest info.
int textPriority(const TraceFunctionRecord *rec, std::string_view text) {
    if (text.starts_with("Error")) return kPriorityError;
    if (text.starts_with("Warning")) return kPriorityWarning;
    if (text.starts_with("Note")) return kPriorityNotice;
    if (text.starts_with("DUMP[")) return kPriorityDebug;
    if (rec != nullptr && rec->name != nullptr && strcmp(rec->name, "ZEV0_PrintDump") == 0)
        return kPriorityDebug;
    return kPriorityInfo;
}

std::once_flag initOnce;

bool parseLevels(std::string_view text, unsigned int *mask) {
    if (text.empty()) return false;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        unsigned int value = 0;
        for (char c : text.substr(2)) {
            int digit;
            if (c >= '0' && c <= '9')
                digit = c - '0';
            else if (c >= 'a' && c <= 'f')
                digit = c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                digit = c - 'A' + 10;
            else
                return false;
            if (value > 0x0FFFFFFFu) return false;
            value = value * 16 + static_cast<unsigned int>(digit);
        }
        *mask = value;
        return true;
    }
    static const struct {
        const char *name;
        unsigned int bits;
    } kNames[] = {{"error", TLG1_ERROR},
                  {"entry", TLG1_ENTRY_EXIT},
                  {"detail", TLG1_DETAIL},
                  {"dump", TLG1_DUMP},
                  {"storage", TLG1_STORAGE},
                  {"flow", TLG1_FLOW},
                  {"all", 0xFFu},
                  {"none", 0u}};
    unsigned int value = 0;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t plus = text.find('+', pos);
        if (plus == std::string_view::npos) plus = text.size();
        std::string_view word = text.substr(pos, plus - pos);
        bool known = false;
        for (const auto &entry : kNames) {
            if (word.size() == strlen(entry.name) &&
                strncasecmp(word.data(), entry.name, word.size()) == 0) {
                value |= entry.bits;
                known = true;
                break;
            }
        }
        if (!known) return false;
        pos = plus + 1;
    }
    *mask = value;
    return true;
}

// The unit's file name without directory and extension; never allocates.
std::string_view unitName(const TraceUnit *unit) {
    if (unit == nullptr || unit->fileName == nullptr) return "?";
    std::string_view name(unit->fileName);
    size_t slash = name.rfind('/');
    if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
    size_t dot = name.find('.');
    if (dot != std::string_view::npos) name = name.substr(0, dot);
    return name;
}

std::string unitToken(const TraceUnit *unit) {
    return std::string(unitName(unit));
}

unsigned int lookup(const std::vector<ScopeLevel> &levels, const std::string &unit,
                    const char *function) {
    // Most specific wins: function, then unit, then "*"; later items override.
    const ScopeLevel *byFunction = nullptr;
    const ScopeLevel *byUnit = nullptr;
    const ScopeLevel *byAll = nullptr;
    for (const auto &item : levels) {
        if (function != nullptr && item.scope == function)
            byFunction = &item;
        else if (item.scope == unit)
            byUnit = &item;
        else if (item.scope == "*")
            byAll = &item;
    }
    if (byFunction != nullptr) return byFunction->mask;
    if (byUnit != nullptr) return byUnit->mask;
    if (byAll != nullptr) return byAll->mask;
    return kDefaultMask;
}

void openDestination(TraceState &s, std::vector<std::string> *complaints) {
    const char *path = getenv("ZEVA_TRACE_FILE");
    std::lock_guard<std::mutex> guard(s.outputLock);
    if (s.ownsFd) close(outputFd.load(std::memory_order_relaxed));
    outputFd.store(STDERR_FILENO, std::memory_order_relaxed);
    s.ownsFd = false;
    journalPriorities.store(stderrIsJournal(), std::memory_order_relaxed);
    if (path == nullptr || path[0] == '\0' || strcmp(path, "-") == 0) return;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        complaints->push_back(std::string("Error: cannot open ZEVA_TRACE_FILE <") + path +
                              ">: " + strerror(errno) + ", writing to standard error");
        return;
    }
    outputFd.store(fd, std::memory_order_relaxed);
    s.ownsFd = true;
    journalPriorities.store(false, std::memory_order_relaxed);
}

void configure(const char *text, std::vector<std::string> *complaints) {
    std::vector<ScopeLevel> levels;
    std::string_view all(text != nullptr ? text : "");
    size_t pos = 0;
    while (pos < all.size()) {
        size_t end = all.find_first_of(", \t\n", pos);
        if (end == std::string_view::npos) end = all.size();
        std::string_view item = all.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty()) continue;
        std::string_view scope = "*";
        std::string_view value = item;
        size_t eq = item.find('=');
        if (eq != std::string_view::npos) {
            scope = item.substr(0, eq);
            value = item.substr(eq + 1);
        }
        unsigned int mask = 0;
        if (scope.empty() || !parseLevels(value, &mask)) {
            complaints->push_back("Error: ZEVA_TRACE item <" + std::string(item) + "> ignored");
            continue;
        }
        levels.push_back({std::string(scope), mask});
    }
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.configLock);
    s.levels = std::move(levels);
    if (++s.generation == TLG1_NEVER_SYNCED) s.generation = 1;
    for (TraceUnit *unit = s.units; unit != nullptr; unit = unit->next)
        __atomic_store_n(&unit->syncCounter, s.generation, __ATOMIC_RELEASE);
}

void appendPrefix(std::string &out, const TraceFunctionRecord *rec, int line) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    utcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
    char head[128];
    int n = snprintf(head, sizeof head, "%04d-%02d-%02d %02d:%02d:%02d.%06ld %ld.%ld ",
                     local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                     local.tm_min, local.tm_sec, static_cast<long>(now.tv_usec),
                     static_cast<long>(getpid()), static_cast<long>(syscall(SYS_gettid)));
    out.append(head, n > 0 ? static_cast<size_t>(n) : 0);
    out += unitToken(rec != nullptr ? rec->unit : nullptr);
    out += ' ';
    out += (rec != nullptr && rec->name != nullptr) ? rec->name : "?";
    out += ':';
    out += std::to_string(line);
    out += ' ';
}

TraceUnit zev0Unit = {0, __DATE__, __TIME__, "zev0.c", "ZEV0", nullptr, 0};
TraceFunctionRecord configureRecord = {nullptr, "TLG1_Configure", 14, __LINE__, &zev0Unit, 0x200,
                                       0,       TLG1_NEVER_SYNCED};

void printLine(TraceFunctionRecord *rec, int line, const char *fmt, ...) {
    std::string out;
    va_list ap;
    va_start(ap, fmt);
    appendPrefix(out, rec, line);
    size_t textStart = out.size();
    formatText(out, fmt, ap);
    va_end(ap);
    emitLine(out, textPriority(rec, std::string_view(out).substr(textStart)));
}

// Written whatever the levels: a configuration that cannot be applied must be seen.
void complain(const std::vector<std::string> &complaints) {
    for (const auto &text : complaints) printLine(&configureRecord, __LINE__, "%s\n", text.c_str());
}

void initFromEnvironment() {
    // The zone's offset for unlocked lines, before any line computes it.
    struct tm local;
    time_t now = time(nullptr);
    if (localtime_r(&now, &local) != nullptr)
        utcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
    std::vector<std::string> complaints;
    openDestination(state(), &complaints);
    configure(getenv("ZEVA_TRACE"), &complaints);
    complain(complaints);
}

void ensureInit() {
    std::call_once(initOnce, initFromEnvironment);
}

// Writes the bytes to fd: one write(2) unless the kernel cuts it.
void writeWhole(int fd, const char *p, size_t left) {
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

// Longest unlocked line, its newline included; a longer one is cut.
constexpr size_t kUnlockedLineSize = 2048;

// A line built on the stack for TLG1_WriteUnlocked: no allocation, no lock,
// nothing from the C library that may take one. Pieces are cut at the end
// of the buffer, which keeps room for the final newline.
class StackLine {
public:
    void add(std::string_view piece) {
        size_t room = sizeof _text - 1 - _used;
        size_t n = piece.size() < room ? piece.size() : room;
        memcpy(_text + _used, piece.data(), n);
        _used += n;
    }
    void add(char c) { add(std::string_view(&c, 1)); }
    // value in decimal, with leading zeros to width digits.
    void addNumber(long long value, int width = 1) {
        char digits[24];
        int n = 0;
        unsigned long long magnitude = value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                                                 : static_cast<unsigned long long>(value);
        do {
            digits[n++] = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude != 0);
        while (n < width && n < static_cast<int>(sizeof digits)) digits[n++] = '0';
        if (value < 0) add('-');
        while (n > 0) add(digits[--n]);
    }
    // Ends the line with a newline unless it has one.
    void end() {
        if (_used == 0 || _text[_used - 1] != '\n') _text[_used++] = '\n';
    }
    const char *data() const { return _text; }
    size_t size() const { return _used; }

private:
    char _text[kUnlockedLineSize];
    size_t _used = 0;
};

// The civil date of a day counted from 1970-01-01 (proleptic Gregorian).
void civilDate(long long day, long long *year, int *month, int *dayOfMonth) {
    day += 719468;  // from 0000-03-01, so that a leap day ends its year
    const long long era = (day >= 0 ? day : day - 146096) / 146097;
    const long long dayOfEra = day - era * 146097;  // [0, 146096]
    const long long yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;  // [0, 399]
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long shifted = (5 * dayOfYear + 2) / 153;  // month counted from March
    *dayOfMonth = static_cast<int>(dayOfYear - (153 * shifted + 2) / 5 + 1);
    *month = static_cast<int>(shifted < 10 ? shifted + 3 : shifted - 9);
    *year = yearOfEra + era * 400 + (*month <= 2 ? 1 : 0);
}

// The prefix of appendPrefix, without localtime_r (which locks): the local
// time comes from the zone offset that the last locked line recorded.
void addUnlockedPrefix(StackLine &out, const TraceFunctionRecord *rec, int line) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    long long seconds =
        static_cast<long long>(now.tv_sec) + utcOffset.load(std::memory_order_relaxed);
    long long day = seconds / 86400;
    long long second = seconds % 86400;
    if (second < 0) {
        second += 86400;
        --day;
    }
    long long year;
    int month;
    int dayOfMonth;
    civilDate(day, &year, &month, &dayOfMonth);
    out.addNumber(year, 4);
    out.add('-');
    out.addNumber(month, 2);
    out.add('-');
    out.addNumber(dayOfMonth, 2);
    out.add(' ');
    out.addNumber(second / 3600, 2);
    out.add(':');
    out.addNumber(second / 60 % 60, 2);
    out.add(':');
    out.addNumber(second % 60, 2);
    out.add('.');
    out.addNumber(static_cast<long long>(now.tv_usec), 6);
    out.add(' ');
    out.addNumber(static_cast<long long>(getpid()));
    out.add('.');
    out.addNumber(static_cast<long long>(syscall(SYS_gettid)));
    out.add(' ');
    out.add(unitName(rec != nullptr ? rec->unit : nullptr));
    out.add(' ');
    out.add((rec != nullptr && rec->name != nullptr) ? rec->name : "?");
    out.add(':');
    out.addNumber(line);
    out.add(' ');
}

}  // namespace

void emitLine(std::string &line, int priority) {
    if (line.empty() || line.back() != '\n') line += '\n';
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.outputLock);
    if (s.sink != nullptr) {
        s.sink(s.sinkCtx, line.data(), line.size());
        return;
    }
    if (journalPriorities.load(std::memory_order_relaxed) && priority >= 0 && priority <= 7) {
        const char tag[] = {'<', static_cast<char>('0' + priority), '>'};
        line.insert(0, tag, sizeof tag);
    }
    writeWhole(outputFd.load(std::memory_order_relaxed), line.data(), line.size());
}

size_t formatLine(std::string &out, const TraceFunctionRecord *rec, int line, const char *fmt,
                  va_list ap) {
    appendPrefix(out, rec, line);
    size_t textStart = out.size();
    formatText(out, fmt, ap);
    return textStart;
}

int linePriority(const TraceFunctionRecord *rec, const std::string &line, size_t textStart) {
    return textPriority(rec, std::string_view(line).substr(textStart));
}

}  // namespace zev0

extern "C" {

unsigned int TLG1_Sync(TraceFunctionRecord *rec) {
    zev0::ensureInit();
    zev0::TraceState &s = zev0::state();
    std::lock_guard<std::mutex> guard(s.configLock);
    if (rec->link == nullptr && rec != s.records) {
        // The last record of the list links to itself so that a linked
        // record never carries NULL.
        rec->link = s.records != nullptr ? s.records : rec;
        s.records = rec;
    }
    TraceUnit *unit = rec->unit;
    unsigned int counter = s.generation;
    unsigned int mask = zev0::kDefaultMask;
    if (unit != nullptr) {
        if (!unit->registered) {
            unit->registered = 1;
            unit->next = s.units;
            s.units = unit;
            __atomic_store_n(&unit->syncCounter, s.generation, __ATOMIC_RELEASE);
        }
        counter = __atomic_load_n(&unit->syncCounter, __ATOMIC_ACQUIRE);
        mask = zev0::lookup(s.levels, zev0::unitToken(unit), rec->name);
    } else {
        mask = zev0::lookup(s.levels, "", rec->name);
    }
    __atomic_store_n(&rec->mask, mask, __ATOMIC_RELAXED);
    __atomic_store_n(&rec->syncCopy, counter, __ATOMIC_RELEASE);
    return mask;
}

void TLG1_Printf(TraceFunctionRecord *rec, int line, const char *fmt, ...) {
    zev0::ensureInit();
    std::string out;
    va_list ap;
    va_start(ap, fmt);
    size_t textStart = zev0::formatLine(out, rec, line, fmt, ap);
    va_end(ap);
    zev0::emitLine(out, zev0::linePriority(rec, out, textStart));
}

void TLG1_Event(TraceFunctionRecord *rec, int line, int kind, ...) {
    zev0::ensureInit();
    std::string out;
    va_list ap;
    va_start(ap, kind);
    switch (kind) {
        case TLG1_EVENT_ENTRY: zev0::formatLine(out, rec, line, "Entry", ap); break;
        case TLG1_EVENT_EXIT_VALUE: zev0::formatLine(out, rec, line, "Exit: 0x%lx", ap); break;
        default: zev0::formatLine(out, rec, line, "Exit", ap); break;
    }
    va_end(ap);
    zev0::emitLine(out, zev0::kPriorityDebug);
}

// Writes text as one line to the trace file in one write(2), its prefix
// built by hand. Meant for a forked child, which may find the trace's locks
// held for ever by threads that did not follow it: it takes no lock,
// allocates nothing and calls no localtime_r. It never calls the sink, which
// may lock (and in a child belongs to the parent): with a sink set, the line
// still goes to the file (standard error before the facility's first use).
void TLG1_WriteUnlocked(const TraceFunctionRecord *rec, int line, const char *text) {
    zev0::StackLine out;
    if (zev0::journalPriorities.load(std::memory_order_relaxed)) {
        out.add('<');
        out.add(static_cast<char>('0' + zev0::textPriority(rec, text != nullptr ? text : "")));
        out.add('>');
    }
    zev0::addUnlockedPrefix(out, rec, line);
    out.add(text != nullptr ? text : "(null)");
    out.end();
    zev0::writeWhole(zev0::outputFd.load(std::memory_order_relaxed), out.data(), out.size());
}

void TLG1_Configure(const char *levels) {
    // A first use of the facility reads the environment: reading it again
    // at once would only write each complaint about it twice.
    bool first = false;
    std::call_once(zev0::initOnce, [&first] {
        zev0::initFromEnvironment();
        first = true;
    });
    if (first && levels == nullptr) return;
    std::vector<std::string> complaints;
    if (levels == nullptr) {
        zev0::openDestination(zev0::state(), &complaints);
        levels = getenv("ZEVA_TRACE");
    }
    zev0::configure(levels, &complaints);
    zev0::complain(complaints);
}

void TLG1_ForEachRecord(void (*fn)(void *ctx, const TraceFunctionRecord *rec), void *ctx) {
    zev0::TraceState &s = zev0::state();
    std::lock_guard<std::mutex> guard(s.configLock);
    for (TraceFunctionRecord *rec = s.records; rec != nullptr;) {
        fn(ctx, rec);
        auto *next = static_cast<TraceFunctionRecord *>(rec->link);
        rec = next == rec ? nullptr : next;
    }
}

void TLG1_SetSink(TLG1_Sink sink, void *ctx) {
    zev0::ensureInit();
    zev0::TraceState &s = zev0::state();
    std::lock_guard<std::mutex> guard(s.outputLock);
    s.sink = sink;
    s.sinkCtx = ctx;
}

}  // extern "C"
