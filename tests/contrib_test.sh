# The alert rules and the dashboard in contrib/: the rules load and pass
# their unit tests (promtool), the dashboard is valid JSON and asks only for
# metrics that the daemon exports.
set -euo pipefail
src=$1
command -v promtool >/dev/null || { echo "contrib: promtool missing (scripts/setup.sh installs it)"; exit 1; }
cd "$src/contrib/prometheus"
promtool check rules orlanbeck-rules.yml
promtool test rules orlanbeck-rules.test.yml
dashboard=$src/contrib/grafana/orlanbeck-dashboard.json
[ "$(sqlite3 :memory: "select json_valid(readfile('$dashboard'))")" = 1 ] ||
  { echo "contrib: the dashboard is no valid JSON"; exit 1; }
bad=0
for name in $(grep -ho 'orlanbeck_[a-z_]*' "$dashboard" orlanbeck-rules.yml | sort -u); do
  base=${name%_bucket}
  grep -q "\"$base\"" "$src/lib/metrics.cpp" || { echo "contrib: $name is no metric of the daemon"; bad=1; }
done
exit "$bad"
