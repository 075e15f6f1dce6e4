// Captures trace lines through TLG1_SetSink for the length of a scope.
#ifndef ZEVD_TESTS_SUPPORT_TRACE_CAPTURE_H
#define ZEVD_TESTS_SUPPORT_TRACE_CAPTURE_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace zevd::test {

class TraceCapture {
public:
    // Applies levels (ZEVA_TRACE syntax) and captures every line until
    // destruction, which restores the file output and the levels "error".
    explicit TraceCapture(const char *levels = "all");
    ~TraceCapture();
    TraceCapture(const TraceCapture &) = delete;
    TraceCapture &operator=(const TraceCapture &) = delete;

    // Whole lines as written, each ending in '\n'.
    std::vector<std::string> lines() const;
    // The text of each line after "unit function:line ".
    std::vector<std::string> texts() const;
    // The texts of the lines that the function with this trace name wrote.
    std::vector<std::string> textsOf(const std::string &function) const;
    // True when some line's text equals text exactly (without its '\n' when
    // text carries none).
    bool hasText(const std::string &text) const;
    // True when some line's text contains part.
    bool contains(const std::string &part) const;
    size_t count(const std::string &part) const;
    // Waits until at least times lines' texts contain part, or limit has
    // passed; true when they do. Lines written by other threads wake it.
    bool waitFor(const std::string &part,
                 std::chrono::milliseconds limit = std::chrono::seconds(30),
                 size_t times = 1) const;
    void clear();
    std::string joined() const;

private:
    static void sink(void *ctx, const char *line, size_t len);
    mutable std::mutex lock_;
    mutable std::condition_variable written_;
    std::vector<std::string> lines_;
};

// The text of a trace line: what follows "unit function:line ".
std::string traceText(const std::string &line);

// A pointer as the trace writes it ("%p").
inline std::string pointerText(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_TRACE_CAPTURE_H
