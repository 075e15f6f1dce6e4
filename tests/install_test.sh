#!/bin/sh
# An installed prefix as a new user meets it: cmake --install into a staging
# prefix writes nothing outside it; examples/provider.c and consumer.c build
# against it twice, with find_package(zevd 6) and with pkg-config alone, and
# run against the installed zevdchd, all without LD_LIBRARY_PATH.
# usage: install_test.sh SOURCE_DIR BUILD_DIR
set -u
source=$1
build=$2
work=$(mktemp -d)
daemon_pid=
consumer_pid=
cleanup() {
    [ -n "$consumer_pid" ] && kill "$consumer_pid" 2>/dev/null
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAILED: $*"
    exit 1
}
unset LD_LIBRARY_PATH

# waits_for FILE TEXT: until FILE holds TEXT, 30 s at most.
waits_for() {
    tries=0
    while ! grep -qF -- "$2" "$1" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -le 300 ] || return 1
        sleep 0.1
    done
}

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; fail "cmake --install"; }
outside=$(grep -v "^$prefix/" "$build/install_manifest.txt")
[ -z "$outside" ] || fail "installed outside the prefix: $outside"
# Staged under DESTDIR, every file lands under DESTDIR/prefix: a path
# written without the prefix (such as /etc or /man1) would land beside it.
DESTDIR="$work/root" cmake --install "$build" --prefix /opt/zevd >"$work/destdir.log" 2>&1 ||
    { cat "$work/destdir.log"; fail "cmake --install with DESTDIR"; }
outside=$(cd "$work/root" && find . ! -type d | grep -v '^\./opt/zevd/')
[ -z "$outside" ] || fail "installed outside the prefix: $outside"
[ -e "$work/root/opt/zevd/sbin/zevdchd" ] || fail "nothing installed under DESTDIR/prefix"

# The layout.
libdir=$(sed -n 's/^libdir=\${prefix}\///p' "$prefix"/lib*/pkgconfig/zevd610.pc 2>/dev/null | head -n 1)
[ -n "$libdir" ] || fail "no zevd610.pc"
for f in "$libdir/libzevd610.so.6" "$libdir/libzevd610.so" "$libdir/libzev0.so.0" \
    include/zevd610.h include/zev0.h "$libdir/cmake/zevd/zevdConfig.cmake" \
    "$libdir/cmake/zevd/zevdConfigVersion.cmake" "$libdir/cmake/zevd/zevdTargets.cmake" \
    "$libdir/pkgconfig/zevd610.pc" "$libdir/pkgconfig/zev0.pc" sbin/zevdchd bin/zevdctl \
    lib/systemd/system/zevdchd.service lib/systemd/system/zevdchd.socket \
    etc/default/zevdchd lib/sysctl.d/30-zevdchd.conf; do
    [ -e "$prefix/$f" ] || fail "$f is not installed"
done
if command -v go-md2man >/dev/null 2>&1; then
    [ -e "$prefix/share/man/man1/zevdctl.1" ] && [ -e "$prefix/share/man/man8/zevdchd.8" ] ||
        fail "the manual pages are not in share/man"
fi
readelf -d "$prefix/$libdir/libzevd610.so.6" | grep -q 'SONAME.*\[libzevd610.so.6\]' ||
    fail "SONAME of libzevd610"
readelf -d "$prefix/$libdir/libzevd610.so.6" | grep -q 'RUNPATH.*\[\$ORIGIN\]' ||
    fail "libzevd610 has no \$ORIGIN runpath"
readelf -d "$prefix/sbin/zevdchd" | grep -q "RUNPATH.*\[\$ORIGIN/../$libdir\]" ||
    fail "zevdchd has no \$ORIGIN-relative runpath"

# With find_package(zevd 6 REQUIRED): examples/CMakeLists.txt as a project
# of its own, as the README builds it.
cmake -S "$source/examples" -B "$work/cmake/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_BUILD_TYPE=Release >"$work/cmake.log" 2>&1 &&
    cmake --build "$work/cmake/build" >>"$work/cmake.log" 2>&1 ||
    { cat "$work/cmake.log"; fail "the examples do not build with find_package"; }
# Another major version is not this one.
mkdir -p "$work/seven"
printf 'cmake_minimum_required(VERSION 3.20)\nproject(seven C)\nfind_package(zevd 7 REQUIRED)\n' \
    >"$work/seven/CMakeLists.txt"
if cmake -S "$work/seven" -B "$work/seven/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
    fail "find_package(zevd 7) accepted version 6"
fi

# With pkg-config alone (the runpath instead of LD_LIBRARY_PATH or ldconfig).
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
mkdir -p "$work/pc"
rpath="-Wl,-rpath,$(pkg-config --variable=libdir zevd610)"
cc -std=c11 -Wall -Wextra -pedantic -o "$work/pc/provider" "$source/examples/provider.c" \
    $(pkg-config --cflags --libs zevd610) "$rpath" || fail "provider does not build with pkg-config"
cc -std=c11 -Wall -Wextra -pedantic -pthread -o "$work/pc/consumer" "$source/examples/consumer.c" \
    $(pkg-config --cflags --libs zevd610 zev0) "$rpath" ||
    fail "consumer does not build with pkg-config"

# The installed daemon on a free loopback port.
port=$(python3 -c '
import socket
for _ in range(100):
    u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); u.bind(("127.0.0.1", 0))
    p = u.getsockname()[1]
    t = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        t.bind(("127.0.0.1", p)); print(p); break
    except OSError:
        pass
')
[ -n "$port" ] || fail "no free port"
ZEVA_DCH_BIND=127.0.0.1 "$prefix/sbin/zevdchd" --port "$port" --trace-file "$work/trace" \
    >"$work/daemon.out" 2>&1 &
daemon_pid=$!
waits_for "$work/daemon.out" "zevdchd ready on port $port" ||
    { cat "$work/daemon.out"; fail "the installed zevdchd did not start"; }
export ZEVA_DCH_ADDR=127.0.0.1 ZEVA_DCH_PORT=$port

for built in cmake/build pc; do
    "$work/$built/consumer" >"$work/consumer.out" 2>&1 &
    consumer_pid=$!
    waits_for "$work/consumer.out" "waiting for rows of demo disk" ||
        { cat "$work/consumer.out"; fail "$built/consumer did not start its waits"; }
    "$work/$built/provider" >"$work/provider.out" 2>&1 ||
        { cat "$work/provider.out"; fail "$built/provider failed"; }
    [ "$(grep -c 'result 0 status 0$' "$work/provider.out")" -eq 7 ] ||
        { cat "$work/provider.out"; fail "$built/provider: not every step succeeded"; }
    waits_for "$work/consumer.out" "usedPct = " ||
        { cat "$work/consumer.out"; fail "$built/consumer got no row"; }
    kill -INT "$consumer_pid"
    wait "$consumer_pid"
    status=$?
    consumer_pid=
    [ $status -eq 0 ] || fail "$built/consumer ended with $status"
    grep -q '^cancelled$' "$work/consumer.out" || fail "$built/consumer was not cancelled cleanly"
    echo "$built: provider and consumer ran against the installed zevdchd"
done

# zevdctl lists an application that a provider registered (the examples'
# provider unregisters at its end): a dp_register of "installed", sent raw.
python3 - "$port" <<'PY' || fail "the register request was not answered"
import socket, struct, sys
def field(kind, value):
    return struct.pack(">HI", kind, len(value)) + value
body = (field(16, struct.pack(">H", 0x1010)) + field(32, b"installed\0") + field(0x200, b"\0")
        + field(35, b"g\0") + field(0x200, b"\0") + field(80, b"v\0")
        + field(0x201, struct.pack(">H", ord("A"))) + field(0x202, struct.pack(">I", 4))
        + field(0x200, b"\0"))
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.settimeout(20)
s.sendto(struct.pack(">I", 4 + len(body)) + body, ("127.0.0.1", int(sys.argv[1])))
s.recv(4096)
PY
"$prefix/bin/zevdctl" --addr 127.0.0.1 --port "$port" apps >"$work/apps.out" 2>&1 ||
    { cat "$work/apps.out"; fail "the installed zevdctl failed"; }
grep -qx installed "$work/apps.out" || { cat "$work/apps.out"; fail "zevdctl apps: no 'installed'"; }
kill -TERM "$daemon_pid"
wait "$daemon_pid"
status=$?
daemon_pid=
[ $status -eq 0 ] || fail "zevdchd ended with $status"
echo "install test passed"
