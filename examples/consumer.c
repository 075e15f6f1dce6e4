/*
 * consumer: a data consumer that follows one attribute group of one
 * application and the comings and goings of every provider.
 *
 * It first asks the DCH's catalogue for the applications it knows and for
 * the attributes and help texts of APPL. Then it registers a data wait for
 * APPL GROUP (default: demo disk, the group that examples/provider.c sends)
 * and a provider status wait, and prints each status line and each row the
 * DCH forwards, field by field, until Ctrl-C.
 * It talks to the DCH named by the same environment variables as every
 * program linked with libzevd610:
 *
 *   ZEVA_DCH_ADDR   host name or address of the DCH (default: this host)
 *   ZEVA_DCH_PORT   its port (default: 1919)
 *
 * Usage: consumer [APPL GROUP]
 * Build: cc consumer.c -lzevd610 -lzev0 -lpthread (or the "consumer" target).
 * Exit status 0 after Ctrl-C (or SIGTERM), 1 when a wait failed.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zev0.h"
#include "zevd610.h"

/* The data wait, shared with the thread that cancels it. */
static void *dataClient;

/* The name of a field type of the forwarded rows, or NULL. */
static const char *fieldName(int type) {
    switch (type) {
        case DCH_requestType: return "requestType";
        case DCH_status: return "status";
        case DCH_applName: return "applName";
        case DCH_sourceName: return "sourceName";
        case DCH_attrGroup: return "attrGroup";
        case DCH_hostAddr: return "hostAddr";
        case DCH_hostInfo: return "hostInfo";
        case DCH_dataFlag: return "dataFlag";
        case DCH_handle: return "handle";
        default: return NULL;
    }
}

/* A value of 2 or 4 bytes in network order, as a signed number. */
static long number(const unsigned char *value, int length) {
    if (length == 2) return (int16_t)(uint16_t)((value[0] << 8) | value[1]);
    return (int32_t)(((uint32_t)value[0] << 24) | ((uint32_t)value[1] << 16) |
                     ((uint32_t)value[2] << 8) | (uint32_t)value[3]);
}

/* True when the value is text: at least one printable character, then a
 * zero, and only zeros after it (a string attribute fills its whole size). */
static int isText(const char *value, int length) {
    int end = 0;
    while (end < length && value[end] != '\0') {
        if ((unsigned char)value[end] < 0x20 || (unsigned char)value[end] > 0x7e) return 0;
        ++end;
    }
    if (end == 0 || end == length) return 0;
    for (int i = end; i < length; ++i)
        if (value[i] != '\0') return 0;
    return 1;
}

/* Prints one value: text as text, 2- and 4-byte values as numbers, anything
 * else in hexadecimal. An attribute's type letter is the catalogue's, which
 * this example does not ask for, so it goes by the bytes. */
static void printValue(const char *value, int length) {
    if (length == 0) {
        printf("(empty)");
    } else if (isText(value, length)) {
        printf("%s", value);
    } else if (length == 2 || length == 4) {
        printf("%ld", number((const unsigned char *)value, length));
    } else {
        for (int i = 0; i < length; ++i) printf("%02x", (unsigned char)value[i]);
    }
}

/* Prints a forwarded row field by field: the named fields, then each
 * attribute as "name = value". The walk never leaves the message. */
static void printRow(char *message) {
    uint32_t length =
        ((uint32_t)(unsigned char)message[0] << 24) | ((uint32_t)(unsigned char)message[1] << 16) |
        ((uint32_t)(unsigned char)message[2] << 8) | (uint32_t)(unsigned char)message[3];
    char *cursor = message + 4;
    const char *end = message + length;
    const char *attribute = NULL;
    printf("row\n");
    while (cursor < end) {
        char *value = NULL;
        int valueLength = 0;
        int type = ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLength);
        if (type == 0) {
            printf("  (the rest of the message does not form a field)\n");
            break;
        }
        if (type == DCH_attrName) {
            attribute = isText(value, valueLength) ? value : "?";
            continue;
        }
        if (type == DCH_attrValue) {
            printf("  %s = ", attribute != NULL ? attribute : "?");
            attribute = NULL;
        } else if (fieldName(type) != NULL) {
            printf("  %s = ", fieldName(type));
        } else {
            printf("  field %d = ", type);
        }
        printValue(value, valueLength);
        printf("\n");
    }
    fflush(stdout);
}

/* Seconds a catalogue query waits for the DCH's answer. */
#define CATALOGUE_WAIT 5

/* Prints one catalogue text under a title. The text is the DCH's, in a
 * malloc block that is ours to free. An empty text (nothing registered under
 * the name) comes back as a failed query, like a DCH that did not answer. */
static void printCatalogue(const char *title, int result, int length, char *text) {
    printf("%s:\n", title);
    if (result == 0 && text != NULL)
        printf("%.*s\n", length, text);
    else
        printf("  (none: the DCH has nothing under this name yet, or did not answer)\n");
    free(text);
}

/* Prints every provider status line as it comes. The status wait has no
 * cancel: the thread ends with the process. */
static void *followStatus(void *statusClient) {
    for (;;) {
        const char *line = dc_waitForDPStatus(statusClient);
        if (line == NULL) {
            fprintf(stderr, "consumer: the status wait failed\n");
            return NULL;
        }
        printf("status %s\n", line);
        fflush(stdout);
    }
}

/* Waits for Ctrl-C or SIGTERM, then wakes the data wait. A signal handler
 * could not call dc_waitOnDataCancel (it takes a lock); this thread can. */
static void *cancelOnSignal(void *signals) {
    int received = 0;
    sigwait((sigset_t *)signals, &received);
    dc_waitOnDataCancel(dataClient);
    return NULL;
}

int main(int argc, char **argv) {
    const char *appl = argc > 2 ? argv[1] : "demo";
    const char *group = argc > 2 ? argv[2] : "disk";

    /* Blocked in every thread; only cancelOnSignal takes them. */
    static sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    DCH_api_init();

    int length = 0;
    char *text = NULL;
    int result = dc_getApplications(&length, &text, NULL, CATALOGUE_WAIT);
    printCatalogue("applications", result, length, text);
    text = NULL;
    result = dc_getApplAttributes(&length, &text, appl, CATALOGUE_WAIT);
    printCatalogue("attributes", result, length, text);
    text = NULL;
    result = dc_getApplHelp(&length, &text, appl, CATALOGUE_WAIT);
    printCatalogue("help", result, length, text);
    fflush(stdout);

    dataClient = dc_waitOnDataInitialize(appl, group);
    void *statusClient = dc_waitForDPStatusInitialize();
    if (dataClient == NULL || statusClient == NULL) {
        fprintf(stderr, "consumer: could not register the waits with the DCH\n");
        return 1;
    }
    printf("waiting for rows of %s %s\n", appl, group);
    fflush(stdout);

    pthread_t statusThread;
    pthread_t signalThread;
    pthread_create(&statusThread, NULL, followStatus, statusClient);
    pthread_detach(statusThread);
    pthread_create(&signalThread, NULL, cancelOnSignal, &signals);

    /* Large enough for any message the DCH forwards (32 datagrams). */
    static char buffer[32767];
    while ((result = dc_waitOnData(dataClient, buffer, (int)sizeof buffer)) == 0) printRow(buffer);
    /* -1: cancelled; 0 would mean a signal ended the wait, which cannot
     * happen here with every signal blocked. */
    if (result == -1) pthread_join(signalThread, NULL);
    dc_waitOnDataDestroy(dataClient);
    printf("%s\n", result == -1 ? "cancelled" : "the data wait failed");
    fflush(stdout);
    return result == -1 ? 0 : 1;
}
