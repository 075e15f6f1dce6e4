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

const char *fieldName(int type) {
    switch (type) {
        case 16: return "DCH_requestType";
        case 17: return "DCH_status";
        case 18: return "DCH_response";
        case 32: return "DCH_applName";
        case 33: return "DCH_applKey";
        case 34: return "DCH_sourceName";
        case 35: return "DCH_attrGroup";
        case 36: return "DCH_tableName";
        case 40: return "DCH_hostAddr";
        case 41: return "DCH_hostInfo";
        case 80: return "DCH_attrName";
        case 81: return "DCH_attrValue";
        case 112: return "DCH_dataFlag";
        case 128: return "DCH_handle";
        case 256: return "DCH_actionType";
        case 257: return "DCH_actionUTF8";
        case 272: return "DCH_actionName";
        case 288: return "DCH_actionID";
        case 304: return "DCH_actionParms";
        case 336: return "DCH_actionOwner";
        case 352: return "DCH_currentTime";
        case 368: return "DCH_peltoObject";
        default: return "field";
    }
}

void MessageBuilder::clear() {
    memset(buffer_, 0, capacity_);
    cursor_ = buffer_ + kFirstField;
    failedType_ = 0;
}

void MessageBuilder::resume() {
    uint32_t length = messageLength(buffer_);
    if (length < static_cast<uint32_t>(kFirstField) || length > capacity_) length = kFirstField;
    cursor_ = buffer_ + length;
    failedType_ = 0;
}

bool MessageBuilder::resumeAt(size_t length) {
    failedType_ = 0;
    if (length < static_cast<size_t>(kFirstField) || length > capacity_) {
        cursor_ = buffer_ + kFirstField;
        failedType_ = -1;  // no field type: nothing may be appended
        return false;
    }
    cursor_ = buffer_ + length;
    return true;
}

bool MessageBuilder::append(int type, const void *value, int valueLen, const char *attrType) {
    if (failedType_ != 0) return false;
    int n = ZEV0_FormatDataFieldN(buffer_, capacity_, cursor_, type, value, valueLen, attrType);
    if (n <= 0) {
        failedType_ = type;
        return false;
    }
    cursor_ += n;
    return true;
}

bool MessageBuilder::add16(int type, int16_t value) {
    return append(type, &value, 0, nullptr);
}

bool MessageBuilder::add32(int type, int32_t value) {
    return append(type, &value, 0, nullptr);
}

bool MessageBuilder::addString(int type, const char *value) {
    return append(type, value, 0, nullptr);
}

bool MessageBuilder::addValue(int type, const void *value, int valueLen, const char *attrType) {
    return append(type, value, valueLen, attrType);
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
