/*
 * provider: a data provider's whole life, from registration to unregistering.
 *
 * It describes an application with one attribute group, brings the group
 * online for one source, sends a few rows and withdraws again, printing the
 * status of every step. It talks to the DCH named by the same environment
 * variables as every program linked with libzevd610:
 *
 *   ZEVA_DCH_ADDR   host name or address of the DCH (default: this host)
 *   ZEVA_DCH_PORT   its port (default: 1919)
 *
 * Build: cc provider.c -lzevd610 (or the "provider" target of this project).
 * Exit status 0 when every request succeeded, 1 otherwise.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zevd610.h"

/* The catalogue: statements separated by ';' (or newlines). Names and type
 * letters here must match the rows sent below. */
static const char registration[] =
    "APPL demo Example provider;"
    "GROUP disk Disk usage;"
    "ATTR mount D 64 Mount point;"
    "ATTR usedPct A 4 Percent used;"
    "ATTR inodes N 4 Inodes in use;"
    "ATTR state S 2 0 ok, 1 warning";

struct disk {
    const char *mount;
    long usedPct;
    long inodes;
    short state;
};

/* Prints one step's outcome; returns 1 when it failed. Every request
 * function returns 0 or 1, and leaves the detail in the status word: the
 * DCH's own status, or a value of the client (1 to 5, see zevd610.h). */
static int report(const char *step, int result, long status) {
    printf("%-14s result %d status %ld%s\n", step, result, status,
           result == 0 && status == 0 ? "" : "  <- failed");
    return result != 0 || status != 0;
}

/* Appends one attribute to the row in *row (allocated by the first call). */
static int add(char **row, long *size, const char *name, const void *value, long valueSize,
               char type) {
    long status = 0;
    int result = dp_formatData(&status, row, size, name, value, valueSize, type);
    if (result != 0 || status != 0) {
        fprintf(stderr, "dp_formatData %s: result %d status %ld\n", name, result, status);
        return 1;
    }
    return 0;
}

/* Formats one row and sends it under handle. dp_data frees the row whatever
 * happens, and is the only call that does: a row with a refused attribute
 * still goes out (without it) so that its buffer is released. */
static int sendRow(long handle, const struct disk *d) {
    char *row = NULL;
    long size = 0;
    long status = 0;
    int32_t usedPct = (int32_t)d->usedPct; /* integer letters take values of their size */
    int32_t inodes = (int32_t)d->inodes;
    int16_t state = d->state;
    int failed = 0;

    failed |= add(&row, &size, "mount", d->mount, (long)strlen(d->mount) + 1, 'D');
    failed |= add(&row, &size, "usedPct", &usedPct, sizeof usedPct, 'A');
    failed |= add(&row, &size, "inodes", &inodes, sizeof inodes, 'N');
    failed |= add(&row, &size, "state", &state, sizeof state, 'S');
    failed |= report("dp_data", dp_data(&status, handle, 0, &row), status);
    return failed;
}

int main(void) {
    const struct disk disks[] = {
        {"/", 41, 120345, 0},
        {"/var", 87, 50211, 1},
        {"/home", 12, 9044, 0},
    };
    const char *addr = getenv("ZEVA_DCH_ADDR");
    const char *port = getenv("ZEVA_DCH_PORT");
    long status = 0;
    long handle = 0;
    int failed = 0;
    size_t i;

    /* Each step's line as it happens, into a pipe too. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    printf("DCH at %s, port %s\n", addr != NULL ? addr : "(this host)",
           port != NULL ? port : "1919");

    failed |= report("dp_register", dp_register(&status, registration), status);
    if (failed) return 1;

    failed |= report("dp_online", dp_online(&status, &handle, "demo", "disk", "node-1"), status);
    if (failed) return 1;
    printf("%-14s handle %ld\n", "", handle);

    for (i = 0; i < sizeof disks / sizeof disks[0]; ++i) failed |= sendRow(handle, &disks[i]);

    failed |= report("dp_offline", dp_offline(&status, handle), status);
    failed |= report("dp_unregister", dp_unregister(&status, "demo"), status);
    return failed ? 1 : 0;
}
