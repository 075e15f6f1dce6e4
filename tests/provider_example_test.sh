#!/bin/sh
# Runs examples/provider.c's program against the fake DCH program on
# loopback: every step must report status 0 and the program exit 0. Both
# run behind ZEVD_CHILD_WRAPPER when it is set.
# usage: provider_example_test.sh PROVIDER FAKE_DCH
set -u
provider=$1
fake=$2
out=$(mktemp)
trap 'kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -f "$out"' EXIT

ZEVA_DCH_BIND=127.0.0.1 ${ZEVD_CHILD_WRAPPER:-} "$fake" >"$out" 2>/dev/null &
pid=$!
port=
tries=0
while [ -z "$port" ] && [ $tries -lt 300 ]; do
    port=$(sed -n 's/^zevd_fake_dch ready on port \([0-9][0-9]*\)$/\1/p' "$out")
    [ -n "$port" ] || sleep 0.1
    tries=$((tries + 1))
done
if [ -z "$port" ]; then
    echo "the fake DCH did not report its port"
    exit 1
fi

report=$(ZEVA_DCH_ADDR=127.0.0.1 ZEVA_DCH_PORT=$port ${ZEVD_CHILD_WRAPPER:-} "$provider")
status=$?
echo "$report"
[ $status -eq 0 ] || { echo "provider exited with $status"; exit 1; }
for step in dp_register dp_online dp_offline dp_unregister; do
    echo "$report" | grep -q "^$step  *result 0 status 0\$" || { echo "no good $step line"; exit 1; }
done
[ "$(echo "$report" | grep -c '^dp_data  *result 0 status 0$')" -eq 3 ] || { echo "not 3 rows"; exit 1; }
echo "$report" | grep -q "^ *handle 1\$" || { echo "no handle line"; exit 1; }
exit 0
