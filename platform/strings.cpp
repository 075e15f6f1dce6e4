// Pointer check, left truncation, CRC-16/XMODEM and per-thread strtok.
#include <cstring>

#include "zev0.h"

extern "C" {

int ZEV0_IsValidPointer(const void *p) {
    return p != nullptr ? 1 : 0;
}

void ZEV0_TruncateFromLeft(char *s, int length, int newLength) {
    if (s == nullptr) return;
    if (newLength <= 0) {
        s[0] = '\0';
        return;
    }
    // The caller's length is trusted only up to the string's own end.
    int actual = static_cast<int>(strlen(s));
    if (length < 0 || length > actual) length = actual;
    if (length <= newLength) return;
    memmove(s, s + (length - newLength), static_cast<size_t>(newLength));
    s[newLength] = '\0';
}

unsigned short ZEV0_ComputeCheckSum(const void *data, int length, int seed) {
    auto crc = static_cast<unsigned short>(seed);
    const auto *bytes = static_cast<const unsigned char *>(data);
    for (int i = 0; bytes != nullptr && i < length; ++i) {
        crc = static_cast<unsigned short>(crc ^ (bytes[i] << 8));
        for (int bit = 0; bit < 8; ++bit) {
            if ((crc & 0x8000u) != 0)
                crc = static_cast<unsigned short>((crc << 1) ^ 0x1021u);
            else
                crc = static_cast<unsigned short>(crc << 1);
        }
    }
    return crc;
}

char *ZEV0_strtok(char *s, const char *delimiters) {
    static thread_local char *state = nullptr;
    return strtok_r(s, delimiters, &state);
}

}  // extern "C"
