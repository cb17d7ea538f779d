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
ranks=$(awk '/^```layers$/ { on = 1; next } on && /^```/ { exit } on' "$src/docs/architecture.md")
[ -n "$ranks" ] || { echo "layers: no \`\`\`layers block in docs/architecture.md"; exit 1; }
rank_of() {  # 1 for the top line
  awk -v m="$1" '{ for (i = 1; i <= NF; i++) if ($i == m) print NR }' <<<"$ranks"
}
folder_of() {  # x/y.cpp -> x; config.cpp -> config
  case $1 in */*) echo "${1%%/*}" ;; *) local f=${1%.*}; echo "${f%.*}" ;; esac
}
bad=0
cd "$src/src"
for f in */ *.cpp; do
  name=$(folder_of "${f/%\//\/x}")
  [ -n "$(rank_of "$name")" ] || { echo "layers: src/${f%/} is not in docs/architecture.md"; bad=1; }
done
while IFS=: read -r file inc; do
  from=$(folder_of "$file")
  [ -f "$inc" ] || continue  # a header of lib/ or the system
  to=$(folder_of "$inc")
  [ "$from" = "$to" ] && continue
  rf=$(rank_of "$from"); rt=$(rank_of "$to")
  if [ -z "$rf" ] || [ -z "$rt" ] || [ "$rt" -le "$rf" ]; then
    echo "layers: $file includes $inc (${from:-?} may not depend on ${to:-?})"
    bad=1
  fi
done < <(grep -rHo '#include "[^"]*"' --include='*.h' --include='*.cpp' . |
         sed 's#^\./##; s#:\#include "#:#; s#"$##')
while IFS=: read -r file inc; do
  if [ -f "$src/src/$inc" ]; then echo "layers: lib/$file includes $inc of src/"; bad=1; fi
done < <(cd "$src/lib" && grep -rHo '#include "[^"]*"' --include='*.h' --include='*.cpp' . |
         sed 's#^\./##; s#:\#include "#:#; s#"$##')
if grep -rniE '"[^"]*(select|insert|update|delete|replace) [^"]*(cdrcache|rooms|occupancy)' \
     --include='*.cpp' --include='*.h' . | grep -v '^\./states/'; then
  echo "layers: statements on the states file outside src/states"
  bad=1
fi
[ "$bad" = 0 ] && echo "layers: every include points down"
exit "$bad"
