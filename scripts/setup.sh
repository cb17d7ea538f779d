#!/usr/bin/env bash
# Installs every Debian package that building, testing and the demonstration
# need. Idempotent; runs apt-get only when something is missing.
set -euo pipefail

packages=(
  build-essential g++ cmake pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libiniparser-dev libsqlite3-dev sqlite3 libmariadb-dev libldap-dev
  mariadb-server mariadb-client slapd ldap-utils
  man-db groff-base procps
  libsystemd-dev lintian dpkg-dev fakeroot
  libssl-dev openssl prometheus-cpp-dev prometheus
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Servers are installed only to be started privately by the tests: keep the
# package scripts from starting system-wide ones.
policy=/usr/sbin/policy-rc.d
made_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
  $sudo chmod +x "$policy"
  made_policy=1
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
[ "$made_policy" = 1 ] && $sudo rm -f "$policy"
exit 0
