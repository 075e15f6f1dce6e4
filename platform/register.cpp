// The dp_register request, built from a registration text:
//   APPL name [help text]
//   GROUP name [help text]
//   ATTR name type-letter size [help text]
// one statement per line or per ';', or "@path" for a file holding them.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "zev0.h"

namespace {

constexpr int kRegisterRequest = 0x1010;  // DCH_requestType of dp_register
constexpr int kFieldApplName = 32;
constexpr int kFieldAttrGroup = 35;
constexpr int kFieldAttrName = 80;
constexpr size_t kMaxApplName = 20;
constexpr size_t kMaxGroupName = 32;
constexpr size_t kMaxAttrName = 32;
constexpr int kMaxAttrSize = 4096;
constexpr size_t kMaxFileText = 64 * 1024;

TraceUnit registerUnit = {0, __DATE__, __TIME__, "zev0.c", "ZEV0", nullptr, 0};

enum class Kind { appl, group, attr };

struct Statement {
    Kind kind = Kind::appl;
    int number;  // position in the text, 1 for the first piece, blank pieces counted
    std::string name;
    std::string help;
    char letter = 0;
    int size = 0;
};

// Why a text was refused: the statement it concerns (0: the text as a whole).
struct Failure {
    int statement = 0;
    std::string reason;
};

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// Takes the next blank-delimited word off the front of rest.
std::string_view nextWord(std::string_view &rest) {
    rest = trim(rest);
    size_t end = 0;
    while (end < rest.size() && !isBlank(rest[end])) ++end;
    std::string_view word = rest.substr(0, end);
    rest = trim(rest.substr(end));
    return word;
}

std::string quoted(std::string_view s) {
    std::string out;
    out.reserve(s.size() + 2);
    out += '<';
    out += s;
    out += '>';
    return out;
}

bool isIntegerLetter(char c) {
    return c == 'A' || c == 'C' || c == 'G' || c == 'L' || c == 'N';
}

// Decimal 1..kMaxAttrSize, digits only.
bool parseSize(std::string_view word, int *size) {
    if (word.empty()) return false;
    int value = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
        if (value > kMaxAttrSize) return false;
    }
    if (value < 1) return false;
    *size = value;
    return true;
}

bool parseName(std::string_view keyword, std::string_view &rest, size_t limit, int number,
               std::string *name, Failure *failure) {
    std::string_view word = nextWord(rest);
    if (word.empty()) {
        *failure = {number, std::string(keyword) + " without a name"};
        return false;
    }
    if (word.size() > limit) {
        *failure = {number, std::string(keyword) + " name " + quoted(word) + " longer than " +
                                std::to_string(limit) + " characters"};
        return false;
    }
    *name = std::string(word);
    return true;
}

bool parseAttr(std::string_view rest, int number, Statement *st, Failure *failure) {
    if (!parseName("ATTR", rest, kMaxAttrName, number, &st->name, failure)) return false;
    std::string_view letter = nextWord(rest);
    if (letter.empty()) {
        *failure = {number, "ATTR " + quoted(st->name) + " without a type letter"};
        return false;
    }
    if (letter.size() != 1 || letter[0] < 'A' || letter[0] > 'Z') {
        *failure = {number, "ATTR " + quoted(st->name) + ": type " + quoted(letter) +
                                " is not one letter A-Z"};
        return false;
    }
    st->letter = letter[0];
    std::string_view size = nextWord(rest);
    if (size.empty()) {
        *failure = {number, "ATTR " + quoted(st->name) + " without a size"};
        return false;
    }
    if (!parseSize(size, &st->size)) {
        *failure = {number, "ATTR " + quoted(st->name) + ": size " + quoted(size) +
                                " is not a number from 1 to 4096"};
        return false;
    }
    if (isIntegerLetter(st->letter) && st->size != 2 && st->size != 4) {
        *failure = {number, "ATTR " + quoted(st->name) + ": type " + st->letter +
                                " takes size 2 or 4, not " + std::to_string(st->size)};
        return false;
    }
    if ((st->letter == 'I' || st->letter == 'S') && st->size != 2) {
        *failure = {number, "ATTR " + quoted(st->name) + ": type " + st->letter +
                                " takes size 2, not " + std::to_string(st->size)};
        return false;
    }
    st->help = std::string(rest);
    return true;
}

// Splits the text into statements and checks every rule; the request is
// built only from a text that passed all of them.
bool parseText(std::string_view text, std::vector<Statement> *out, Failure *failure) {
    int number = 0;
    int openGroup = 0;  // statement number of a GROUP still without an ATTR
    std::string openGroupName;
    bool inGroup = false;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find_first_of(";\n", pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view piece = trim(text.substr(pos, end - pos));
        pos = end + 1;
        ++number;
        if (piece.empty()) continue;
        std::string_view rest = piece;
        std::string_view keyword = nextWord(rest);
        Statement st;
        st.number = number;
        if (keyword == "APPL") {
            st.kind = Kind::appl;
            if (!out->empty()) {
                *failure = {number, "second APPL statement"};
                return false;
            }
            if (!parseName(keyword, rest, kMaxApplName, number, &st.name, failure)) return false;
            st.help = std::string(rest);
        } else if (keyword == "GROUP" || keyword == "ATTR") {
            if (out->empty()) {
                *failure = {number, std::string(keyword) + " before APPL"};
                return false;
            }
            if (keyword == "GROUP") {
                st.kind = Kind::group;
                if (openGroup != 0) {
                    *failure = {openGroup, "GROUP " + quoted(openGroupName) + " has no ATTR"};
                    return false;
                }
                if (!parseName(keyword, rest, kMaxGroupName, number, &st.name, failure))
                    return false;
                st.help = std::string(rest);
                openGroup = number;
                openGroupName = st.name;
                inGroup = true;
            } else {
                st.kind = Kind::attr;
                if (!inGroup) {
                    *failure = {number, "ATTR outside a GROUP"};
                    return false;
                }
                if (!parseAttr(rest, number, &st, failure)) return false;
                openGroup = 0;
            }
        } else {
            *failure = {number, "unknown keyword " + quoted(keyword)};
            return false;
        }
        out->push_back(std::move(st));
    }
    if (out->empty()) {
        *failure = {0, "no APPL statement"};
        return false;
    }
    if (openGroup != 0) {
        *failure = {openGroup, "GROUP " + quoted(openGroupName) + " has no ATTR"};
        return false;
    }
    return true;
}

// Reads at most kMaxFileText bytes; a longer file is refused, not cut.
bool readTextFile(const std::string &path, std::string *text, Failure *failure) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *failure = {0, "cannot read " + quoted(path) + ": " + strerror(errno)};
        return false;
    }
    std::string data(kMaxFileText + 1, '\0');
    size_t got = 0;
    while (got < data.size()) {
        ssize_t n = read(fd, data.data() + got, data.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int saved = errno;
            close(fd);
            *failure = {0, "cannot read " + quoted(path) + ": " + strerror(saved)};
            return false;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    if (got > kMaxFileText) {
        *failure = {0, "file " + quoted(path) + " is larger than " + std::to_string(kMaxFileText) +
                           " bytes"};
        return false;
    }
    data.resize(got);
    // A zero byte would silently cut a name or help text short.
    if (data.find('\0') != std::string::npos) {
        *failure = {0, "file " + quoted(path) + " holds a zero byte"};
        return false;
    }
    *text = std::move(data);
    return true;
}

class RequestWriter {
public:
    explicit RequestWriter(char *buffer) : buffer_(buffer), cursor_(buffer + 4) {}

    bool add(int type, const void *value) {
        int n = ZEV0_FormatDataField(buffer_, cursor_, type, value, 0, nullptr);
        if (n == 0) return false;
        cursor_ += n;
        return true;
    }

private:
    char *buffer_;
    char *cursor_;
};

bool buildRequest(const std::vector<Statement> &statements, char *buffer, Failure *failure) {
    RequestWriter writer(buffer);
    int16_t code = kRegisterRequest;
    if (!writer.add(16, &code)) {
        *failure = {0, "request does not fit 4096 bytes"};
        return false;
    }
    for (const auto &st : statements) {
        bool ok = true;
        switch (st.kind) {
            case Kind::appl: ok = writer.add(kFieldApplName, st.name.c_str()); break;
            case Kind::group: ok = writer.add(kFieldAttrGroup, st.name.c_str()); break;
            case Kind::attr: {
                int16_t letter = static_cast<unsigned char>(st.letter);
                int32_t size = st.size;
                ok = writer.add(kFieldAttrName, st.name.c_str()) &&
                     writer.add(ZEV0_FIELD_REG_ATTR_TYPE, &letter) &&
                     writer.add(ZEV0_FIELD_REG_ATTR_SIZE, &size);
                break;
            }
        }
        ok = ok && writer.add(ZEV0_FIELD_REG_HELP, st.help.c_str());
        if (!ok) {
            *failure = {st.number, "request does not fit 4096 bytes"};
            return false;
        }
    }
    return true;
}

unsigned int traceMask(TraceFunctionRecord *rec) {
    unsigned int counter = __atomic_load_n(&rec->unit->syncCounter, __ATOMIC_ACQUIRE);
    if (__atomic_load_n(&rec->syncCopy, __ATOMIC_ACQUIRE) != counter) return TLG1_Sync(rec);
    return __atomic_load_n(&rec->mask, __ATOMIC_RELAXED);
}

bool construct(const char *registration, char *request, Failure *failure) {
    if (registration == nullptr) {
        *failure = {0, "no registration text"};
        return false;
    }
    std::string_view text(registration);
    std::string fileText;
    std::string_view lead = text;
    while (!lead.empty() && (isBlank(lead.front()) || lead.front() == '\n')) lead.remove_prefix(1);
    if (!lead.empty() && lead.front() == '@') {
        std::string_view path = lead.substr(1);
        while (!path.empty() && (isBlank(path.back()) || path.back() == '\n'))
            path.remove_suffix(1);
        if (path.empty()) {
            *failure = {0, "no file name after @"};
            return false;
        }
        if (!readTextFile(std::string(path), &fileText, failure)) return false;
        text = fileText;
    }
    std::vector<Statement> statements;
    if (!parseText(text, &statements, failure)) return false;
    return buildRequest(statements, request, failure);
}

}  // namespace

extern "C" {

int ZEVP_ConstructDPregisterBuffer(const char *registration, char **buffer) {
    static TraceFunctionRecord record = {
        nullptr,          "ZEVP_ConstructDPregisterBuffer", 30, __LINE__, &registerUnit, 0x200, 0,
        TLG1_NEVER_SYNCED};
    // kept: one buffer per thread, which the caller reads and never frees.
    static thread_local char request[ZEV0_REQUEST_SIZE];
    try {
        Failure failure;
        // Built aside, so a failed call leaves the thread's last request intact.
        char scratch[ZEV0_REQUEST_SIZE] = {};
        bool ok = false;
        if (buffer == nullptr)
            failure = {0, "no place for the buffer address"};
        else
            ok = construct(registration, scratch, &failure);
        if (ok) {
            memcpy(request, scratch, sizeof request);
            *buffer = request;
            return 1;
        }
        if ((traceMask(&record) & TLG1_ERROR) != 0)
            TLG1_Printf(&record, __LINE__, "Error: registration statement %d: %s\n",
                        failure.statement, failure.reason.c_str());
    } catch (...) {
        // Out of memory: nothing is built and nothing may escape into C callers.
    }
    return 0;
}

}  // extern "C"
