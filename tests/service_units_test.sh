#!/bin/sh
# zevdchd.service and zevdchd.socket as systemd reads them: systemd-analyze
# verify must find nothing to say (its complaints do not change its exit
# status, so any output fails), with ExecStart pointed at the daemon of this
# build. Exit 77 (skipped) where systemd-analyze is not installed.
# usage: service_units_test.sh SERVICE SOCKET DAEMON
set -u
service=$1
socket=$2
daemon=$3
for setting in Type=notify Restart=on-failure DynamicUser=yes StateDirectory=zevdchd \
    'EnvironmentFile=-' 'ExecReload=/bin/kill -HUP $MAINPID' ProtectSystem=strict \
    ProtectHome=yes PrivateTmp=yes PrivateDevices=yes NoNewPrivileges=yes \
    'CapabilityBoundingSet=$' 'RestrictAddressFamilies=AF_INET AF_UNIX' \
    SystemCallFilter=@system-service 'SystemCallFilter=sched_setattr$' \
    'RestartPreventExitStatus=2$' 'LogsDirectory=zevdchd$'; do
    grep -q "^$setting" "$service" || { echo "zevdchd.service lacks $setting"; exit 1; }
done
grep -q '^ListenDatagram=' "$socket" && grep -q '^ListenStream=' "$socket" ||
    { echo "zevdchd.socket lacks its UDP or TCP port"; exit 1; }

if ! command -v systemd-analyze >/dev/null 2>&1; then
    echo "systemd-analyze is not installed (systemd package): verify skipped"
    exit 77
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
sed "s|^ExecStart=[^ ]*|ExecStart=$daemon|" "$service" >"$dir/zevdchd.service"
cp "$socket" "$dir/zevdchd.socket"
out=$(cd "$dir" && systemd-analyze verify --man=no ./zevdchd.socket ./zevdchd.service 2>&1)
status=$?
if [ $status -ne 0 ] || [ -n "$out" ]; then
    echo "systemd-analyze verify (exit $status):"
    echo "$out"
    exit 1
fi
echo "systemd-analyze verify: no findings"
