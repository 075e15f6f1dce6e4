// Any text as a registration: the builder accepts it or refuses it, and what
// it builds always walks cleanly.
#include <cstdint>
#include <string>

#include "common/message.h"
#include "zev0.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    if (!text.empty() && text[0] == '@') return 0;  // no file reads from fuzz input
    char *buffer = nullptr;
    if (ZEVP_ConstructDPregisterBuffer(text.c_str(), &buffer) == 0) return 0;
    uint32_t length = zevd::messageLength(buffer);
    if (length > 4096) __builtin_trap();
    zevd::FieldReader reader(buffer, length);
    for (int i = 0; i < 4096 && reader.next() != 0; ++i) {
    }
    return 0;
}
