#!/usr/bin/env bash
# Runs the whole system on this machine: the reference DCH (zevdchd) on a
# free loopback port, the consumer example and `zevdctl watch` following the
# demo application, and the provider example sending it rows. Builds what it
# needs first. Everything it starts is stopped when it ends.
#
# usage: demo.sh [--hold]
#   --hold  waits for Enter before the provider runs, so that you can start
#           your own zevdctl in a second terminal (ZEVD_DEMO_PORT=N fixes the
#           port; otherwise a free one is chosen and shown)
set -euo pipefail
cd "$(dirname "$0")/.."

hold=false
case "${1:-}" in
  --hold) hold=true ;;
  "") ;;
  *) echo "usage: $0 [--hold]" >&2; exit 2 ;;
esac

build=${ZEVD_BUILD_DIR:-build}
bin=$build/bin
programs=(zevdchd zevdctl provider consumer)
for program in "${programs[@]}"; do
  if [ ! -x "$bin/$program" ]; then
    echo "== building ${programs[*]} into $build/"
    bash scripts/setup.sh
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$build" -j "$(nproc)" --target "${programs[@]}" >/dev/null
    break
  fi
done

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
port=${ZEVD_DEMO_PORT:-}
[ -n "$port" ] || port=$(python3 - <<'EOF'
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
: >"$work/consumer.out"
ZEVA_TRACE_FILE="$work/consumer.trace" "$bin/consumer" >"$work/consumer.out" &
pids+=($!)
consumer=$!
tail -n +1 -f "$work/consumer.out" | sed -u 's/^/consumer | /' &
pids+=($!)
waitfor "$work/consumer.out" "waiting for rows" 10 || { echo "the consumer did not start"; exit 1; }

echo "== starting zevdctl watch demo disk: the same rows as a table"
: >"$work/watch.out"
"$bin/zevdctl" watch demo disk >"$work/watch.out" 2>"$work/watch.err" &
pids+=($!)
watch=$!
tail -n +1 -f "$work/watch.out" | sed -u 's/^/zevdctl  | /' &
pids+=($!)
# The watch asks the catalogue first (it has nothing yet), then subscribes.
waitfor "$work/watch.err" "not in the catalogue yet" 10 || { echo "zevdctl did not start"; exit 1; }

if $hold; then
  echo "== zevdchd is on 127.0.0.1 port $port. In a second terminal run:"
  echo "     build/bin/zevdctl --addr 127.0.0.1 --port $port watch demo disk"
  echo "   then press Enter here to run the provider."
  read -r _
fi

echo "== running the provider: register, online, three rows, offline, unregister"
"$bin/provider" | sed -u 's/^/provider | /'

# The last status line the consumer prints is the unregister (request type 4128).
if ! waitfor "$work/consumer.out" "^status demo,,,.*,4128$" 10; then
  echo "the consumer did not see the provider unregister"
  exit 1
fi
waitfor "$work/watch.out" "/home" 10 || echo "zevdctl watch did not show the last row"
kill -TERM "$consumer" "$watch"
wait "$consumer" "$watch" 2>/dev/null || true
sleep 0.2 # lets tail show the last lines

echo "== stopping zevdchd; what it counted:"
kill -TERM "${pids[0]}"
wait "${pids[0]}" 2>/dev/null || true
grep ' counter ' "$work/zevdchd.trace" | sed 's/^.* counter /zevdchd  | /' | grep -v ' 0$' || true
echo "== done: everything started here has stopped"
