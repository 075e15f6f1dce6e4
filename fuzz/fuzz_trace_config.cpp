// Any text as a ZEVA_TRACE configuration, applied with TLG1_Configure. The
// text ends at its first zero and lies in a block of its own, so that the
// sanitizer sees any read past it. Nothing may crash; every item it refuses
// gives one whole line; the same text gives the same lines each time; a
// unit scope after it still takes effect; and records keep tracing into the
// sink afterwards, one line per call.
//
// The configuration text names levels only: the trace file comes from
// ZEVA_TRACE_FILE, which is unset here and read only by the NULL form of
// TLG1_Configure, never called here. No input can make a file be written.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "zev0.h"

namespace {

std::vector<std::string> &sunk() {
    static auto *lines = new std::vector<std::string>;
    return *lines;
}

void sink(void * /*ctx*/, const char *line, size_t len) {
    sunk().emplace_back(line, len);
}

// A unit and a function that fuzz input is unlikely to name; the probe item
// below gives the unit its levels.
TraceUnit probeUnit = {0, __DATE__, __TIME__, "fuzzprobe.cpp", "FUZZ", nullptr, 0};
TraceFunctionRecord probe = {nullptr, "fuzzprobe::f", 12, 1, &probeUnit, 0, 0, TLG1_NEVER_SYNCED};
// A record of a unit of the library's, and one without a unit.
TraceUnit sockUnit = {0, __DATE__, __TIME__, "zevdsock.cpp", "ZEVD610", nullptr, 0};
TraceFunctionRecord online = {nullptr, "DCHclient::dp_online", 20, 1, &sockUnit, 0,
                              0,       TLG1_NEVER_SYNCED};
TraceFunctionRecord loose = {nullptr, "C::dp_online", 12, 1, nullptr, 0, 0, TLG1_NEVER_SYNCED};

bool endsWith(const std::string &text, const std::string &tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Applies text from an exact-size copy; the lines it wrote.
std::vector<std::string> apply(const std::string &text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    sunk().clear();
    TLG1_Configure(copy.get());
    std::vector<std::string> lines = std::move(sunk());
    sunk().clear();
    return lines;
}

// Each line whole: one newline, at its end, and a refused item's text.
void checkComplaints(const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
        if (line.empty() || line.find('\n') != line.size() - 1) __builtin_trap();
        if (line.find(" TLG1_Configure:") == std::string::npos ||
            line.find("Error: ZEVA_TRACE item <") == std::string::npos)
            __builtin_trap();
    }
}

// The record's mask is what its sync says, and stays so until the next change.
void checkRecord(TraceFunctionRecord *rec) {
    unsigned int mask = TLG1_Sync(rec);
    if (TLG1_Sync(rec) != mask || rec->mask != mask) __builtin_trap();
    if (rec->unit != nullptr &&
        rec->syncCopy != __atomic_load_n(&rec->unit->syncCounter, __ATOMIC_ACQUIRE))
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    unsetenv("ZEVA_TRACE_FILE");
    setenv("ZEVA_TRACE", "none", 1);
    TLG1_SetSink(sink, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    // TLG1_Configure reads up to the first zero.
    const char *bytes = reinterpret_cast<const char *>(data);
    std::string text(bytes, strnlen(bytes, size));

    std::vector<std::string> complaints = apply(text);
    checkComplaints(complaints);
    checkRecord(&online);
    checkRecord(&loose);
    checkRecord(&probe);

    // The same text once more, a valid unit item after it: the same
    // complaints, and the unit item decides the probe's levels unless the
    // text names the probe's function itself.
    std::vector<std::string> again = apply(text + ",fuzzprobe=0x5a");
    if (again.size() != complaints.size()) __builtin_trap();
    for (size_t i = 0; i < again.size(); ++i) {
        size_t a = complaints[i].find("Error: ");
        size_t b = again[i].find("Error: ");
        if (a == std::string::npos || b == std::string::npos ||
            complaints[i].compare(a, std::string::npos, again[i], b, std::string::npos) != 0)
            __builtin_trap();
    }
    unsigned int mask = TLG1_Sync(&probe);
    if (text.find("fuzzprobe::f") == std::string::npos && mask != 0x5a) __builtin_trap();
    checkRecord(&online);
    checkRecord(&loose);

    // Records still trace: one line per call, into the sink.
    sunk().clear();
    TLG1_Printf(&probe, 42, "probe %s %d", "line", 7);
    TLG1_Event(&online, 43, TLG1_EVENT_ENTRY);
    TLG1_Event(&loose, 44, TLG1_EVENT_EXIT_VALUE, 0x2aL);
    std::vector<std::string> lines = std::move(sunk());
    sunk().clear();
    if (lines.size() != 3) __builtin_trap();
    if (!endsWith(lines[0], " fuzzprobe fuzzprobe::f:42 probe line 7\n") ||
        !endsWith(lines[1], " zevdsock DCHclient::dp_online:43 Entry\n") ||
        !endsWith(lines[2], " ? C::dp_online:44 Exit: 0x2a\n"))
        __builtin_trap();
    return 0;
}
