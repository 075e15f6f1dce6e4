// The metrics page of zevdchd: a snapshot of what the Dch counts and of the
// latest value of every attribute of every open handle, and that snapshot
// written as a page in the Prometheus text exposition format (0.0.4). The
// snapshot is a plain copy taken on the worker, so the page can be written
// on any thread while the worker goes on; the naming rules and the bounds
// are described in docs/metrics.md.
#ifndef ZEVD_DCH_ZEVDCHD_METRICS_H
#define ZEVD_DCH_ZEVDCHD_METRICS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zevdchd.h"

namespace zevd::dch {

// Bounds of one page. Each text attribute becomes a label of its handle's
// _info series; the series beyond kMaxInfoSeries and the labels beyond
// kMaxInfoLabels are left out and counted on the page. A label value keeps
// at most kMaxLabelValue bytes (the Dch keeps no more of a text value).
inline constexpr size_t kMaxInfoSeries = 4096;
inline constexpr size_t kMaxInfoLabels = 64;
inline constexpr size_t kMaxLabelValue = kLatestTextMax;

// A group with rows on the page: its names and its attributes in catalogue
// order. Shared by every series of the group.
struct MetricsGroup {
    struct Attribute {
        std::string name;
        char type = 0;
    };
    std::string appl;
    std::string group;
    std::vector<Attribute> attributes;
};

// One open handle that has had an accepted row.
struct MetricsSeries {
    size_t group = 0;  // index in MetricsSnapshot::groups
    std::string source;
    int32_t handle = 0;
    std::vector<LatestValue> values;  // one per attribute of the group
};

struct MetricsSnapshot {
    struct RequestCount {
        const char *request;  // the handler table's name, or "unknown"
        uint64_t count;
    };
    std::vector<RequestCount> requests;  // in request code order, "unknown" last
    uint64_t answers = 0;
    uint64_t rowsForwarded = 0;
    uint64_t statusReports = 0;
    std::array<uint64_t, kDropReasons> drops{};
    uint64_t providersOnline = 0;
    uint64_t statusReportsWaiting = 0;
    uint64_t dataSubscribers = 0;
    uint64_t statusSubscribers = 0;
    int64_t startTime = 0;  // seconds since the epoch
    std::string version;
    std::vector<MetricsGroup> groups;
    std::vector<MetricsSeries> series;  // in handle order
};

// Copies what the page shows. Runs on the worker, like every other use of
// the Dch. The kernel's receive-buffer drops are the counter as last stored
// (the daemon stores Worker::kernelDrops() in it before it writes counters).
MetricsSnapshot metricsSnapshot(const Dch &dch);

// The page: one block per metric family in name order, each with one HELP
// and one TYPE line, no timestamps, ending with a newline.
std::string renderMetrics(const MetricsSnapshot &snapshot);
// True for a family the daemon writes itself: a family that the data would
// name so gets '_' appended instead.
bool isOwnFamily(const std::string &name);

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_METRICS_H
