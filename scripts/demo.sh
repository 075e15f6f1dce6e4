#!/usr/bin/env bash
# Runs the whole system on this machine: the reference DCH (zevdchd) on a
# free loopback port, the consumer example following the demo application,
# and the provider example sending it rows. Builds what it needs first.
# Everything it starts is stopped when it ends.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${ZEVD_BUILD_DIR:-build}
bin=$build/bin
if [ ! -x "$bin/zevdchd" ] || [ ! -x "$bin/provider" ] || [ ! -x "$bin/consumer" ]; then
  echo "== building zevdchd and the examples into $build/"
  bash scripts/setup.sh
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" -j "$(nproc)" --target zevdchd provider consumer >/dev/null
fi

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# waitfor FILE TEXT SECONDS: true once FILE holds a line with TEXT.
waitfor() {
  local tries=$(($3 * 10))
  while ! grep -q -- "$2" "$1" 2>/dev/null; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.1
  done
}

# A port that is free for both UDP and TCP on loopback.
port=$(python3 - <<'EOF'
import socket
while True:
    t = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    t.bind(("127.0.0.1", 0))
    p = t.getsockname()[1]
    u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        u.bind(("127.0.0.1", p))
    except OSError:
        continue
    print(p)
    break
EOF
)

export ZEVA_DCH_ADDR=127.0.0.1 ZEVA_DCH_PORT=$port
echo "== starting zevdchd on 127.0.0.1 port $port (it waits 2 seconds before it opens the port)"
ZEVA_DCH_BIND=127.0.0.1 "$bin/zevdchd" --trace-file "$work/zevdchd.trace" >"$work/zevdchd.out" &
pids+=($!)
if ! waitfor "$work/zevdchd.out" "zevdchd ready on port $port" 20; then
  echo "zevdchd did not start:"
  cat "$work/zevdchd.trace"
  exit 1
fi
sed 's/^/zevdchd  | /' "$work/zevdchd.out"

echo "== starting the consumer: it lists the catalogue (empty so far), then waits"
echo "   for rows of the group 'demo disk' and for provider status lines"
ZEVA_TRACE_FILE="$work/consumer.trace" "$bin/consumer" >"$work/consumer.out" &
pids+=($!)
consumer=$!
tail -n +1 -f "$work/consumer.out" | sed -u 's/^/consumer | /' &
pids+=($!)
waitfor "$work/consumer.out" "waiting for rows" 10 || { echo "the consumer did not start"; exit 1; }

echo "== running the provider: register, online, three rows, offline, unregister"
"$bin/provider" | sed -u 's/^/provider | /'

# The last status line the consumer prints is the unregister (request type 4128).
if ! waitfor "$work/consumer.out" "^status demo,,,.*,4128$" 10; then
  echo "the consumer did not see the provider unregister"
  exit 1
fi
kill -TERM "$consumer"
wait "$consumer" 2>/dev/null || true
sleep 0.2 # lets tail show the consumer's last line

echo "== stopping zevdchd; what it counted:"
kill -TERM "${pids[0]}"
wait "${pids[0]}" 2>/dev/null || true
grep ' counter ' "$work/zevdchd.trace" | sed 's/^.* counter /zevdchd  | /' | grep -v ' 0$' || true
echo "== done: everything started here has stopped"
