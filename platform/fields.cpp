// Encoding and decoding of single message fields: a 6-byte header (16-bit
// type, 32-bit value length, network order) and the value.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "zev0.h"

namespace {

enum class ValueClass { int16, int32, string, text, attrValue, raw };

ValueClass classify(int dataType) {
    switch (dataType) {
        case 16:   // DCH_requestType
        case 112:  // DCH_dataFlag
        case 256:  // DCH_actionType
        case 257:  // DCH_actionUTF8
        case ZEV0_FIELD_REG_ATTR_TYPE: return ValueClass::int16;
        case 17:   // DCH_status
        case 128:  // DCH_handle
        case 288:  // DCH_actionID
        case 352:  // DCH_currentTime
        case 368:  // DCH_peltoObject
        case ZEV0_FIELD_REG_ATTR_SIZE: return ValueClass::int32;
        case 32:
        case 33:
        case 34:
        case 35:
        case 36:
        case 40:
        case 41:
        case 80:
        case 272:
        case 304:
        case 336:
        case ZEV0_FIELD_REG_HELP: return ValueClass::string;
        case 18:  // DCH_response: the characters without a terminating zero
            return ValueClass::text;
        case 81:  // DCH_attrValue
            return ValueClass::attrValue;
        default: return ValueClass::raw;
    }
}

void put16(char *at, uint16_t v) {
    v = htons(v);
    memcpy(at, &v, 2);
}

void put32(char *at, uint32_t v) {
    v = htonl(v);
    memcpy(at, &v, 4);
}

uint32_t get32(const char *at) {
    uint32_t v;
    memcpy(&v, at, 4);
    return ntohl(v);
}

uint16_t get16(const char *at) {
    uint16_t v;
    memcpy(&v, at, 2);
    return ntohs(v);
}

}  // namespace

extern "C" {

int ZEV0_FormatDataFieldN(char *buffer, size_t capacity, char *cursor, int dataType,
                          const void *value, int valueLen, const char *attrType) {
    if (buffer == nullptr || cursor == nullptr || capacity < 4 || cursor < buffer + 4 ||
        cursor > buffer + capacity)
        return 0;
    // Width of the value and how it is stored.
    size_t length = 0;
    int width = 0;  // 2 or 4 for numbers in network order, 0 for bytes as given
    if (value != nullptr) {
        switch (classify(dataType)) {
            case ValueClass::int16: length = 2, width = 2; break;
            case ValueClass::int32: length = 4, width = 4; break;
            case ValueClass::string: length = strlen(static_cast<const char *>(value)) + 1; break;
            case ValueClass::text:
                length = valueLen > 0 ? static_cast<size_t>(valueLen)
                                      : strlen(static_cast<const char *>(value));
                break;
            case ValueClass::attrValue: {
                char letter = attrType != nullptr ? *attrType : '\0';
                if (strchr("ACGLN", letter) != nullptr && letter != '\0') {
                    width = valueLen == 2 ? 2 : 4;
                    length = static_cast<size_t>(width);
                } else if ((letter == 'I' || letter == 'S')) {
                    width = 2;
                    length = 2;
                } else {
                    length = valueLen > 0 ? static_cast<size_t>(valueLen) : 0;
                }
                break;
            }
            case ValueClass::raw: length = valueLen > 0 ? static_cast<size_t>(valueLen) : 0; break;
        }
    }
    size_t used = static_cast<size_t>(cursor - buffer);
    if (length > capacity || ZEV0_FIELD_HEADER + length > capacity - used) return 0;
    put16(cursor, static_cast<uint16_t>(dataType));
    put32(cursor + 2, static_cast<uint32_t>(length));
    char *out = cursor + ZEV0_FIELD_HEADER;
    if (width == 2) {
        int16_t v;
        memcpy(&v, value, 2);
        put16(out, static_cast<uint16_t>(v));
    } else if (width == 4) {
        int32_t v;
        memcpy(&v, value, 4);
        put32(out, static_cast<uint32_t>(v));
    } else if (length > 0) {
        memcpy(out, value, length);
    }
    size_t total = ZEV0_FIELD_HEADER + length;
    put32(buffer, static_cast<uint32_t>(used + total));
    return static_cast<int>(total);
}

int ZEV0_FormatDataField(char *buffer, char *cursor, int dataType, const void *value, int valueLen,
                         const char *attrType) {
    return ZEV0_FormatDataFieldN(buffer, ZEV0_REQUEST_SIZE, cursor, dataType, value, valueLen,
                                 attrType);
}

int ZEV0_ExtractDataField(char **cursor, char **value, int *valueLen, int /*reserved*/) {
    char *at = *cursor;
    int type = get16(at);
    uint32_t length = get32(at + 2);
    *value = at + ZEV0_FIELD_HEADER;
    *valueLen = static_cast<int>(length);
    *cursor = at + ZEV0_FIELD_HEADER + length;
    return type;
}

int ZEV0_ExtractDataFieldBounded(char **cursor, const char *end, char **value, int *valueLen) {
    if (value != nullptr) *value = nullptr;
    if (valueLen != nullptr) *valueLen = 0;
    if (cursor == nullptr || *cursor == nullptr || end == nullptr) return 0;
    char *at = *cursor;
    if (at > end || static_cast<size_t>(end - at) < ZEV0_FIELD_HEADER) {
        *cursor = const_cast<char *>(end);
        return 0;
    }
    uint32_t length = get32(at + 2);
    if (length > static_cast<size_t>(end - at) - ZEV0_FIELD_HEADER) {
        *cursor = const_cast<char *>(end);
        return 0;
    }
    if (value != nullptr) *value = at + ZEV0_FIELD_HEADER;
    if (valueLen != nullptr) *valueLen = static_cast<int>(length);
    *cursor = at + ZEV0_FIELD_HEADER + length;
    return get16(at);
}

}  // extern "C"
