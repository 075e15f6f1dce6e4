#!/usr/bin/env bash
# Installs what building and testing zevd needs, from Debian's packages,
# when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

# nlohmann-json3-dev writes zevdctl's JSON lines (and reads them back in its
# tests). build-essential, dpkg-dev, debhelper and lintian build and check the
# Debian packages; systemd brings systemd-analyze (the units' check) and
# systemd-socket-activate (a socket-activation test); man-db renders the manual
# pages for their check.
packages=(cmake g++ make binutils pkg-config libgtest-dev libgmock-dev libbenchmark-dev python3
  go-md2man valgrind libmicrohttpd-dev nlohmann-json3-dev build-essential dpkg-dev debhelper
  lintian systemd man-db)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q "${missing[@]}"
fi

# promtool checks the metrics page in the tests. It is unpacked from
# Debian's prometheus package into .tools/, not installed: installing the
# package would also start a Prometheus server wherever systemd runs.
if ! command -v promtool >/dev/null 2>&1 && [ ! -x .tools/bin/promtool ]; then
  rm -rf .tools && mkdir -p .tools/deb .tools/bin
  if ! (cd .tools/deb && apt-get download -q prometheus >/dev/null 2>&1); then
    if [ "$(id -u)" -eq 0 ]; then
      apt-get update -q >/dev/null 2>&1 || true
    else
      sudo apt-get update -q >/dev/null 2>&1 || true
    fi
    (cd .tools/deb && apt-get download -q prometheus >/dev/null 2>&1) || true
  fi
  deb=$(ls .tools/deb/prometheus_*.deb 2>/dev/null | head -n 1 || true)
  if [ -n "$deb" ] && dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/bin/promtool >.tools/bin/promtool &&
    chmod +x .tools/bin/promtool; then
    echo "promtool: $(.tools/bin/promtool --version 2>&1 | head -n 1)"
  else
    rm -f .tools/bin/promtool
    echo "warning: promtool could not be fetched; the tests that run it will skip"
  fi
  rm -rf .tools/deb
fi
