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

// The name of a field data type ("DCH_applName"), or "field" when unknown.
const char *fieldName(int type);

// Builds a message field by field: numbers of the field's own width, strings
// with their terminating zero. A field that would pass the buffer's capacity
// is refused and leaves the buffer as it was; the builder remembers the
// first refusal and refuses every later field.
class MessageBuilder {
public:
    explicit MessageBuilder(char *buffer, size_t capacity = kRequestSize)
        : buffer_(buffer), capacity_(capacity), cursor_(buffer + kFirstField) {}

    // Clears the whole buffer and starts a new message.
    void clear();
    // Goes on appending to a message already in the buffer.
    void resume();
    // Goes on appending at byte length of the buffer, whatever its length
    // word says. False, and every field refused, when length lies before the
    // first field or past the capacity.
    bool resumeAt(size_t length);

    bool add16(int type, int16_t value);
    bool add32(int type, int32_t value);
    bool addString(int type, const char *value);
    // The value's bytes as the encoder takes them (attribute values).
    bool addValue(int type, const void *value, int valueLen, const char *attrType);

    bool ok() const { return failedType_ == 0; }
    // Type of the first field that did not fit, 0 when all did (-1 after
    // resumeAt refused its place).
    int failedType() const { return failedType_; }
    uint32_t length() const { return messageLength(buffer_); }
    // Where the next field goes, in bytes from the buffer start.
    size_t offset() const { return static_cast<size_t>(cursor_ - buffer_); }
    char *buffer() const { return buffer_; }

private:
    bool append(int type, const void *value, int valueLen, const char *attrType);

    char *buffer_;
    size_t capacity_;
    char *cursor_;
    int failedType_ = 0;
};

// Walks the fields of a received message in order. The walk ends at the
// message's length word or at the bytes received, whichever comes first; a
// field whose header or value runs past that end counts as missing (type 0).
class FieldReader {
public:
    FieldReader(const char *message, size_t received);

    // Reads the next field and returns its data type: the low 16 bits of
    // the extraction result, 0 for a missing field.
    int next();

    // True once every field up to the end has been read (or one was missing).
    bool atEnd() const { return cursor_ >= end_; }
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
