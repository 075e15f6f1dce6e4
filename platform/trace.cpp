// Trace facility: levels per unit and per function from ZEVA_TRACE, lines to
// ZEVA_TRACE_FILE (or standard error) or to a sink, one write per line.
#include "trace_internal.h"

#include <sys/syscall.h>
#include <sys/time.h>

#include <fcntl.h>
#include <unistd.h>
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

    std::mutex outputLock;  // destination of lines
    int fd = STDERR_FILENO;
    bool ownsFd = false;
    TLG1_Sink sink = nullptr;
    void *sinkCtx = nullptr;
};

TraceState &state() {
    static TraceState *s = new TraceState;  // never destroyed: lines may come from exit handlers
    return *s;
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

std::string unitToken(const TraceUnit *unit) {
    if (unit == nullptr || unit->fileName == nullptr) return "?";
    std::string_view name(unit->fileName);
    size_t slash = name.rfind('/');
    if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
    size_t dot = name.find('.');
    if (dot != std::string_view::npos) name = name.substr(0, dot);
    return std::string(name);
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
    if (s.ownsFd) close(s.fd);
    s.fd = STDERR_FILENO;
    s.ownsFd = false;
    if (path == nullptr || path[0] == '\0' || strcmp(path, "-") == 0) return;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        complaints->push_back(std::string("Error: cannot open ZEVA_TRACE_FILE <") + path +
                              ">: " + strerror(errno) + ", writing to standard error\n");
        return;
    }
    s.fd = fd;
    s.ownsFd = true;
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
            complaints->push_back("Error: ZEVA_TRACE item <" + std::string(item) + "> ignored\n");
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
    formatText(out, fmt, ap);
    va_end(ap);
    emitLine(out);
}

// Written whatever the levels: a configuration that cannot be applied must be seen.
void complain(const std::vector<std::string> &complaints) {
    for (const auto &text : complaints) printLine(&configureRecord, __LINE__, "%s", text.c_str());
}

void initFromEnvironment() {
    std::vector<std::string> complaints;
    openDestination(state(), &complaints);
    configure(getenv("ZEVA_TRACE"), &complaints);
    complain(complaints);
}

void ensureInit() {
    std::call_once(initOnce, initFromEnvironment);
}

}  // namespace

void emitLine(std::string &line) {
    if (line.empty() || line.back() != '\n') line += '\n';
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.outputLock);
    if (s.sink != nullptr) {
        s.sink(s.sinkCtx, line.data(), line.size());
        return;
    }
    const char *p = line.data();
    size_t left = line.size();
    while (left > 0) {  // one write(2) for the whole line unless the kernel cuts it
        ssize_t n = write(s.fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void formatLine(std::string &out, const TraceFunctionRecord *rec, int line, const char *fmt,
                va_list ap) {
    appendPrefix(out, rec, line);
    formatText(out, fmt, ap);
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
    zev0::formatLine(out, rec, line, fmt, ap);
    va_end(ap);
    zev0::emitLine(out);
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
    zev0::emitLine(out);
}

void TLG1_Configure(const char *levels) {
    zev0::ensureInit();
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
