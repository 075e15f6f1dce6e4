#include "zevdctl_trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zev0.h"

namespace zevdctl {

namespace {

std::string configuredLevels() {
    const char *levels = getenv("ZEVA_TRACE");
    return levels != nullptr ? levels : "";
}

void writeWhole(int fd, const char *data, size_t length) {
    while (length > 0) {
        ssize_t n = write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        length -= static_cast<size_t>(n);
    }
}

}  // namespace

TraceWatch::TraceWatch(const std::string &extraLevels) {
    std::string levels = configuredLevels();
    if (!levels.empty() && levels != "none") {
        const char *file = getenv("ZEVA_TRACE_FILE");
        if (file != nullptr && *file != '\0' && strcmp(file, "-") != 0) {
            forwardTo_ = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
            ownsForward_ = forwardTo_ >= 0;
        } else {
            forwardTo_ = STDERR_FILENO;
        }
    }
    TLG1_SetSink(take, this);
    TLG1_Configure((levels + " " + extraLevels).c_str());
}

TraceWatch::~TraceWatch() {
    TLG1_Configure(configuredLevels().c_str());
    TLG1_SetSink(nullptr, nullptr);
    if (ownsForward_) close(forwardTo_);
}

std::string TraceWatch::find(const std::string &part) const {
    for (const std::string &line : lines_) {
        size_t at = line.find(part);
        if (at == std::string::npos) continue;
        size_t end = line.find_last_not_of('\n');
        return line.substr(at, end == std::string::npos || end < at ? 0 : end + 1 - at);
    }
    return {};
}

void TraceWatch::take(void *watch, const char *line, size_t length) {
    auto *self = static_cast<TraceWatch *>(watch);
    self->lines_.emplace_back(line, length);
    if (self->forwardTo_ >= 0) writeWhole(self->forwardTo_, line, length);
}

}  // namespace zevdctl
