// Reading the fields of a request: every value is checked against its type
// and its limits before the daemon uses it; nothing is read past the bytes
// received (the FieldReader's bound).
#ifndef ZEVD_DCH_ZEVDCHD_FIELDS_H
#define ZEVD_DCH_ZEVDCHD_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/message.h"

namespace zevd::dch {

// Name limits, the ones dp_online checks.
inline constexpr size_t kApplNameMax = 20;
inline constexpr size_t kGroupNameMax = 32;
inline constexpr size_t kSourceNameMax = 32;
inline constexpr size_t kAttrNameMax = 32;
// Longest help text, action text or key the daemon keeps.
inline constexpr size_t kTextMax = 4096;

// Reads the next field as a string of that type: a value of no bytes is the
// empty string; otherwise the value ends with its one zero. At most maxChars
// characters.
inline bool readString(FieldReader &reader, int type, size_t maxChars, std::string &out) {
    if (reader.next() != type) return false;
    int length = reader.length();
    if (length == 0) {
        out.clear();
        return true;
    }
    const char *value = reader.value();
    size_t chars = static_cast<size_t>(length) - 1;
    if (value[chars] != '\0' || chars > maxChars) return false;
    for (size_t i = 0; i < chars; ++i)
        if (value[i] == '\0') return false;
    out.assign(value, chars);
    return true;
}

// A name: a string of 1 to maxChars characters without blanks or commas
// (the catalogue texts separate by commas and lines).
inline bool readName(FieldReader &reader, int type, size_t maxChars, std::string &out) {
    if (!readString(reader, type, maxChars, out) || out.empty()) return false;
    for (char c : out)
        if (static_cast<unsigned char>(c) <= ' ' || c == ',' || c == 0x7f) return false;
    return true;
}

// Numbers of exactly the field's own width.
inline bool read16(FieldReader &reader, int type, int16_t &out) {
    if (reader.next() != type || reader.length() != 2) return false;
    out = reader.int16();
    return true;
}

inline bool read32(FieldReader &reader, int type, int32_t &out) {
    if (reader.next() != type || reader.length() != 4) return false;
    out = reader.int32();
    return true;
}

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_FIELDS_H
