// Threads, mutexes and condition variables.
#include <pthread.h>

#include <ctime>

#include "zev0.h"

extern "C" {

int ZEV0_CreateThread(void *(*routine)(void *), void *arg, int detached, pthread_t *id) {
    if (routine == nullptr) return -1;
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) return rc;
    if (detached != 0) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t local;
    rc = pthread_create(id != nullptr ? id : &local, &attr, routine, arg);
    pthread_attr_destroy(&attr);
    return rc;
}

int ZEV0_InitializeMutex(pthread_mutex_t *mutex) {
    if (mutex == nullptr) return -1;
    return pthread_mutex_init(mutex, nullptr);
}

int ZEV0_InitializeCondVar(pthread_cond_t *cond) {
    if (cond == nullptr) return -1;
    pthread_condattr_t attr;
    int rc = pthread_condattr_init(&attr);
    if (rc != 0) return rc;
    // The pool's timed wait computes a wall-clock deadline.
    pthread_condattr_setclock(&attr, CLOCK_REALTIME);
    rc = pthread_cond_init(cond, &attr);
    pthread_condattr_destroy(&attr);
    return rc;
}

}  // extern "C"
