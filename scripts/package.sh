#!/usr/bin/env bash
# Builds the Debian packages (libzevd610-6, libzevd610-dev, zevdchd, zevdctl)
# from a copy of this tree with dpkg-buildpackage, without their tests (the
# suite runs in CI), then checks them: lintian must report no error, and
# each package must hold exactly its part of the layout.
# usage: scripts/package.sh [OUTDIR]   (default: build-deb; the .debs land there)
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(mkdir -p "${1:-build-deb}" && cd "${1:-build-deb}" && pwd)

if ! command -v dpkg-buildpackage >/dev/null 2>&1 || ! command -v dh >/dev/null 2>&1; then
  echo "package build skipped: dpkg-buildpackage or debhelper is not installed"
  exit 0
fi

# The tracked and new files of the work tree, nothing built.
rm -rf "$out/src" "$out"/*.deb "$out"/*.ddeb "$out"/*.changes "$out"/*.buildinfo
mkdir -p "$out/src"
git ls-files -z --cached --others --exclude-standard | tar --null -T - -c | tar -x -C "$out/src"

# The packages' version is the project's.
version=$(sed -n 's/^project(zevd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$(dpkg-parsechangelog -S Version)" = "$version" ] ||
  { echo "debian/changelog's version is not the project's $version"; exit 1; }

started=$SECONDS
(cd "$out/src" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" \
  dpkg-buildpackage -us -uc -b >"$out/build.log" 2>&1) ||
  { tail -n 60 "$out/build.log"; echo "dpkg-buildpackage failed (log: $out/build.log)"; exit 1; }
echo "dpkg-buildpackage: $((SECONDS - started)) s"

changes=$(ls "$out"/zevd_*.changes)
if command -v lintian >/dev/null 2>&1; then
  lintian --fail-on error --suppress-tags-from-file /dev/null "$changes" >"$out/lintian.log" 2>&1 ||
    { cat "$out/lintian.log"; echo "lintian reports errors"; exit 1; }
  echo "lintian: no errors ($(grep -c '^W:' "$out/lintian.log" || true) warnings, log: $out/lintian.log)"
else
  echo "lintian is not installed: not run"
fi

# Each package's files (directories left out) against the layout.
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
contents() {
  dpkg-deb --contents "$1" | awk '$1 !~ /^d/ {print $6}' | sed 's/^\.//' | sort
}
expect() {
  local package=$1
  shift
  local deb
  deb=$(ls "$out/${package}"_*.deb)
  local actual expected
  actual=$(contents "$deb")
  expected=$(printf '%s\n' "$@" | sort)
  if [ "$actual" != "$expected" ]; then
    echo "$package holds other files than expected:"
    diff <(echo "$expected") <(echo "$actual") || true
    exit 1
  fi
}
expect libzevd610-6 \
  "/usr/lib/$arch/libzevd610.so.6" "/usr/lib/$arch/libzevd610.so.6.1.0" \
  "/usr/lib/$arch/libzev0.so.0" "/usr/lib/$arch/libzev0.so.0.1.0" \
  /usr/share/doc/libzevd610-6/changelog.gz /usr/share/doc/libzevd610-6/copyright
expect libzevd610-dev \
  /usr/include/zevd610.h /usr/include/zev0.h \
  "/usr/lib/$arch/libzevd610.so" "/usr/lib/$arch/libzev0.so" \
  "/usr/lib/$arch/pkgconfig/zevd610.pc" "/usr/lib/$arch/pkgconfig/zev0.pc" \
  "/usr/lib/$arch/cmake/zevd/zevdConfig.cmake" "/usr/lib/$arch/cmake/zevd/zevdConfigVersion.cmake" \
  "/usr/lib/$arch/cmake/zevd/zevdTargets.cmake" "/usr/lib/$arch/cmake/zevd/zevdTargets-none.cmake" \
  /usr/share/doc/libzevd610-dev/changelog.gz /usr/share/doc/libzevd610-dev/copyright
expect zevdchd \
  /etc/default/zevdchd /lib/systemd/system/zevdchd.service /lib/systemd/system/zevdchd.socket \
  /usr/lib/sysctl.d/30-zevdchd.conf /usr/sbin/zevdchd /usr/share/man/man8/zevdchd.8.gz \
  /usr/share/doc/zevdchd/changelog.gz /usr/share/doc/zevdchd/copyright
expect zevdctl \
  /usr/bin/zevdctl /usr/share/man/man1/zevdctl.1.gz \
  /usr/share/doc/zevdctl/changelog.gz /usr/share/doc/zevdctl/copyright
# The daemon's maintainer scripts: the receive-buffer limit raised only
# where it is lower, and its state and trace files gone with a purge.
deb="$(ls "$out"/zevdchd_*.deb)"
dpkg-deb -I "$deb" postinst | grep -q '"$have" -lt "$want"' ||
  { echo "zevdchd: postinst does not leave a larger rmem_max alone"; exit 1; }
dpkg-deb -I "$deb" postrm | grep -q 'purge' &&
  dpkg-deb -I "$deb" postrm | grep -q 'rm -rf /var/lib/private/zevdchd' ||
  { echo "zevdchd: postrm does not remove the state at a purge"; exit 1; }
# The library's SONAME, and no runpath in the system's directories.
dpkg-deb --fsys-tarfile "$(ls "$out"/libzevd610-6_*.deb)" |
  tar -xO "./usr/lib/$arch/libzevd610.so.6.1.0" >"$out/libzevd610.so"
readelf -d "$out/libzevd610.so" | grep -q 'SONAME.*\[libzevd610.so.6\]' ||
  { echo "libzevd610-6: SONAME is not libzevd610.so.6"; exit 1; }
! readelf -d "$out/libzevd610.so" | grep -q 'RUNPATH\|RPATH' ||
  { echo "libzevd610-6: the library has a runpath"; exit 1; }
rm -f "$out/libzevd610.so"
echo "packages: $(cd "$out" && ls ./*.deb | xargs -n1 basename | tr '\n' ' ')"
