#!/usr/bin/env bash
# Takes the built packages through their life on this machine, as an
# administrator would: install, enable, change the setup file, upgrade to a
# newer version, remove, purge. After each step it checks what the
# maintainer scripts and dpkg left: the files, the conffiles, the service
# user, the setup file's owner and mode, the enable link, the mask, the logs,
# and what the maintainer scripts ask of systemd (a restart on upgrade, a
# stop on removal) where systemd is not running.
# Needs root (skipped otherwise) and a machine where clockette is not
# installed. Whatever happens, the packages are purged at the end and a
# service user this check created is removed again.
#   bash scripts/package-lifecycle.sh <clockette_*.deb> <clockette-tools_*.deb>
set -euo pipefail
worker=$(readlink -f "$1")
tools=$(readlink -f "$2")

if [ "$(id -u)" -ne 0 ]; then
  echo "package-lifecycle: skipped: installing packages needs root"
  exit 0
fi

# Other builds on this machine may run the same check: one at a time.
exec 9>/run/lock/clockette-package-lifecycle.lock
flock -w 600 9 || { echo "package-lifecycle: another check holds the lock" >&2; exit 1; }

# dpkg's status word of a package: installed, config-files, not-installed, ...
installed() {
  local status
  status=$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) || true
  echo "${status:-not-installed}"
}
for p in clockette clockette-tools; do
  case "$(installed "$p")" in
    not-installed) ;;
    *)
      echo "package-lifecycle: skipped: $p is installed here and the check would purge it"
      exit 0
      ;;
  esac
done

unit=clockette.service
wants=/etc/systemd/system/multi-user.target.wants/$unit
mask=/etc/systemd/system/$unit
setup=/etc/clockette/setup/COMMON.Setup
# What a purge must take away, the service user aside.
leftovers=(/etc/clockette /var/log/clockette /etc/logrotate.d/clockette "$wants" "$mask"
  /var/lib/systemd/deb-systemd-helper-enabled/$unit.dsh-also
  /var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/$unit
  /var/lib/systemd/deb-systemd-helper-masked/$unit)
userExisted=0
getent passwd clockette >/dev/null && userExisted=1
work=$(mktemp -d)

cleanup() {
  dpkg --purge clockette-tools clockette >"$work/cleanup.log" 2>&1 ||
    { cat "$work/cleanup.log" >&2; echo "package-lifecycle: the purge at the end failed" >&2; }
  # A purge that left something behind was reported; the machine is left clean anyway.
  rm -rf "${leftovers[@]}"
  dpkg-statoverride --remove "$setup" >/dev/null 2>&1 || true
  if [ "$userExisted" -eq 0 ] && getent passwd clockette >/dev/null; then
    userdel clockette || true
    ! getent group clockette >/dev/null || groupdel clockette || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail=0
problem() {
  echo "package-lifecycle: $*" >&2
  fail=1
}
# Runs a package command; its output shows only when it fails.
run() {
  if ! "$@" >"$work/step.log" 2>&1; then
    cat "$work/step.log" >&2
    echo "package-lifecycle: failed: $*" >&2
    exit 1
  fi
}
expectStatus() {  # package, dpkg's status word
  [ "$(installed "$1")" = "$2" ] || problem "$1 is '$(installed "$1")', not '$2'"
}

echo "package-lifecycle: install"
# apt brings missing dependencies; with all of them present nothing is fetched.
run env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
  -o DPkg::Lock::Timeout=300 "$worker" "$tools"
expectStatus clockette installed
expectStatus clockette-tools installed
/usr/bin/clockette --version >/dev/null || problem "the installed clockette does not run"
[ -x /usr/bin/kvmini ] || problem "clockette-tools installed no kvmini"
dpkg --verify clockette clockette-tools >&2 || problem "installed files differ from the packages"
conffiles=$(dpkg-query -W -f='${Conffiles}\n' clockette)
for conf in "$setup" /etc/logrotate.d/clockette; do
  grep -q "^ $conf " <<<"$conffiles" || problem "$conf is no conffile of the installed package"
done
[ "$(getent passwd clockette | cut -d: -f7)" = /usr/sbin/nologin ] ||
  problem "no service user clockette with the shell nologin"
getent group clockette >/dev/null || problem "no group clockette"
# The setup file may hold credentials: the service's group reads it, nobody else.
[ "$(stat -c '%U:%G %a' "$setup")" = "root:clockette 640" ] ||
  problem "$setup is $(stat -c '%U:%G %a' "$setup"), not root:clockette 640"
[ -f /lib/systemd/system/$unit ] || problem "no unit file"
[ ! -e "$wants" ] || problem "a new installation enabled the service"

echo "package-lifecycle: enable, change the setup file, write a log"
# Works on the unit files alone, with systemd running or not.
run systemctl enable $unit
[ -L "$wants" ] || problem "systemctl enable made no link"
echo "# changed by the administrator" >>"$setup"
install -d -o clockette -g clockette /var/log/clockette  # as systemd makes it (LogsDirectory)
echo "a line" >/var/log/clockette/clockette.log

echo "package-lifecycle: upgrade"
# The same package as a newer version runs every upgrade path of the
# maintainer scripts (old prerm upgrade, new postinst configure <old>).
run dpkg-deb -R "$worker" "$work/next"
sed -i 's/^Version: .*/&+lifecycle1/' "$work/next/DEBIAN/control"
run dpkg-deb -b "$work/next" "$work/next.deb"
run dpkg -i --force-confold "$work/next.deb"
expectStatus clockette installed
version=$(dpkg-query -W -f='${Version}' clockette)
[[ "$version" == *+lifecycle1 ]] || problem "the upgrade left version $version"
grep -q "^# changed by the administrator" "$setup" || problem "the upgrade lost the changed $setup"
[ "$(stat -c '%U:%G %a' "$setup")" = "root:clockette 640" ] || problem "the upgrade reset $setup"
[ -L "$wants" ] || problem "the upgrade dropped the enable link"
[ -f /var/log/clockette/clockette.log ] || problem "the upgrade removed the log"
# No service runs here, so no restart can be seen. What the installed
# maintainer scripts ask of systemd can: run where /run/systemd/system exists
# (in a mount namespace of their own), with stand-ins that record the calls.
for tool in systemctl deb-systemd-invoke deb-systemd-helper; do
  mkdir -p "$work/bin"
  printf '#!/bin/sh\necho "%s $*" >>%s\n' "$tool" "$work/calls" >"$work/bin/$tool"
  chmod +x "$work/bin/$tool"
done
asks() {  # script and its arguments: prints the deb-systemd-invoke calls
  : >"$work/calls"
  unshare --mount sh -c 'mount -t tmpfs none /run && mkdir -p /run/systemd/system &&
    PATH=$0:$PATH exec "$@"' "$work/bin" "$@" >/dev/null 2>&1 || echo "not run"
  grep '^deb-systemd-invoke' "$work/calls" | tr '\n' ';'
}
if [ "$(asks true)" = "not run" ]; then
  echo "package-lifecycle: no mount namespace here: the restart on upgrade is not seen"
else
  info=/var/lib/dpkg/info/clockette
  before=$fail
  fail=0
  [ "$(asks $info.postinst configure 22.0.0-1)" = "deb-systemd-invoke try-restart $unit;" ] ||
    problem "an upgrade does not restart a running service: $(tr '\n' ';' <"$work/calls")"
  [ -z "$(asks $info.postinst configure)" ] || problem "a new installation starts the service"
  [ -z "$(asks $info.prerm upgrade "$version")" ] || problem "an upgrade stops the service first"
  [ "$(asks $info.prerm remove)" = "deb-systemd-invoke stop $unit;" ] ||
    problem "a removal does not stop the service"
  [ "$fail" -ne 0 ] || echo "package-lifecycle: under systemd an upgrade restarts a running" \
    "service (try-restart) and a removal stops it; not seen running (systemd is not PID 1 here)"
  fail=$((fail | before))
fi

echo "package-lifecycle: remove"
run dpkg --remove clockette-tools clockette
expectStatus clockette config-files
[ ! -e /usr/bin/clockette ] || problem "the removal left /usr/bin/clockette"
[ -f "$setup" ] || problem "the removal took the setup file (a conffile stays until the purge)"
[ "$(readlink "$mask")" = /dev/null ] || problem "the removal did not mask the unit"

echo "package-lifecycle: purge"
run dpkg --purge clockette clockette-tools
expectStatus clockette not-installed
for path in "${leftovers[@]}"; do
  [ ! -e "$path" ] && [ ! -L "$path" ] || problem "the purge left $path"
done
! dpkg-statoverride --list "$setup" >/dev/null || problem "the purge left the statoverride of $setup"
# The user stays on purpose: files in document directories may be its own.
getent passwd clockette >/dev/null || problem "the purge removed the service user"

[ "$fail" -eq 0 ] && echo "package-lifecycle: install, upgrade, remove and purge ok"
exit "$fail"
