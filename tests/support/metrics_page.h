// A checker of metrics pages in the Prometheus text exposition format
// (0.0.4): it holds a page to the format's rules (one block per family, one
// HELP and one TYPE before its samples, no sample twice, no timestamps, label
// values escaped and UTF-8, a final newline) and reads its samples back by
// name and labels. And promtool's check, for when promtool is installed.
#ifndef ZEVD_TESTS_SUPPORT_METRICS_PAGE_H
#define ZEVD_TESTS_SUPPORT_METRICS_PAGE_H

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zevd::test {

using Labels = std::vector<std::pair<std::string, std::string>>;

inline std::string escaped(const std::string &value) {
    std::string out;
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

// A sample's name and labels in one text, the labels in name order.
inline std::string key(const std::string &name, Labels labels) {
    std::sort(labels.begin(), labels.end());
    if (labels.empty()) return name;
    std::string out = name + '{';
    for (size_t i = 0; i < labels.size(); ++i)
        out += (i == 0 ? "" : ",") + labels[i].first + "=\"" + escaped(labels[i].second) + '"';
    return out + '}';
}

inline bool validUtf8(const std::string &text) {
    for (size_t i = 0; i < text.size();) {
        auto b = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
        unsigned char c = b(i);
        size_t n = c < 0x80                 ? 1
                   : c >= 0xc2 && c <= 0xdf ? 2
                   : c >= 0xe0 && c <= 0xef ? 3
                   : c >= 0xf0 && c <= 0xf4 ? 4
                                            : 0;
        if (n == 0 || i + n > text.size()) return false;
        for (size_t k = 1; k < n; ++k)
            if ((b(i + k) & 0xc0) != 0x80) return false;
        if ((c == 0xe0 && b(i + 1) < 0xa0) || (c == 0xed && b(i + 1) > 0x9f) ||
            (c == 0xf0 && b(i + 1) < 0x90) || (c == 0xf4 && b(i + 1) > 0x8f))
            return false;
        i += n;
    }
    return true;
}

inline bool isName(const std::string &name, bool label) {
    if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || (!label && c == ':')))
            return false;
    return !(label && name.compare(0, 2, "__") == 0);
}

struct CheckedPage {
    std::vector<std::string> errors;
    std::map<std::string, std::string> samples;  // key() -> value
    std::map<std::string, std::string> types;    // family -> type
    std::map<std::string, std::string> help;     // family -> help, unescaped
    std::map<std::string, int> perFamily;        // family -> samples

    bool has(const std::string &k) const { return samples.count(k) != 0; }
    std::string value(const std::string &k) const {
        auto it = samples.find(k);
        return it == samples.end() ? "(none)" : it->second;
    }
    // The keys of the samples of family name.
    std::vector<std::string> keysOf(const std::string &name) const {
        std::vector<std::string> out;
        for (const auto &[k, v] : samples)
            if (k == name || k.compare(0, name.size() + 1, name + '{') == 0) out.push_back(k);
        return out;
    }
};

// Reads a label set "{a="x",b="y"}" at line[at]; false with why.
inline bool readLabels(const std::string &line, size_t &at, Labels &labels, std::string &why) {
    auto no = [&](const std::string &reason) {
        why = reason;
        return false;
    };
    ++at;  // '{'
    while (at < line.size() && line[at] != '}') {
        size_t eq = line.find('=', at);
        if (eq == std::string::npos) return no("a label without '='");
        std::string name = line.substr(at, eq - at);
        if (!isName(name, true)) return no("label name <" + name + ">");
        for (const auto &[n, v] : labels)
            if (n == name) return no("label " + name + " twice");
        at = eq + 1;
        if (at >= line.size() || line[at] != '"') return no("a label value not quoted");
        std::string value;
        for (++at;; ++at) {
            if (at >= line.size()) return no("a label value not closed");
            char c = line[at];
            if (c == '"') break;
            if (c != '\\') {
                value += c;
                continue;
            }
            if (++at >= line.size()) return no("a backslash at the end");
            if (line[at] == '\\')
                value += '\\';
            else if (line[at] == '"')
                value += '"';
            else if (line[at] == 'n')
                value += '\n';
            else
                return no(std::string("escape \\") + line[at]);
        }
        ++at;  // the closing quote
        if (!validUtf8(value)) return no("label value not UTF-8");
        labels.emplace_back(name, value);
        if (at < line.size() && line[at] == ',') {
            ++at;
            if (at < line.size() && line[at] == '}') return no("a comma before '}'");
        }
    }
    if (at >= line.size()) return no("labels not closed");
    ++at;  // '}'
    return true;
}

inline std::string unescapedHelp(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            out += text[i + 1] == 'n' ? '\n' : text[i + 1];
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

inline CheckedPage check(const std::string &page) {
    CheckedPage out;
    auto fail = [&](size_t number, const std::string &line, const std::string &why) {
        out.errors.push_back("line " + std::to_string(number) + " <" + line + ">: " + why);
    };
    if (page.empty() || page.back() != '\n') out.errors.push_back("no newline at the end");
    std::set<std::string> blocks;   // families that had a block
    std::string block;              // the family of the block in hand
    std::string typed;              // the family of the last TYPE line
    std::set<std::string> sampled;  // families with a sample in the block in hand
    std::map<std::string, int> helpLines, typeLines;
    size_t number = 0;
    for (size_t start = 0; start < page.size();) {
        size_t end = page.find('\n', start);
        if (end == std::string::npos) end = page.size();
        std::string line = page.substr(start, end - start);
        start = end + 1;
        ++number;
        if (line.empty()) {
            fail(number, line, "an empty line");
            continue;
        }
        if (line[0] == '#') {
            bool isHelp = line.compare(0, 7, "# HELP ") == 0;
            bool isType = line.compare(0, 7, "# TYPE ") == 0;
            if (!isHelp && !isType) {
                fail(number, line, "a comment");
                continue;
            }
            size_t space = line.find(' ', 7);
            std::string name = line.substr(7, space == std::string::npos ? space : space - 7);
            std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
            if (!isName(name, false)) fail(number, line, "family name");
            if (name != block) {
                if (!blocks.insert(name).second) fail(number, line, name + " in a second block");
                block = name;
                sampled.clear();
            }
            if (sampled.count(name) != 0) fail(number, line, "after the family's samples");
            if (isHelp) {
                if (++helpLines[name] > 1) fail(number, line, "HELP twice");
                out.help[name] = unescapedHelp(rest);
                if (!validUtf8(rest)) fail(number, line, "HELP not UTF-8");
            } else {
                if (++typeLines[name] > 1) fail(number, line, "TYPE twice");
                static const std::set<std::string> kTypes = {"counter", "gauge", "untyped",
                                                             "summary", "histogram"};
                if (kTypes.count(rest) == 0) fail(number, line, "type <" + rest + ">");
                out.types[name] = rest;
                typed = name;
            }
            continue;
        }
        size_t at = 0;
        while (at < line.size() && line[at] != '{' && line[at] != ' ') ++at;
        std::string name = line.substr(0, at);
        Labels labels;
        std::string why;
        if (!isName(name, false)) {
            fail(number, line, "sample name");
            continue;
        }
        if (at < line.size() && line[at] == '{' && !readLabels(line, at, labels, why)) {
            fail(number, line, why);
            continue;
        }
        if (at >= line.size() || line[at] != ' ') {
            fail(number, line, "no value");
            continue;
        }
        std::string value = line.substr(at + 1);
        char *rest = nullptr;
        strtod(value.c_str(), &rest);
        if (value.empty() || *rest != '\0') fail(number, line, "value <" + value + ">");
        if (typed.empty() || name != typed)
            fail(number, line, "not of the family of the last TYPE line <" + typed + ">");
        if (name != block) fail(number, line, "outside its family's block");
        sampled.insert(name);
        std::string k = key(name, labels);
        if (!out.samples.emplace(k, value).second) fail(number, line, "the same sample again");
        ++out.perFamily[name];
    }
    for (const auto &[name, count] : out.perFamily)
        if (helpLines[name] != 1 || typeLines[name] != 1)
            out.errors.push_back(name + ": not one HELP and one TYPE line");
    return out;
}

inline std::string onPath(const std::string &program) {
    const char *path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "";
    for (size_t start = 0; start <= dirs.size();) {
        size_t colon = dirs.find(':', start);
        std::string dir = dirs.substr(start, colon == std::string::npos ? colon : colon - start);
        start = colon == std::string::npos ? dirs.size() + 1 : colon + 1;
        std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

// promtool: the one scripts/setup.sh unpacked into the source tree, else
// one on PATH; "" when there is none.
inline std::string findPromtool() {
#ifdef ZEVD_PROMTOOL
    if (access(ZEVD_PROMTOOL, X_OK) == 0) return ZEVD_PROMTOOL;
#endif
    return onPath("promtool");
}

// True on CI (CI=true), where scripts/setup.sh has fetched promtool: a
// missing promtool fails there instead of skipping.
inline bool promtoolRequired() {
    const char *ci = getenv("CI");
    return ci != nullptr && strcmp(ci, "true") == 0;
}

// Runs "promtool check metrics" on page; its exit status (-1 when it could
// not be run), with what it said in *said.
inline int promtoolCheck(const std::string &promtool, const std::string &page, std::string *said) {
    char path[] = "/tmp/zevd-metrics-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return -1;
    bool written = write(fd, page.data(), page.size()) == static_cast<ssize_t>(page.size());
    close(fd);
    if (!written) {
        unlink(path);
        return -1;
    }
    std::string command = "'" + promtool + "' check metrics < " + path + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        unlink(path);
        return -1;
    }
    char chunk[256];
    size_t n = 0;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) said->append(chunk, n);
    int status = pclose(pipe);
    unlink(path);
    return status;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_METRICS_PAGE_H
