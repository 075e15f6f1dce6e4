// zevdctl's text work, apart from any request: the NAME=TYPE:VALUE pairs of
// `send`, the catalogue texts, the rows and status lines the DCH sends, and
// how they are printed (aligned tables for people, JSON lines for programs).
#ifndef ZEVD_TOOLS_ZEVDCTL_FORMAT_H
#define ZEVD_TOOLS_ZEVDCTL_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zevdctl {

// One attribute of a row to send, as dp_formatData takes it.
struct Pair {
    std::string name;
    char type = 0;
    std::vector<char>
        value;  // integers: int16_t or int32_t in host order; strings: with their zero
};

// Parses NAME=TYPE:VALUE. TYPE is one letter A to Z; A C G L N take a 32-bit
// integer, I S a 16-bit one, every other letter a text of at most 4095
// characters. NAME has 1 to 32 characters and no '='. False, with *why,
// when it does not parse.
bool parsePair(const std::string &text, Pair &pair, std::string *why);

// True for the letters whose values are integers.
bool isIntegerType(char type);

// One line of the catalogue's attribute text: group,attribute,type,size.
struct CatalogueAttribute {
    std::string group;
    std::string attribute;
    char type = 0;
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
// decimal (2 or 4 bytes, network order), text up to its first zero.
std::string decodeValue(const std::string &bytes, char type);

// A status line "appl,group,source,host[,info],requestType".
struct StatusLine {
    std::string application, group, source, host, info;
    int request = 0;
    bool hasInfo = false;
};
bool parseStatusLine(const std::string &line, StatusLine &status);
// The event a request type stands for: "register", "online", ...; "other".
const char *eventName(int request);

// JSON: a string with its quotes and escapes.
std::string jsonString(const std::string &text);

// An aligned table: each column as wide as its widest cell, two blanks
// between columns, no blanks at line ends.
std::string table(const std::vector<std::string> &header,
                  const std::vector<std::vector<std::string>> &rows);
// One line of a table whose widths are fixed in advance (rows that stream).
std::string tableLine(const std::vector<std::string> &cells, const std::vector<size_t> &widths);

}  // namespace zevdctl

#endif  // ZEVD_TOOLS_ZEVDCTL_FORMAT_H
