#include "common/message.h"

#include <arpa/inet.h>

#include <cstring>

#include "zev0.h"

namespace zevd {

uint32_t messageLength(const char *message) {
    uint32_t word;
    memcpy(&word, message, sizeof word);
    return ntohl(word);
}

FieldReader::FieldReader(const char *message, size_t received) {
    // The reader never writes; the extraction interface takes char *.
    auto *start = const_cast<char *>(message);
    if (message == nullptr || received < static_cast<size_t>(kFirstField)) {
        cursor_ = start;
        end_ = start;
        return;
    }
    size_t length = messageLength(message);
    if (length < static_cast<size_t>(kFirstField)) length = kFirstField;
    if (length > received) length = received;
    cursor_ = start + kFirstField;
    end_ = start + length;
}

int FieldReader::next() {
    int type = ZEV0_ExtractDataFieldBounded(&cursor_, end_, &value_, &length_);
    type_ = type & 0xFFFF;  // only the low 16 bits name the type
    return type_;
}

void FieldReader::copyValue(void *out, size_t width) const {
    memset(out, 0, width);
    if (value_ == nullptr) return;
    size_t available = static_cast<size_t>(end_ - value_);
    memcpy(out, value_, width < available ? width : available);
}

int32_t FieldReader::int32() const {
    uint32_t raw;
    copyValue(&raw, sizeof raw);
    return static_cast<int32_t>(ntohl(raw));
}

int16_t FieldReader::int16() const {
    uint16_t raw;
    copyValue(&raw, sizeof raw);
    return static_cast<int16_t>(ntohs(raw));
}

}  // namespace zevd
