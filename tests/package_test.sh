#!/usr/bin/env bash
# Builds the Debian package from a build (cpack -G DEB, into a temporary
# folder), has lintian check it, and checks its metadata, its contents and
# what it unpacks into a throw-away root: the daemon, the unit, the
# conffiles, the manual page. Skipped for sanitizer builds.
#   bash tests/package_test.sh <source dir> <build dir>
set -euo pipefail
build=$(cd "${2:?build dir}" && pwd)
if grep -q '^ORLANBECK_SANITIZER:STRING=..*' "$build/CMakeCache.txt"; then
  echo "package_test: sanitizer build, skipped"; exit 0
fi
tmp=$(mktemp -d "${TMPDIR:-/tmp}/orlanbeck-package-test.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
fail() { echo "package_test: FAILED: $*" >&2; exit 1; }

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
(cd "$tmp" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$tmp/out" >cpack.log 2>&1) ||
  { cat "$tmp/cpack.log" >&2; fail "cpack -G DEB"; }
deb=$tmp/out/orlanbeck_${version}-1_amd64.deb
[ -f "$deb" ] || fail "no $deb: $(ls "$tmp/out")"

lintian --fail-on error "$deb" >"$tmp/lintian.txt" 2>&1 || fail "lintian: $(grep '^E:' "$tmp/lintian.txt")"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package) $(field Version) $(field Section)" = "orlanbeck $version-1 net" ] ||
  fail "metadata: $(dpkg-deb -I "$deb")"
for lib in libsqlite3-0 libmariadb3 libiniparser1 libsystemd0; do
  field Depends | grep -q "$lib" || fail "Depends lacks $lib: $(field Depends)"
done
dpkg-deb -e "$deb" "$tmp/control"
printf '/etc/orlanbeck.conf\n/etc/logrotate.d/orlanbeck\n' | diff - "$tmp/control/conffiles" ||
  fail "conffiles"
if grep -n 'enable' "$tmp/control/postinst" | grep -v '^[0-9]*:#'; then fail "postinst enables the unit"; fi

root=$tmp/root
dpkg -x "$deb" "$root"
[ "$(stat -c %a "$root/etc/orlanbeck.conf")" = 640 ] || fail "/etc/orlanbeck.conf is not mode 640"
unit=$root/lib/systemd/system/orlanbeck.service
for line in "Type=notify" "WatchdogSec=60" "ExecStart=/usr/sbin/orlanbeck -f -c /etc/orlanbeck.conf"; do
  grep -qxF "$line" "$unit" || fail "the unit lacks '$line'"
done
grep -qxF "ExecStart=/usr/sbin/orlanbeck -f -p /run/orlanbeck/%i/orlanbeck.pid -c /etc/orlanbeck/%i.conf" \
  "$root/lib/systemd/system/orlanbeck@.service" || fail "no template unit orlanbeck@.service"
grep -q 'systemctl reload orlanbeck' "$root/etc/logrotate.d/orlanbeck" || fail "logrotate: no reload"
grep -qF '/var/log/orlanbeck/*.log' "$root/etc/logrotate.d/orlanbeck" || fail "logrotate: no instance logs"
for doc in copyright changelog.Debian.gz README.md operation.md; do
  [ -f "$root/usr/share/doc/orlanbeck/$doc" ] || fail "no /usr/share/doc/orlanbeck/$doc"
done
MANWIDTH=80 MANPAGER=cat man -l "$root/usr/share/man/man8/orlanbeck.8.gz" >"$tmp/man.txt" 2>&1
grep -q '/etc/orlanbeck.conf' "$tmp/man.txt" || fail "the manual page does not name /etc/orlanbeck.conf"
"$root/usr/sbin/orlanbeck" -t -c "$root/etc/orlanbeck.conf" >"$tmp/check.txt" 2>&1 ||
  fail "the packaged daemon finds its configuration unusable: $(cat "$tmp/check.txt")"
echo "package_test: all checks passed"
