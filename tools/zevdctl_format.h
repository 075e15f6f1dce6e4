// zevdctl's text work, apart from any request: the names and NAME=TYPE:VALUE
// pairs it is given, the catalogue texts, the rows and status lines the DCH
// sends, and how they are printed (aligned tables for people, JSON lines for
// programs).
#ifndef ZEVD_TOOLS_ZEVDCTL_FORMAT_H
#define ZEVD_TOOLS_ZEVDCTL_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace zevdctl {

// JSON objects keep their keys in the order they were added.
using Json = nlohmann::ordered_json;

// The kinds of name a request carries, each with its own length limit.
enum class NameKind { application, group, source, attribute };

// The rule every name keeps on the wire: 1 to 20 characters for an
// application, 1 to 32 for a group, a source or an attribute, and no blank,
// comma or control character (bytes up to 0x20, and 0x7f). The DCH refuses
// any other name, and a catalogue text could not show it. False, with *why,
// when text breaks it.
bool checkName(NameKind kind, const std::string &text, std::string *why);

// One attribute of a row to send, as dp_formatData takes it.
struct Pair {
    std::string name;
    char type = 0;
    std::vector<char>
        value;  // integers: int16_t or int32_t in host order; strings: with their zero
};

// Parses NAME=TYPE:VALUE. TYPE is one letter A to Z; A C G L N take a 32-bit
// integer, I S a 16-bit one, every other letter a text of at most 4095
// characters. NAME keeps the attribute's name rule. False, with *why, when
// it does not parse.
bool parsePair(const std::string &text, Pair &pair, std::string *why);

// True when the whole row fits the library's 4096-byte row buffer: each
// pair encoded by the library's own field encoder, in order, after the
// row's header fields. False, with *why naming the first pair that does
// not fit.
bool rowFits(const std::vector<Pair> &pairs, std::string *why);

// True when dc_provideAction's request with these texts fits the library's
// 4096-byte request buffer (encoded as it does).
bool actionFits(const std::string &owner, const std::string &node, const std::string &name,
                const std::string *parameters);

// True for the letters whose values are integers.
bool isIntegerType(char type);

// The registration text for application appl from argument: a text, or
// "@FILE" for a file's contents. Without an APPL statement of its own the
// text gets "APPL appl" put first; with one, it must name appl. The text
// is then checked by the library's own registration builder, and every
// name in it by checkName. False, with *why, when it would not register.
bool prepareRegistration(const std::string &appl, const std::string &argument, std::string &text,
                         std::string *why);

// One line of the catalogue's attribute text: group,attribute,type,size.
struct CatalogueAttribute {
    std::string group;
    std::string attribute;
    char type = 0;  // 0: not known (a column taken from a row)
    int size = 0;
};
std::vector<CatalogueAttribute> parseAttributes(const std::string &text);

// The lines of a catalogue text, split at commas into at most columns
// fields (the last keeps any further commas).
std::vector<std::vector<std::string>> splitLines(const std::string &text, size_t columns);

// A forwarded row, as dc_waitOnData hands it over.
struct Row {
    std::string application, group, source;
    int32_t handle = 0;
    int16_t flag = 0;
    std::vector<std::pair<std::string, std::string>> values;  // raw value bytes
    bool complete = false;                                    // every field read as the layout says
};
Row parseRow(const char *message, size_t length);

// A value as text, decoded by its attribute's type letter: integers in
// decimal (network order), text up to its first zero. Type 0
// (not known): text when the bytes read as a text with its zero, else a
// number when there are 2 or 4 of them, else hex.
std::string decodeValue(const std::string &bytes, char type);
// The same value for a JSON line: a number for an integer letter whose
// value has a width the letter takes (2 bytes for I S, 2 or 4 for A C G L
// N), a string for everything else (type 0 included).
Json jsonValue(const std::string &bytes, char type);
// A row as one JSON object: application, group, source, handle, flag and
// values, each value typed by its column's letter (0 when no column names it).
Json rowJson(const Row &row, const std::vector<CatalogueAttribute> &columns);

// A status line "appl,group,source,host[,info],requestType".
struct StatusLine {
    std::string application, group, source, host, info;
    int request = 0;
    bool hasInfo = false;
};
bool parseStatusLine(const std::string &line, StatusLine &status);
// The event a request type stands for: "register", "online", ...; "other".
const char *eventName(int request);

// What a status word says, in a few words ("the application is not
// registered"); empty for 0 and for values nobody defined.
std::string statusMeaning(long status);

// One JSON object as one line: texts that are not UTF-8 have U+FFFD in
// place of each bad byte.
std::string jsonLine(const Json &object);

// A text made safe for a terminal: each byte below 0x20, 0x7f, each byte
// that is not part of valid UTF-8, and the bytes of the C1 controls U+0080
// to U+009F written as \xHH (two lower-case hex digits). Valid UTF-8 stays
// as it is, and so does a backslash.
std::string terminalText(const std::string &text);
// The columns a terminal gives a text (its code points; wide characters
// count one).
size_t displayWidth(const std::string &text);

// An aligned table: each cell made safe with terminalText, each column as
// wide as its widest cell, two blanks between columns, no blanks at line
// ends.
std::string table(const std::vector<std::string> &header,
                  const std::vector<std::vector<std::string>> &rows);
// One line of a table whose widths are fixed in advance (rows that stream).
std::string tableLine(const std::vector<std::string> &cells, const std::vector<size_t> &widths);

}  // namespace zevdctl

#endif  // ZEVD_TOOLS_ZEVDCTL_FORMAT_H
