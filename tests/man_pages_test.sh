#!/bin/sh
# Renders each built manual page with man, warnings on: nothing may be
# written to standard error, and the page must have its NAME section.
# usage: man_pages_test.sh PAGE...
set -u
if ! command -v man >/dev/null 2>&1; then
    # Skipped, not passed: ctest reports it so (SKIP_RETURN_CODE).
    echo "man is not installed (Debian package man-db): the pages were not checked"
    exit 77
fi
for page in "$@"; do
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || { echo "$page: $warnings"; exit 1; }
    MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q '^NAME' || { echo "$page: no NAME"; exit 1; }
done
exit 0
