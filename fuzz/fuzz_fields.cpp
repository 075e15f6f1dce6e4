// Any bytes, walked as a received message: the walk must stay inside them.
#include <cstdint>
#include <cstring>
#include <vector>

#include "common/message.h"
#include "zev0.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An exact-size copy, so a read past the end is caught by the sanitizer.
    std::vector<char> message(data, data + size);
    zevd::FieldReader reader(message.data(), message.size());
    for (int i = 0; i < 4096 && reader.next() != 0; ++i) {
        volatile int32_t a = reader.int32();
        volatile int16_t b = reader.int16();
        (void)a;
        (void)b;
    }
    char *cursor = message.data();
    const char *end = message.data() + message.size();
    for (int i = 0; i < 4096; ++i) {
        char *value = nullptr;
        int length = 0;
        if (ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &length) == 0 && value == nullptr)
            break;
    }
    return 0;
}
