// Any bytes as zevdchd's state directory at its start. The input is cut at
// each "\n%%\n": the first piece is the snapshot file (none when empty),
// each further piece one journal record, sealed here so that its lines are
// replayed, or written as it stands when it starts with '!' (a torn or
// damaged record). Nothing may crash, leak or read past the bytes given;
// and whatever the start read must come back the same from the snapshot
// the daemon then writes.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "quiet_transport.h"
#include "zevdchd.h"
#include "zevdchd_journal.h"

namespace {

using zevd::dch::Dch;

using zevd::fuzz::QuietTransport;

// One directory for the whole run, emptied before each input.
const std::string &directory() {
    static const std::string path = [] {
        char name[] = "/tmp/zevd-fuzz-state-XXXXXX";
        if (mkdtemp(name) == nullptr) abort();
        return std::string(name);
    }();
    return path;
}

void emptyDirectory(const std::string &path) {
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) abort();
    std::vector<std::string> names;
    while (struct dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    for (const std::string &name : names) unlink((path + "/" + name).c_str());
}

void writeFile(const std::string &path, std::string_view bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) abort();
    if (!bytes.empty() &&
        write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        abort();
    close(fd);
}

// What a start read, in one text: every application with its groups and
// attributes, and every open handle.
std::string summary(const Dch &dch) {
    std::string out;
    for (const auto &[name, application] : dch.applications()) {
        out += "appl " + name + '\n';
        for (zevd::dch::Group group : application.groups()) {
            out += " group " + std::string(group.name()) + '\n';
            for (zevd::dch::Attribute attribute : group.attributes())
                out += "  attr " + std::string(attribute.name) + ' ' + attribute.type + ' ' +
                       std::to_string(attribute.size) + '\n';
        }
    }
    for (const auto &[id, handle] : dch.handles())
        out += "handle " + std::to_string(id) + ' ' + handle.appl + ' ' + handle.group + ' ' +
               handle.source + '\n';
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    setenv("ZEVA_TRACE", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    const std::string &dir = directory();
    emptyDirectory(dir);

    std::string_view input(reinterpret_cast<const char *>(data), size);
    std::vector<std::string_view> pieces;
    for (size_t at = 0;;) {
        size_t cut = input.find("\n%%\n", at);
        pieces.push_back(input.substr(at, cut == std::string_view::npos ? cut : cut - at));
        if (cut == std::string_view::npos) break;
        at = cut + 4;
    }
    if (!pieces[0].empty()) writeFile(dir + "/zevdchd.state", pieces[0]);
    if (pieces.size() > 1) {
        std::string journal;
        for (size_t i = 1; i < pieces.size(); ++i) {
            if (!pieces[i].empty() && pieces[i][0] == '!')
                journal += pieces[i].substr(1);
            else
                journal += zevd::dch::sealRecord(pieces[i]);
        }
        writeFile(dir + "/zevdchd.journal", journal);
    }

    std::string read;
    {
        QuietTransport transport;
        Dch dch(transport);
        std::string why;
        if (!dch.useStateDir(dir, &why)) return 0;
        read = summary(dch);
        // What was read, written as a snapshot at once...
        if (!dch.writeStateSnapshot(&why)) {
            fprintf(stderr, "the snapshot could not be written: %s\n", why.c_str());
            abort();
        }
    }
    // ...reads back the same.
    QuietTransport transport;
    Dch again(transport);
    std::string why;
    if (!again.useStateDir(dir, &why)) {
        fprintf(stderr, "the daemon's own snapshot did not read back: %s\n", why.c_str());
        abort();
    }
    if (summary(again) != read) {
        fprintf(stderr, "read:\n%s\nread back:\n%s\n", read.c_str(), summary(again).c_str());
        abort();
    }
    return 0;
}
