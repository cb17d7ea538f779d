#!/usr/bin/env bash
# The daemon's folders depend downwards only, in the one order that
# docs/architecture.md writes down (its "```layers" block, top first): a file
# may include headers of its own folder and of the folders below it, never of
# one above it or beside it. Every folder of src/ is in the order, and lib/
# includes nothing of src/. Statements on the states file stand in
# src/states only.
#   bash tests/layers_test.sh <source dir> <build dir>
set -euo pipefail
src=$(cd "${1:?source dir}" && pwd)
declare -A rank  # folder -> line of the block, 1 for the top
n=0
while read -r line; do
  n=$((n + 1))
  for folder in $line; do rank[$folder]=$n; done
done < <(awk '/^```layers$/ { on = 1; next } on && /^```/ { exit } on' "$src/docs/architecture.md")
[ "$n" -gt 0 ] || { echo "layers: no \`\`\`layers block in docs/architecture.md"; exit 1; }
folder=""
folder_of() {  # x/y.cpp -> x; config_check.cpp -> config_check; main.cpp -> main
  case $1 in */*) folder=${1%%/*} ;; *) folder=${1%.*}; folder=${folder%.*} ;; esac
}
includes() {  # "file:header" for every quoted include below the current folder
  grep -rHo '#include "[^"]*"' --include='*.h' --include='*.cpp' . |
    sed 's#^\./##; s#:\#include "#:#; s#"$##'
}
bad=0
cd "$src/src"
for f in */ *.cpp; do
  case $f in */) folder=${f%/} ;; *) folder_of "$f" ;; esac
  [ -n "${rank[$folder]:-}" ] || { echo "layers: src/${f%/} is not in docs/architecture.md"; bad=1; }
done
while IFS=: read -r file inc; do
  [ -f "$inc" ] || continue  # a header of lib/ or the system
  folder_of "$file"; from=$folder
  folder_of "$inc"; to=$folder
  [ "$from" = "$to" ] && continue
  rf=${rank[$from]:-}; rt=${rank[$to]:-}
  if [ -z "$rf" ] || [ -z "$rt" ] || [ "$rt" -le "$rf" ]; then
    echo "layers: $file includes $inc ($from may not depend on $to)"
    bad=1
  fi
done < <(includes)
while IFS=: read -r file inc; do
  if [ -f "$src/src/$inc" ]; then echo "layers: lib/$file includes $inc of src/"; bad=1; fi
done < <(cd "$src/lib" && includes)
if grep -rniE '"[^"]*(select|insert|update|delete|replace) [^"]*(cdrcache|rooms|occupancy)' \
     --include='*.cpp' --include='*.h' . | grep -v '^\./states/'; then
  echo "layers: statements on the states file outside src/states"
  bad=1
fi
[ "$bad" = 0 ] && echo "layers: every include points down"
exit "$bad"
