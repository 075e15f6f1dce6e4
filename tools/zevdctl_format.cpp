#include "zevdctl_format.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zev0.h"
#include "zevd610.h"

namespace zevdctl {

namespace {

constexpr size_t kNameMax = 32;
constexpr size_t kTextMax = 4095;

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

}  // namespace

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
    if (name.empty() || name.size() > kNameMax)
        return fail("the name has to have 1 to 32 characters");
    for (char c : name)
        if (static_cast<unsigned char>(c) <= ' ' || c == ',' || c == 0x7f)
            return fail("the name has a blank, a comma or a control character");
    std::string rest = text.substr(equals + 1);
    if (rest.size() < 2 || rest[1] != ':') return fail("no TYPE: after the '='");
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

std::string decodeValue(const std::string &bytes, char type) {
    if (isIntegerType(type) && (bytes.size() == 2 || bytes.size() == 4)) {
        uint32_t v = 0;
        for (char c : bytes) v = (v << 8) | static_cast<unsigned char>(c);
        long value = bytes.size() == 2 ? static_cast<int16_t>(v) : static_cast<int32_t>(v);
        return std::to_string(value);
    }
    return bytes.substr(0, strnlen(bytes.data(), bytes.size()));
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

std::string jsonString(const std::string &text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char escaped[8];
                    snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else if (c >= 0x80) {
                    // Not necessarily UTF-8: each byte as the code point of its value.
                    char escaped[8];
                    snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string tableLine(const std::vector<std::string> &cells, const std::vector<size_t> &widths) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        if (i > 0) line += "  ";
        line += cells[i];
        if (i + 1 < cells.size() && i < widths.size() && cells[i].size() < widths[i])
            line.append(widths[i] - cells[i].size(), ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);  // empty last cells leave no blanks behind
    return line + "\n";
}

std::string table(const std::vector<std::string> &header,
                  const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths(header.size());
    for (size_t i = 0; i < header.size(); ++i) widths[i] = header[i].size();
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    std::string out = tableLine(header, widths);
    for (const auto &row : rows) out += tableLine(row, widths);
    return out;
}

}  // namespace zevdctl
