// --state-dir: the catalogue and the open handles in one text file, written
// whole to a temporary file and renamed over the old one on every change,
// and read back at start. A file that does not read back whole (cut short,
// edited, of another version) is set aside and the daemon starts empty.
//
//   zevdchd-state 2
//   next-handle N
//   appl NAME HELP HOST PORT
//   group NAME HELP
//   attr NAME TYPE SIZE HELP
//   handle ID APPL GROUP SOURCE HOST PORT
//   end RECORDS SUM
//
// SUM is the 64-bit FNV-1a hash of every byte before the end line, in 16
// hexadecimal digits: a file whose bytes were changed is not trusted even
// when it still parses.
// Every text is written as '=' followed by its bytes, with '%', blanks,
// control characters and bytes above 0x7e as %XX: a word never holds a
// blank, and the empty text is "=".
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string_view>

#include "common/trace.h"
#include "zevdchd.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

constexpr const char *kStateFile = "zevdchd.state";
constexpr const char *kStateHeader = "zevdchd-state 2";

// 64-bit FNV-1a, continued from sum over text.
uint64_t fnv1a(uint64_t sum, const std::string &text) {
    for (unsigned char c : text) {
        sum ^= c;
        sum *= 0x100000001b3ULL;
    }
    return sum;
}
constexpr uint64_t kFnvStart = 0xcbf29ce484222325ULL;

std::string sumText(uint64_t sum) {
    char text[17];
    snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum));
    return text;
}

std::string encode(std::string_view text) {
    std::string out = "=";
    char hex[4];
    for (unsigned char c : text) {
        if (c <= ' ' || c == '%' || c > 0x7e) {
            snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

bool decode(const std::string &word, std::string &out) {
    if (word.empty() || word[0] != '=') return false;
    out.clear();
    for (size_t i = 1; i < word.size(); ++i) {
        if (word[i] != '%') {
            out += word[i];
            continue;
        }
        if (i + 2 >= word.size() || !isxdigit(static_cast<unsigned char>(word[i + 1])) ||
            !isxdigit(static_cast<unsigned char>(word[i + 2])))
            return false;
        out += static_cast<char>(std::stoi(word.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return true;
}

std::string encodePeer(const Peer &peer) {
    return peer.host() + " " + std::to_string(peer.port());
}

bool decodePeer(std::istringstream &in, Peer &peer) {
    std::string host;
    int port = -1;
    if (!(in >> host >> port) || port < 0 || port > 65535) return false;
    peer.addr.sin_family = AF_INET;
    peer.addr.sin_port = htons(static_cast<uint16_t>(port));
    peer.fd = 0;  // a connection does not outlive the daemon
    return inet_pton(AF_INET, host.c_str(), &peer.addr.sin_addr) == 1;
}

bool nothingMore(std::istringstream &in) {
    std::string rest;
    return !(in >> rest);
}

}  // namespace

void Dch::useStateDir(const std::string &dir) {
    ZEVD_TRACE_FUNCTION("Dch::useStateDir");
    stateDir_ = dir;
    std::string path = dir + "/" + kStateFile;
    if (access(path.c_str(), F_OK) != 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "no state in %s: starting empty\n", path.c_str());
        return trc.exit();
    }
    std::string why;
    if (loadState(path, &why)) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Note: state read from %s: %u applications, %u handles\n",
                   path.c_str(), static_cast<unsigned>(applications_.size()),
                   static_cast<unsigned>(handles_.size()));
        updateGauges();
        return trc.exit();
    }
    applications_.clear();
    handles_.clear();
    nextHandle_ = 1;
    std::string aside = path + ".bad-" + std::to_string(time(nullptr));
    int renamed = rename(path.c_str(), aside.c_str());
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: state file %s is not usable (%s); %s, starting empty\n",
               path.c_str(), why.c_str(),
               renamed == 0 ? ("set aside as " + aside).c_str() : "it could not be set aside");
    trc.exit();
}

bool Dch::loadState(const std::string &path, std::string *why) {
    std::ifstream file(path);
    std::string line;
    size_t records = 0;
    bool ended = false;
    Application *application = nullptr;
    bool inGroup = false;
    int number = 0;
    auto fail = [&](const char *what) {
        *why = std::string(what) + " at line " + std::to_string(number);
        return false;
    };
    if (!std::getline(file, line) || line != kStateHeader) return fail("no header");
    number = 1;
    uint64_t sum = fnv1a(kFnvStart, line + "\n");
    while (std::getline(file, line)) {
        ++number;
        if (ended) return fail("text after the end");
        uint64_t sumBefore = sum;
        sum = fnv1a(sum, line + "\n");
        std::istringstream in(line);
        std::string kind;
        in >> kind;
        if (kind == "next-handle") {
            if (!(in >> nextHandle_) || nextHandle_ <= 0 || !nothingMore(in))
                return fail("a bad next-handle");
        } else if (kind == "appl") {
            std::string name, help;
            Application a;
            if (!(in >> name >> help) || !decode(name, a.name) || !decode(help, a.help) ||
                !decodePeer(in, a.registeredBy) || !nothingMore(in) || a.name.empty() ||
                applications_.count(a.name) != 0 || applications_.size() >= kMaxApplications)
                return fail("a bad appl");
            application = &(applications_[a.name] = std::move(a));
            inGroup = false;
        } else if (kind == "group") {
            std::string name, help, groupName, groupHelp;
            if (application == nullptr || !(in >> name >> help) || !decode(name, groupName) ||
                !decode(help, groupHelp) || !nothingMore(in) || groupName.empty() ||
                application->addGroup(groupName, groupHelp) != Catalogue::kAdded)
                return fail("a bad group");
            inGroup = true;
        } else if (kind == "attr") {
            std::string name, type, help, attrName, attrHelp;
            int32_t size = 0;
            if (!inGroup || !(in >> name >> type >> size >> help) || !decode(name, attrName) ||
                !decode(help, attrHelp) || type.size() != 1 || type[0] < 'A' || type[0] > 'Z' ||
                size < 1 || size > 4096 || !nothingMore(in) || attrName.empty() ||
                application->addAttribute(attrName, type[0], size, attrHelp) != Catalogue::kAdded)
                return fail("a bad attr");
        } else if (kind == "handle") {
            std::string appl, groupName, source;
            OpenHandle h;
            if (!(in >> h.id >> appl >> groupName >> source) || h.id <= 0 ||
                !decode(appl, h.appl) || !decode(groupName, h.group) || !decode(source, h.source) ||
                !decodePeer(in, h.provider) || !nothingMore(in) || handles_.count(h.id) != 0 ||
                handles_.size() >= kMaxHandles)
                return fail("a bad handle");
            handles_[h.id] = std::move(h);
        } else if (kind == "end") {
            size_t count = 0;
            std::string written;
            if (!(in >> count >> written) || !nothingMore(in) || count != records)
                return fail("an end that does not count the records");
            if (written != sumText(sumBefore)) return fail("a sum that does not match");
            ended = true;
            continue;
        } else {
            return fail("an unknown record");
        }
        ++records;
    }
    if (!ended) return fail("no end (the file is cut short)");
    for (auto &[name, kept] : applications_) kept.compact();
    return true;
}

void Dch::saveState() {
    ZEVD_TRACE_FUNCTION("Dch::saveState");
    if (stateDir_.empty()) return trc.exit();
    std::ostringstream out;
    size_t records = 1;
    out << kStateHeader << "\nnext-handle " << nextHandle_ << '\n';
    for (const auto &[name, a] : applications_) {
        out << "appl " << encode(a.name) << ' ' << encode(a.help) << ' '
            << encodePeer(a.registeredBy) << '\n';
        ++records;
        for (Group g : a.groups()) {
            out << "group " << encode(g.name()) << ' ' << encode(g.help()) << '\n';
            ++records;
            for (Attribute at : g.attributes()) {
                out << "attr " << encode(at.name) << ' ' << at.type << ' ' << at.size << ' '
                    << encode(at.help) << '\n';
                ++records;
            }
        }
    }
    for (const auto &[id, h] : handles_) {
        out << "handle " << id << ' ' << encode(h.appl) << ' ' << encode(h.group) << ' '
            << encode(h.source) << ' ' << encodePeer(h.provider) << '\n';
        ++records;
    }
    std::string text = out.str();
    text += "end " + std::to_string(records) + " " + sumText(fnv1a(kFnvStart, text)) + "\n";
    std::string path = stateDir_ + "/" + kStateFile;
    std::string temporary = path + ".new";
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool written = fd >= 0;
    size_t done = 0;
    while (written && done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        written = n > 0;
        if (written) done += static_cast<size_t>(n);
    }
    if (written) written = fsync(fd) == 0;
    int error = errno;
    if (fd >= 0) close(fd);
    if (written && rename(temporary.c_str(), path.c_str()) != 0) {
        written = false;
        error = errno;
    }
    if (written) {
        // The rename itself reaches the disk with the directory.
        int dirFd = open(stateDir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd >= 0) {
            fsync(dirFd);
            close(dirFd);
        }
    }
    if (!written) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: state could not be written to %s: errno=%d\n",
                   path.c_str(), error);
        unlink(temporary.c_str());
    }
    trc.exit();
}

}  // namespace zevd::dch
