#include "support/trace_capture.h"

#include "zev0.h"

namespace zevd::test {

TraceCapture::TraceCapture(const char *levels) {
    TLG1_SetSink(&TraceCapture::sink, this);
    TLG1_Configure(levels);
}

TraceCapture::~TraceCapture() {
    TLG1_Configure("error");
    TLG1_SetSink(nullptr, nullptr);
}

void TraceCapture::sink(void *ctx, const char *line, size_t len) {
    auto *self = static_cast<TraceCapture *>(ctx);
    {
        std::lock_guard<std::mutex> guard(self->lock_);
        self->lines_.emplace_back(line, len);
    }
    self->written_.notify_all();
}

std::vector<std::string> TraceCapture::lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
}

std::string traceText(const std::string &line) {
    // "date time pid.tid unit function:line text"
    size_t pos = 0;
    for (int field = 0; field < 5 && pos != std::string::npos; ++field) {
        pos = line.find(' ', pos);
        if (pos != std::string::npos) ++pos;
    }
    return pos == std::string::npos ? std::string() : line.substr(pos);
}

std::vector<std::string> TraceCapture::texts() const {
    std::vector<std::string> out;
    for (const auto &line : lines()) out.push_back(traceText(line));
    return out;
}

std::vector<std::string> TraceCapture::textsOf(const std::string &function) const {
    std::vector<std::string> out;
    for (const auto &line : lines()) {
        // "date time pid.tid unit function:line text"
        size_t pos = 0;
        for (int field = 0; field < 4 && pos != std::string::npos; ++field) {
            pos = line.find(' ', pos);
            if (pos != std::string::npos) ++pos;
        }
        if (pos == std::string::npos) continue;
        if (line.compare(pos, function.size() + 1, function + ":") == 0)
            out.push_back(traceText(line));
    }
    return out;
}

bool TraceCapture::hasText(const std::string &text) const {
    std::string want = text;
    if (want.empty() || want.back() != '\n') want += '\n';
    for (const auto &t : texts())
        if (t == want) return true;
    return false;
}

bool TraceCapture::contains(const std::string &part) const {
    return count(part) > 0;
}

size_t TraceCapture::count(const std::string &part) const {
    size_t n = 0;
    for (const auto &t : texts())
        if (t.find(part) != std::string::npos) ++n;
    return n;
}

bool TraceCapture::waitFor(const std::string &part, std::chrono::milliseconds limit,
                           size_t times) const {
    std::unique_lock<std::mutex> guard(lock_);
    return written_.wait_for(guard, limit, [&] {
        size_t n = 0;
        for (const auto &line : lines_)
            if (traceText(line).find(part) != std::string::npos) ++n;
        return n >= times;
    });
}

void TraceCapture::clear() {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.clear();
}

std::string TraceCapture::joined() const {
    std::string all;
    for (const auto &line : lines()) all += line;
    return all;
}

}  // namespace zevd::test
