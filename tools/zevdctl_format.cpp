#include "zevdctl_format.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "zev0.h"
#include "zevd610.h"
#include "zevdctl_trace.h"

namespace zevdctl {

namespace {

constexpr size_t kTextMax = 4095;
// What the library's registration builder reads of a file at most.
constexpr size_t kRegistrationFileMax = 64 * 1024;

bool isShortType(char type) {
    return type == 'I' || type == 'S';
}

// A decimal integer within [low, high], the whole text.
bool parseInteger(const std::string &text, long low, long high, long &out) {
    // Digits with an optional minus sign, nothing else (strtol would skip blanks).
    size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() <= digits || text.find_first_not_of("0123456789", digits) != std::string::npos)
        return false;
    errno = 0;
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) return false;
    out = value;
    return true;
}

const char *kindName(NameKind kind) {
    switch (kind) {
        case NameKind::application: return "APPL";
        case NameKind::group: return "GROUP";
        case NameKind::source: return "SOURCE";
        case NameKind::attribute: return "NAME";
    }
    return "";
}

size_t nameLimit(NameKind kind) {
    return kind == NameKind::application ? 20 : 32;
}

// The length of the UTF-8 sequence that starts at text[at] when it is a
// valid one (no overlong form, no surrogate, at most U+10FFFF), else 0.
size_t utf8Sequence(const std::string &text, size_t at) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(at);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80, high = 0xbf;  // the range of the second byte
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        if (lead == 0xe0) low = 0xa0;
        if (lead == 0xed) high = 0x9f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        if (lead == 0xf0) low = 0x90;
        if (lead == 0xf4) high = 0x8f;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (size_t i = 2; i < length; ++i)
        if (byte(at + i) < 0x80 || byte(at + i) > 0xbf) return 0;
    return length;
}

void appendEscaped(std::string &out, unsigned char byte) {
    char escaped[5];
    snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    out += escaped;
}

// Appends one field to a 4096-byte request with the library's encoder.
bool encodes(std::vector<char> &request, int type, const void *value, int length = 0,
             const char *letter = nullptr) {
    uint32_t word = 0;
    memcpy(&word, request.data(), sizeof word);
    char *cursor = request.data() + ntohl(word);
    return ZEV0_FormatDataField(request.data(), cursor, type, value, length, letter) != 0;
}

std::vector<char> emptyRequest() {
    std::vector<char> request(ZEV0_REQUEST_SIZE, '\0');
    uint32_t word = htonl(4);
    memcpy(request.data(), &word, sizeof word);
    return request;
}

// The statements of a registration text as the builder splits them: at
// ';' and line ends, blanks trimmed, blank statements skipped. The first
// word of the first one.
std::string firstKeyword(const std::string &text) {
    const char *blanks = " \t\r\v\f";
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find_first_of(";\n", pos);
        if (end == std::string::npos) end = text.size();
        std::string piece = text.substr(pos, end - pos);
        pos = end + 1;
        size_t first = piece.find_first_not_of(blanks);
        if (first == std::string::npos) continue;
        size_t last = piece.find_first_of(blanks, first);
        return piece.substr(first, last == std::string::npos ? last : last - first);
    }
    return {};
}

// A file's contents under the builder's own limits for "@FILE".
bool readRegistrationFile(const std::string &path, std::string &text, std::string *why) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *why = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    std::string data(kRegistrationFileMax + 1, '\0');
    size_t got = 0;
    while (got < data.size()) {
        ssize_t n = read(fd, data.data() + got, data.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *why = "cannot read " + path + ": " + strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    if (got > kRegistrationFileMax) {
        *why = path + " is larger than " + std::to_string(kRegistrationFileMax) + " bytes";
        return false;
    }
    data.resize(got);
    if (data.find('\0') != std::string::npos) {
        *why = path + " holds a zero byte";
        return false;
    }
    text = std::move(data);
    return true;
}

}  // namespace

bool checkName(NameKind kind, const std::string &text, std::string *why) {
    auto fail = [&](const std::string &reason) {
        if (why != nullptr) *why = std::string(kindName(kind)) + " '" + text + "' " + reason;
        return false;
    };
    size_t limit = nameLimit(kind);
    if (text.empty() || text.size() > limit)
        return fail("does not have 1 to " + std::to_string(limit) + " characters");
    for (char c : text)
        if (static_cast<unsigned char>(c) <= ' ' || c == ',' || c == 0x7f)
            return fail("has a blank, a comma or a control character");
    return true;
}

bool isIntegerType(char type) {
    return type == 'A' || type == 'C' || type == 'G' || type == 'L' || type == 'N' ||
           isShortType(type);
}

bool parsePair(const std::string &text, Pair &pair, std::string *why) {
    auto fail = [&](const std::string &reason) {
        if (why != nullptr) *why = "'" + text + "': " + reason;
        return false;
    };
    size_t equals = text.find('=');
    if (equals == std::string::npos) return fail("not NAME=TYPE:VALUE");
    std::string name = text.substr(0, equals);
    std::string nameWhy;
    if (!checkName(NameKind::attribute, name, &nameWhy)) return fail(nameWhy);
    std::string rest = text.substr(equals + 1);
    size_t colon = rest.find(':');
    if (colon == std::string::npos || colon == 0) return fail("no TYPE: after the '='");
    // A type is one letter: "AB:1" has a colon, but not after a type.
    if (colon != 1)
        return fail("the type '" + rest.substr(0, colon) + "' is not one letter A to Z");
    char type = rest[0];
    if (type < 'A' || type > 'Z') return fail("the type is not a letter A to Z");
    std::string value = rest.substr(2);
    pair = Pair();
    pair.name = name;
    pair.type = type;
    long number = 0;
    if (isShortType(type)) {
        if (!parseInteger(value, SHRT_MIN, SHRT_MAX, number))
            return fail(std::string("type ") + type + " takes an integer from -32768 to 32767");
        auto narrow = static_cast<int16_t>(number);
        pair.value.resize(sizeof narrow);
        memcpy(pair.value.data(), &narrow, sizeof narrow);
    } else if (isIntegerType(type)) {
        if (!parseInteger(value, INT32_MIN, INT32_MAX, number))
            return fail(std::string("type ") + type +
                        " takes an integer from -2147483648 to 2147483647");
        auto wide = static_cast<int32_t>(number);
        pair.value.resize(sizeof wide);
        memcpy(pair.value.data(), &wide, sizeof wide);
    } else {
        if (value.size() > kTextMax) return fail("the text is longer than 4095 characters");
        pair.value.assign(value.begin(), value.end());
        pair.value.push_back('\0');
    }
    return true;
}

bool rowFits(const std::vector<Pair> &pairs, std::string *why) {
    // The row's header as dp_formatData writes it: request code, handle and
    // data flag placeholders.
    std::vector<char> row = emptyRequest();
    int16_t code = ZEVD_REQ_DP_DATA, flag = 0;
    int32_t handle = 0;
    encodes(row, DCH_requestType, &code);
    encodes(row, DCH_handle, &handle);
    encodes(row, DCH_dataFlag, &flag);
    for (size_t i = 0; i < pairs.size(); ++i) {
        const Pair &p = pairs[i];
        if (!encodes(row, DCH_attrName, p.name.c_str()) ||
            !encodes(row, DCH_attrValue, p.value.data(), static_cast<int>(p.value.size()),
                     &p.type)) {
            if (why != nullptr)
                *why = "the row does not fit " + std::to_string(ZEV0_REQUEST_SIZE) +
                       " bytes from pair " + std::to_string(i + 1) + " (" + p.name + ") on";
            return false;
        }
    }
    return true;
}

bool actionFits(const std::string &owner, const std::string &node, const std::string &name,
                const std::string *parameters) {
    std::vector<char> request = emptyRequest();
    int16_t code = ZEVD_REQ_DC_PROVIDE_ACTION, type = 1, utf8 = 1;
    int32_t id = 0;
    bool fits =
        encodes(request, DCH_requestType, &code) && encodes(request, DCH_actionType, &type) &&
        encodes(request, DCH_actionOwner, owner.c_str()) &&
        encodes(request, DCH_sourceName, node.c_str()) && encodes(request, DCH_sourceName, "") &&
        encodes(request, DCH_actionName, name.c_str()) && encodes(request, DCH_actionID, &id) &&
        encodes(request, DCH_actionUTF8, &utf8);
    return fits &&
           (parameters == nullptr || encodes(request, DCH_actionParms, parameters->c_str()));
}

bool prepareRegistration(const std::string &appl, const std::string &argument, std::string &text,
                         std::string *why) {
    std::string reason;
    if (!checkName(NameKind::application, appl, &reason)) {
        *why = reason;
        return false;
    }
    // "@FILE", after blanks and line ends, as the builder reads it.
    size_t lead = argument.find_first_not_of(" \t\r\v\f\n");
    if (lead != std::string::npos && argument[lead] == '@') {
        std::string path = argument.substr(lead + 1);
        path.erase(path.find_last_not_of(" \t\r\v\f\n") + 1);
        if (path.empty()) {
            *why = "no file name after '@'";
            return false;
        }
        if (!readRegistrationFile(path, text, why)) return false;
    } else {
        text = argument;
    }
    bool named = firstKeyword(text) == "APPL";
    if (!named) text = "APPL " + appl + "\n" + text;

    char *request = nullptr;
    {
        TraceWatch trace("ZEVP_ConstructDPregisterBuffer=error");
        if (ZEVP_ConstructDPregisterBuffer(text.c_str(), &request) == 0) {
            *why = "the registration text does not read";
            const std::string kSaid = "registration statement ";
            std::string said = trace.find(kSaid);
            if (said.empty()) return false;
            // The builder counts from the APPL statement put first.
            char *end = nullptr;
            long number = strtol(said.c_str() + kSaid.size(), &end, 10);
            if (!named && number > 1) --number;
            *why += (number > 0 ? ": statement " + std::to_string(number) : std::string()) +
                    (*end == ':' ? std::string(end) : ": " + said);
            return false;
        }
    }
    // Every name the request carries, in the request's order: the
    // application first.
    uint32_t word = 0;
    memcpy(&word, request, sizeof word);
    char *cursor = request + 4;
    const char *end = request + std::min<uint32_t>(ntohl(word), ZEV0_REQUEST_SIZE);
    bool first = true;
    // The DCH refuses a group named twice in the text, and an attribute
    // named twice in its group: said here, before anything is sent.
    std::set<std::string> groups, attributes;
    std::string group;
    while (cursor < end) {
        char *value = nullptr;
        int length = 0;
        int type = ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &length) & 0xFFFF;
        if (type == 0) break;
        NameKind kind;
        if (type == DCH_applName)
            kind = NameKind::application;
        else if (type == DCH_attrGroup)
            kind = NameKind::group;
        else if (type == DCH_attrName)
            kind = NameKind::attribute;
        else
            continue;
        std::string name(value, strnlen(value, static_cast<size_t>(length)));
        if (first && kind == NameKind::application && name != appl) {
            why->assign("the text registers '").append(name).append("', not '").append(appl) +=
                '\'';
            return false;
        }
        first = false;
        if (!checkName(kind, name, &reason)) {
            // In a text the attribute's keyword is ATTR.
            *why = kind == NameKind::attribute ? "ATTR" + reason.substr(4) : reason;
            return false;
        }
        if (kind == NameKind::group) {
            if (!groups.insert(name).second) {
                *why = "GROUP '" + name + "' is named twice";
                return false;
            }
            group = name;
            attributes.clear();
        } else if (kind == NameKind::attribute && !attributes.insert(name).second) {
            why->assign("ATTR '")
                .append(name)
                .append("' is named twice in GROUP '")
                .append(group) += '\'';
            return false;
        }
    }
    return true;
}

std::vector<std::vector<std::string>> splitLines(const std::string &text, size_t columns) {
    std::vector<std::vector<std::string>> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        std::vector<std::string> cells;
        size_t from = 0;
        while (cells.size() + 1 < columns) {
            size_t comma = line.find(',', from);
            if (comma == std::string::npos) break;
            cells.push_back(line.substr(from, comma - from));
            from = comma + 1;
        }
        cells.push_back(line.substr(from));
        cells.resize(columns);
        out.push_back(std::move(cells));
    }
    return out;
}

std::vector<CatalogueAttribute> parseAttributes(const std::string &text) {
    std::vector<CatalogueAttribute> out;
    for (const std::vector<std::string> &cells : splitLines(text, 4)) {
        CatalogueAttribute a;
        a.group = cells[0];
        a.attribute = cells[1];
        a.type = cells[2].size() == 1 ? cells[2][0] : '?';
        a.size = atoi(cells[3].c_str());
        out.push_back(std::move(a));
    }
    return out;
}

Row parseRow(const char *message, size_t length) {
    Row row;
    if (message == nullptr || length < 4) return row;
    uint32_t word = 0;
    memcpy(&word, message, sizeof word);
    size_t end = ntohl(word);
    if (end > length || end < 4) return row;  // not the whole message
    char *cursor = const_cast<char *>(message) + 4;
    const char *limit = message + end;
    auto next = [&](int expected, std::string *text) {
        char *value = nullptr;
        int valueLength = 0;
        int type = ZEV0_ExtractDataFieldBounded(&cursor, limit, &value, &valueLength) & 0xFFFF;
        if (type != expected) return false;
        if (text != nullptr) text->assign(value, strnlen(value, static_cast<size_t>(valueLength)));
        return true;
    };
    auto number = [&](int expected, size_t width, int32_t &out) {
        char *value = nullptr;
        int valueLength = 0;
        int type = ZEV0_ExtractDataFieldBounded(&cursor, limit, &value, &valueLength) & 0xFFFF;
        if (type != expected || static_cast<size_t>(valueLength) != width) return false;
        uint32_t v = 0;
        for (size_t i = 0; i < width; ++i) v = (v << 8) | static_cast<unsigned char>(value[i]);
        out = width == 2 ? static_cast<int16_t>(v) : static_cast<int32_t>(v);
        return true;
    };
    int32_t code = 0, handle = 0, flag = 0;
    if (!number(DCH_requestType, 2, code) || !next(DCH_applName, &row.application) ||
        !next(DCH_attrGroup, &row.group) || !next(DCH_sourceName, &row.source) ||
        !number(DCH_handle, 4, handle) || !number(DCH_dataFlag, 2, flag))
        return row;
    row.handle = handle;
    row.flag = static_cast<int16_t>(flag);
    while (cursor < limit) {
        std::string name;
        char *value = nullptr;
        int valueLength = 0;
        if (!next(DCH_attrName, &name) ||
            (ZEV0_ExtractDataFieldBounded(&cursor, limit, &value, &valueLength) & 0xFFFF) !=
                DCH_attrValue)
            return row;
        row.values.emplace_back(name, std::string(value, static_cast<size_t>(valueLength)));
    }
    row.complete = true;
    return row;
}

namespace {

bool isNumberBytes(const std::string &bytes) {
    return bytes.size() == 2 || bytes.size() == 4;
}

// An integer letter's value of a width its letter takes: 2 bytes for I S,
// 2 or 4 for A C G L N.
bool isIntegerValue(const std::string &bytes, char type) {
    return isShortType(type) ? bytes.size() == 2 : isIntegerType(type) && isNumberBytes(bytes);
}

long numberOf(const std::string &bytes) {
    uint32_t v = 0;
    for (char c : bytes) v = (v << 8) | static_cast<unsigned char>(c);
    return bytes.size() == 2 ? static_cast<int16_t>(v) : static_cast<int32_t>(v);
}

// A value of no known type reads as a text when it ends in its only zero.
// One of 2 or 4 bytes could as well be a number that ends in a zero byte:
// it reads as a text only when it is UTF-8 with no control character but a
// tab or a line end.
bool readsAsText(const std::string &bytes) {
    if (bytes.empty() || bytes.back() != '\0' || bytes.find('\0') != bytes.size() - 1) return false;
    if (!isNumberBytes(bytes)) return true;
    std::string text = bytes.substr(0, bytes.size() - 1);
    for (size_t at = 0; at < text.size();) {
        auto c = static_cast<unsigned char>(text[at]);
        size_t length = utf8Sequence(text, at);
        if (length == 0 || c == 0x7f || (c < 0x20 && c != '\t' && c != '\n' && c != '\r'))
            return false;
        at += length;
    }
    return true;
}

}  // namespace

std::string decodeValue(const std::string &bytes, char type) {
    if (type == 0) {
        if (readsAsText(bytes)) return bytes.substr(0, bytes.size() - 1);
        if (isNumberBytes(bytes)) return std::to_string(numberOf(bytes));
        std::string hex;
        char byte[4];
        for (unsigned char c : bytes) {
            snprintf(byte, sizeof byte, "%02x", c);
            hex += byte;
        }
        return hex;
    }
    if (isIntegerValue(bytes, type)) return std::to_string(numberOf(bytes));
    return bytes.substr(0, strnlen(bytes.data(), bytes.size()));
}

Json jsonValue(const std::string &bytes, char type) {
    if (isIntegerValue(bytes, type)) return numberOf(bytes);
    return decodeValue(bytes, type);
}

Json rowJson(const Row &row, const std::vector<CatalogueAttribute> &columns) {
    Json values = Json::object();
    for (const auto &[name, bytes] : row.values) {
        char type = 0;
        for (const CatalogueAttribute &column : columns)
            if (column.attribute == name) type = column.type;
        values[name] = jsonValue(bytes, type);
    }
    Json object = Json::object();
    object["application"] = row.application;
    object["group"] = row.group;
    object["source"] = row.source;
    object["handle"] = row.handle;
    object["flag"] = row.flag;
    object["values"] = std::move(values);
    return object;
}

bool parseStatusLine(const std::string &line, StatusLine &status) {
    std::vector<std::string> cells;
    size_t from = 0;
    for (;;) {
        size_t comma = line.find(',', from);
        cells.push_back(line.substr(from, comma == std::string::npos ? comma : comma - from));
        if (comma == std::string::npos) break;
        from = comma + 1;
    }
    if (cells.size() != 5 && cells.size() != 6) return false;
    status = StatusLine();
    status.application = cells[0];
    status.group = cells[1];
    status.source = cells[2];
    status.host = cells[3];
    status.hasInfo = cells.size() == 6;
    if (status.hasInfo) status.info = cells[4];
    long request = 0;
    if (!parseInteger(cells.back(), SHRT_MIN, SHRT_MAX, request)) return false;
    status.request = static_cast<int>(request);
    return true;
}

const char *eventName(int request) {
    switch (request) {
        case ZEVD_REQ_DP_REGISTER: return "register";
        case ZEVD_REQ_DP_ONLINE: return "online";
        case ZEVD_REQ_DP_OFFLINE: return "offline";
        case ZEVD_REQ_DP_UNREGISTER: return "unregister";
        case ZEVD_REQ_DC_SEND_APPL_NAME_LIST: return "name-list";
        default: return "other";
    }
}

std::string statusMeaning(long status) {
    switch (status) {
        case ZEVD_STATUS_REJECTED: return "refused before it was sent, or an answer without status";
        case ZEVD_STATUS_NOT_SENT: return "not sent in full, or an answer without status";
        case ZEVD_STATUS_NULL_NAME: return "a name is missing";
        case ZEVD_STATUS_NO_WORKBUF: return "no row to send";
        case ZEVD_STATUS_NO_RESPONSE: return "no answer";
        case ZEVD_DCH_MALFORMED: return "the DCH could not read the request";
        case ZEVD_DCH_UNKNOWN_APPL: return "the application is not registered";
        case ZEVD_DCH_UNKNOWN_GROUP: return "the application has no such group";
        case ZEVD_DCH_UNKNOWN_HANDLE: return "no handle is open under that number";
        case ZEVD_DCH_UNKNOWN_ATTR:
            return "an attribute the group does not have, or a value of the wrong size";
        case ZEVD_DCH_FULL: return "a limit of the DCH is reached";
        case ZEVD_DCH_UNKNOWN_ACTION: return "no action is recorded under that ID";
        case ZEVD_DCH_BAD_CATALOGUE: return "the registration breaks a catalogue rule";
        case ZEVD_DCH_NOT_SAVED: return "the DCH could not save the change; nothing changed";
        default: return {};
    }
}

std::string jsonLine(const Json &object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string terminalText(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    size_t at = 0;
    while (at < text.size()) {
        auto byte = static_cast<unsigned char>(text[at]);
        size_t length = utf8Sequence(text, at);
        // U+0080 to U+009F are C2 80 to C2 9F: controls too.
        bool c1 = length == 2 && byte == 0xc2 && static_cast<unsigned char>(text[at + 1]) < 0xa0;
        if (length == 0 || byte < 0x20 || byte == 0x7f || c1) {
            size_t bytes = length == 0 ? 1 : length;
            for (size_t i = 0; i < bytes; ++i)
                appendEscaped(out, static_cast<unsigned char>(text[at + i]));
            at += bytes;
        } else {
            out.append(text, at, length);
            at += length;
        }
    }
    return out;
}

size_t displayWidth(const std::string &text) {
    size_t width = 0;
    for (unsigned char c : text)
        if ((c & 0xc0) != 0x80) ++width;
    return width;
}

std::string tableLine(const std::vector<std::string> &cells, const std::vector<size_t> &widths) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        if (i > 0) line += "  ";
        std::string cell = terminalText(cells[i]);
        size_t width = displayWidth(cell);
        line += cell;
        if (i + 1 < cells.size() && i < widths.size() && width < widths[i])
            line.append(widths[i] - width, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);  // empty last cells leave no blanks behind
    return line + "\n";
}

std::string table(const std::vector<std::string> &header,
                  const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths(header.size());
    for (size_t i = 0; i < header.size(); ++i) widths[i] = displayWidth(terminalText(header[i]));
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], displayWidth(terminalText(row[i])));
    std::string out = tableLine(header, widths);
    for (const auto &row : rows) out += tableLine(row, widths);
    return out;
}

}  // namespace zevdctl
