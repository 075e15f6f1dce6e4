#!/usr/bin/env bash
# Installs what building and testing zevd needs, from Debian's packages,
# when it is missing.
set -euo pipefail

packages=(cmake g++ make binutils libgtest-dev libgmock-dev libbenchmark-dev python3 go-md2man valgrind)
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
