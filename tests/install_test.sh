#!/usr/bin/env bash
# Installs a build into a temporary prefix, as from source, and checks what
# lands there: the daemon, the configuration (absolute paths, never
# overwritten), the systemd unit and the manual page. (The staged install of
# the Debian package: tests/package_test.sh.)
#   bash tests/install_test.sh <source dir> <build dir>     (builds nothing)
set -euo pipefail
src=$(cd "${1:?source dir}" && pwd)
build=$(cd "${2:?build dir}" && pwd)
tmp=$(mktemp -d "${TMPDIR:-/tmp}/orlanbeck-install-test.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
fail() { echo "install_test: FAILED: $*" >&2; exit 1; }
install_into() {  # <log> <cmake --install arguments...>
  local log=$1; shift
  cmake --install "$build" "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "cmake --install $*"; }
}

prefix=$tmp/prefix
install_into "$tmp/install1.log" --prefix "$prefix"
"$prefix/sbin/orlanbeck" -h >"$tmp/usage.txt" 2>&1 || fail "$prefix/sbin/orlanbeck -h failed"
grep -q "Orlanbeck: middle layer FIAS application." "$tmp/usage.txt" || fail "no daemon in $prefix/sbin"

# The configuration: the sample with absolute paths, mode 0640, kept when it exists.
conf=$prefix/etc/orlanbeck.conf
sed -e 's|^statesfile = run/orlanbeck.db$|statesfile = /var/lib/orlanbeck/orlanbeck.db|' \
    -e 's|^log_file = run/orlanbeck.log$|log_file = /var/log/orlanbeck.log|' \
    -e 's|^database = run/pbx.db$|database = /var/lib/orlanbeck/pbx.db|' \
    "$src/etc/orlanbeck.conf" | diff -u - "$conf" || fail "$conf is not the sample with absolute paths"
[ "$(stat -c %a "$conf")" = 640 ] || fail "$conf is not mode 640 (it may hold passwords)"
echo "; changed by the operator" >>"$conf"
install_into "$tmp/install2.log" --prefix "$prefix"
tail -n 1 "$conf" | grep -qxF "; changed by the operator" || fail "a second install overwrote $conf"

# The systemd unit and its template (one instance per property, each with
# its own configuration and pid file), verified when systemd-analyze works
# here at all (the template as the instance "hotel-a").
unit=$prefix/lib/systemd/system/orlanbeck.service
template=$prefix/lib/systemd/system/orlanbeck@.service
for line in "ExecStart=$prefix/sbin/orlanbeck -f -c $conf" 'ExecReload=/bin/kill -HUP $MAINPID' \
  "Restart=on-failure"; do
  grep -qxF "$line" "$unit" || fail "the unit lacks '$line'"
done
for line in "ExecStart=$prefix/sbin/orlanbeck -f -p /run/orlanbeck/%i/orlanbeck.pid -c $prefix/etc/orlanbeck/%i.conf" \
  "RuntimeDirectory=orlanbeck/%i" 'ExecReload=/bin/kill -HUP $MAINPID'; do
  grep -qxF "$line" "$template" || fail "the template unit lacks '$line'"
done
printf '[Unit]\nDescription=x\n[Service]\nExecStart=/bin/true\n' >"$tmp/reference.service"
if systemd-analyze verify "$tmp/reference.service" >"$tmp/ref.out" 2>&1 && [ ! -s "$tmp/ref.out" ]; then
  cp "$template" "$tmp/orlanbeck@hotel-a.service"
  for u in "$unit" "$tmp/orlanbeck@hotel-a.service"; do
    MANPATH=$prefix/share/man systemd-analyze verify "$u" >"$tmp/verify.out" 2>&1 &&
      [ ! -s "$tmp/verify.out" ] || fail "systemd-analyze verify $u: $(cat "$tmp/verify.out")"
  done
fi

# The manual page renders without warnings.
page=$prefix/share/man/man8/orlanbeck.8
if grep -n '@[A-Za-z_]*@' "$page" "$unit" "$template"; then fail "unfilled @...@ placeholders"; fi
MANWIDTH=80 MANPAGER=cat man --warnings -l "$page" >"$tmp/man.txt" 2>"$tmp/man.err" &&
  [ ! -s "$tmp/man.err" ] || fail "man -l $page: $(cat "$tmp/man.err")"
echo "install_test: all checks passed"
