#!/usr/bin/env bash
# Builds the Debian packages from a build directory (any install prefix) and
# checks them: the files each package holds (dpkg-deb -c), the conffiles,
# lintian (no error, no warning), the service unit (systemd-analyze
# verify, and an exposure of at most 2.0 in systemd-analyze security) and,
# as root, their install, upgrade, removal and purge on this machine
# (package-lifecycle.sh).
#   bash scripts/check-packages.sh build
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
out=$build/packages
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

rm -rf "$out"
cpack --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
worker=$(ls "$out"/clockette_*.deb)
tools=$(ls "$out"/clockette-tools_*.deb)

fail=0
expect() {  # package, path inside it
  if ! dpkg-deb -c "$1" | awk '{print $6}' | grep -qx "$2"; then
    echo "check-packages: $(basename "$1") lacks $2" >&2
    fail=1
  fi
}
for path in ./usr/bin/clockette ./lib/systemd/system/clockette.service \
    ./usr/lib/sysusers.d/clockette.conf ./etc/clockette/setup/COMMON.Setup \
    ./etc/logrotate.d/clockette ./usr/share/man/man8/clockette.8.gz \
    ./usr/share/doc/clockette/copyright ./usr/share/doc/clockette/changelog.Debian.gz \
    ./usr/share/doc/clockette/README.md.gz; do
  expect "$worker" "$path"
done
if [ -n "$(find "$build" -name clockette-verify -type f -perm -u+x -print -quit)" ]; then
  expect "$worker" ./usr/bin/clockette-verify
  expect "$worker" ./usr/share/man/man1/clockette-verify.1.gz
fi
for path in ./usr/bin/testtsa ./usr/bin/kvmini ./usr/bin/localtsa \
    ./usr/share/man/man1/testtsa.1.gz ./usr/share/doc/clockette-tools/copyright; do
  expect "$tools" "$path"
done
if dpkg-deb -c "$tools" | grep -q 'clockette$\|/etc/'; then
  echo "check-packages: clockette-tools holds files of the worker package" >&2
  fail=1
fi
conffiles=$(dpkg-deb -I "$worker" conffiles)
for conf in /etc/clockette/setup/COMMON.Setup /etc/logrotate.d/clockette; do
  grep -qx "$conf" <<<"$conffiles" || { echo "check-packages: $conf is no conffile" >&2; fail=1; }
done

# Library dependencies come with their versions (dpkg-shlibdeps).
grep -q '^ *Depends:.*libc6 (>=' <(dpkg-deb -I "$worker") ||
  { echo "check-packages: clockette's Depends has no versioned libc6" >&2; fail=1; }

# lintian: an error or a warning fails; the rest is information.
if command -v lintian >/dev/null; then
  findings=$(lintian --no-tag-display-limit "$worker" "$tools" 2>&1 || true)
  if grep -E '^[EW]: ' <<<"$findings" >&2; then
    echo "check-packages: lintian found errors or warnings" >&2
    fail=1
  fi
else
  echo "check-packages: lintian missing, packages not checked" >&2
  fail=1
fi

# The unit as installed, with its program taken from the unpacked package.
dpkg-deb -x "$worker" "$work/root"
mkdir "$work/unit"
sed "s|^\(ExecStart\(Pre\)\?=\)/usr/bin/|\1$work/root/usr/bin/|" \
  "$work/root/lib/systemd/system/clockette.service" >"$work/unit/clockette.service"
if command -v systemd-analyze >/dev/null; then
  MANPATH=$work/root/usr/share/man systemd-analyze verify "$work/unit/clockette.service" || fail=1
  systemd-analyze security --offline=true "$work/unit/clockette.service" | tail -1
  # The threshold counts tenths: 20 is an exposure of 2.0.
  systemd-analyze security --offline=true --threshold=20 "$work/unit/clockette.service" \
    >/dev/null || { echo "check-packages: unit exposure above 2.0" >&2; fail=1; }
else
  echo "check-packages: systemd-analyze missing, unit not checked" >&2
  fail=1
fi

# A placeholder maintainer passes lintian, but packages for a real archive
# need a real address: -DCLOCKETTE_MAINTAINER="name <address>".
maintainer=$(dpkg-deb -f "$worker" Maintainer)
if grep -qE '@([^>]*\.)?(example\.(org|com|net)|invalid|localhost)>' <<<"$maintainer"; then
  echo "check-packages: note: the maintainer $maintainer is a placeholder (CLOCKETTE_MAINTAINER)"
fi

# Install, upgrade, remove and purge on this machine (as root only).
bash "$(dirname "$0")/package-lifecycle.sh" "$worker" "$tools" || fail=1

[ "$fail" -eq 0 ] && echo "check-packages: $(basename "$worker") $(basename "$tools") ok"
exit "$fail"
