// DCH messages: a length word (network order, the word itself included)
// followed by typed fields. The one way the library walks a received
// message: never past the bytes received.
#ifndef ZEVD_COMMON_MESSAGE_H
#define ZEVD_COMMON_MESSAGE_H

#include <cstddef>
#include <cstdint>

namespace zevd {

// Size of every request buffer and of the data-row work buffer.
inline constexpr int kRequestSize = 4096;
// Offset of the first field.
inline constexpr int kFirstField = 4;

// The length word of a message in host order.
uint32_t messageLength(const char *message);

// Walks the fields of a received message in order. The walk ends at the
// message's length word or at the bytes received, whichever comes first; a
// field whose header or value runs past that end counts as missing (type 0).
class FieldReader {
public:
    FieldReader(const char *message, size_t received);

    // Reads the next field and returns its data type: the low 16 bits of
    // the extraction result, 0 for a missing field.
    int next();

    int type() const { return type_; }
    const char *value() const { return value_; }
    int length() const { return length_; }

    // The value's first four (two) bytes in host order. A value shorter than
    // that is read on into the message where it still has bytes, and padded
    // with zeros past the end: no read leaves the message.
    int32_t int32() const;
    int16_t int16() const;

private:
    void copyValue(void *out, size_t width) const;

    char *cursor_;
    const char *end_;
    int type_ = 0;
    char *value_ = nullptr;
    int length_ = 0;
};

}  // namespace zevd

#endif  // ZEVD_COMMON_MESSAGE_H
