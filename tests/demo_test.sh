#!/bin/sh
# Runs the README's demo command against this build: the consumer must print
# the provider's rows and status lines, and nothing it started may be left.
# usage: demo_test.sh SOURCE_DIR BUILD_DIR
set -u
out=$(ZEVD_BUILD_DIR=$2 bash "$1/scripts/demo.sh" 2>&1)
status=$?
echo "$out"
[ $status -eq 0 ] || { echo "the demo exited with $status"; exit 1; }
for line in "zevdchd  | zevdchd ready on port" "consumer | waiting for rows of demo disk" \
    "provider | dp_unregister  result 0 status 0" "consumer |   mount = /home" \
    "consumer |   inodes = 50211" "consumer | status demo,disk,node-1,127.0.0.1," \
    "consumer | cancelled" "zevdchd  | rows_forwarded 6" "== done"; do
    echo "$out" | grep -qF -- "$line" || { echo "missing: $line"; exit 1; }
done
# The watch's row, in columns as wide as the catalogue's types, or as its
# values when the provider had unregistered before the watch asked the
# catalogue about the row (the provider example runs straight through).
row='^zevdctl  \| node-1 +1 +/var +87 +50211 +1$'
echo "$out" | grep -qE -- "$row" || { echo "missing: the watch's row /var"; exit 1; }
port=$(echo "$out" | sed -n 's/^zevdchd  | zevdchd ready on port \([0-9]*\)$/\1/p')
python3 - "$port" <<'PY' || { echo "port $port is still taken after the demo"; exit 1; }
import socket, sys
for kind in (socket.SOCK_DGRAM, socket.SOCK_STREAM):
    s = socket.socket(socket.AF_INET, kind)
    s.bind(("127.0.0.1", int(sys.argv[1])))
PY
exit 0
