#!/usr/bin/env bash
# The key tables of README.md and docs/ (tables whose first column is "Key")
# name only keys that the configuration reader knows, and every key it knows
# is in one of them.
#   bash tests/docs_keys_test.sh <source dir> <build dir>
set -euo pipefail
cd "$1"
src=src/config.cpp
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
{
  grep -oE '"[a-z_]+:[a-z_0-9]+"' "$src" | tr -d '"'                       # section:key
  grep -oE '\{"[a-z_]+", f\.' "$src" | sed -E 's/\{"([a-z_]+)".*/fixes:\1/'  # [fixes] keys
  grep -oE 'prefix \+ "[a-z_]+"' "$src" | sed -E 's/.*"([a-z_]+)"/database:\1/'
  grep -q '"rooms:room%d"' "$src" && echo 'rooms:roomN'
  grep -q '"extensions"' "$src" && echo 'extensions:<room>'
} | sort -u >"$tmp/known"
# Every backticked key in the first cell of a "| Key |" table's rows. A name
# without a section is a database key when the reader knows one, else a
# service; "room1" and "checkin.2" stand for their numbered kinds.
awk '
  /^\| *Key *\|/ { keys = 1; next }
  !/^\|/ { keys = 0 }
  keys && /^\| *`/ {
    split($0, cells, "|"); cell = cells[2]
    while (match(cell, /`[^`]+`/)) { print substr(cell, RSTART + 1, RLENGTH - 2); cell = substr(cell, RSTART + RLENGTH) }
  }' README.md docs/*.md |
  sed -E 's/^rooms:room[0-9]+$/rooms:roomN/; s/^(services:[a-z_]+)\.[2-9]$/\1/' |
  while read -r key; do
    case $key in
      *:*) echo "$key" ;;
      *) if grep -qx "database:$key" "$tmp/known"; then echo "database:$key"; else echo "services:$key"; fi ;;
    esac
  done | sort -u >"$tmp/documented"
unknown=$(comm -13 "$tmp/known" "$tmp/documented")
undocumented=$(comm -23 "$tmp/known" "$tmp/documented")
[ -z "$unknown" ] || echo "docs: documented, but the configuration reader does not know:" $unknown
[ -z "$undocumented" ] || echo "docs: known to the configuration reader, but in no key table:" $undocumented
[ -z "$unknown$undocumented" ] && echo "docs: every key is documented, and only those"
[ -z "$unknown$undocumented" ]
