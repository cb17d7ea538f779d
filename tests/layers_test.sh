#!/usr/bin/env bash
# The daemon's folders depend downwards only: a file may include headers of
# its own folder and of the folders ranked below it, never of one ranked
# above or beside it. Statements on the states file stand in src/states only.
#   bash tests/layers_test.sh <source dir> <build dir>
set -euo pipefail
cd "$1/src"
# Lowest first; folders on one line share a rank and include none of the others.
ranks="process rating
db
config
fias
templates
states
ops
mgr rooms config_check
steps
guest billing
dialcodes wakeup
handlers
main"
rank_of() {
  awk -v m="$1" '{ for (i = 1; i <= NF; i++) if ($i == m) print NR }' <<<"$ranks"
}
folder_of() {  # src/x/y.cpp -> x; config.cpp -> config
  case $1 in */*) echo "${1%%/*}" ;; *) local f=${1%.*}; echo "${f%.*}" ;; esac
}
bad=0
while IFS=: read -r file inc; do
  from=$(folder_of "$file")
  [ -f "$inc" ] || continue  # a header of lib/ or the system
  to=$(folder_of "$inc")
  [ "$from" = "$to" ] && continue
  rf=$(rank_of "$from"); rt=$(rank_of "$to")
  if [ -z "$rf" ] || [ -z "$rt" ] || [ "$rt" -ge "$rf" ]; then
    echo "layers: $file includes $inc (${from:-?} may not depend on ${to:-?})"
    bad=1
  fi
done < <(grep -rHo '#include "[^"]*"' --include='*.h' --include='*.cpp' . |
         sed 's#^\./##; s#:\#include "#:#; s#"$##')
if grep -rniE '"[^"]*(select|insert|update|delete|replace) [^"]*(cdrcache|rooms|occupancy)' \
     --include='*.cpp' --include='*.h' . | grep -v '^\./states/'; then
  echo "layers: statements on the states file outside src/states"
  bad=1
fi
[ "$bad" = 0 ] && echo "layers: every include points down"
exit "$bad"
