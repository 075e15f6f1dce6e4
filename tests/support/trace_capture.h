// Captures trace lines through TLG1_SetSink for the length of a scope.
#ifndef ZEVD_TESTS_SUPPORT_TRACE_CAPTURE_H
#define ZEVD_TESTS_SUPPORT_TRACE_CAPTURE_H

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
    // True when some line's text equals text exactly (without its '\n' when
    // text carries none).
    bool hasText(const std::string &text) const;
    // True when some line's text contains part.
    bool contains(const std::string &part) const;
    size_t count(const std::string &part) const;
    void clear();
    std::string joined() const;

private:
    static void sink(void *ctx, const char *line, size_t len);
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
};

// The text of a trace line: what follows "unit function:line ".
std::string traceText(const std::string &line);

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_TRACE_CAPTURE_H
