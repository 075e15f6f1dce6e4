// Environment lookup and sleeping.
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "zev0.h"

extern "C" {

char *OSV1_GetEnv(const char *name, int /*reserved*/) {
    if (name == nullptr) return nullptr;
    return getenv(name);
}

void OSV1_Sleep(int seconds) {
    if (seconds <= 0) return;
    struct timespec left = {seconds, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // extern "C"
