#!/bin/sh
# The Manager reader against two Node libraries of the Manager protocol:
# the same 20,000 Cdr events (only the last from a room) played over
# loopback to asterisk-manager@0.2.0, to asterisk-ami-client@1.1.5 and to
# the daemon (bench/mgr_feed_bench.cpp), three runs each; prints the median
# events per second of each and the daemon's lead over the faster library.
#
# Usage: bench/mgr_libs_bench.sh [BUILD_DIR]   (default: build)
# Installs Node from Debian (nodejs, npm) when it is missing, and the two
# libraries into a temporary folder that is removed at the end.
set -eu

build=${1:-build}
feed="$build/bench/mgr_feed_bench"
[ -x "$feed" ] || { echo "build mgr_feed_bench first: cmake --build $build --target mgr_feed_bench" >&2; exit 1; }

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
    as_root apt-get install -y nodejs npm >/dev/null
fi

dir=$(mktemp -d "${TMPDIR:-/tmp}/orlanbeck-libs-XXXXXX")
trap 'rm -rf "$dir"' EXIT
(cd "$dir" && npm init -y >/dev/null && \
    npm install --no-audit --no-fund --silent asterisk-manager@0.2.0 asterisk-ami-client@1.1.5 >/dev/null)

# The client: logs in, counts Cdr events and writes a line at the last one.
cat >"$dir/client.js" <<'JS'
const [lib, port, total] = [process.argv[2], Number(process.argv[3]), Number(process.argv[4])];
let n = 0;
function onEvent(e) {
    const name = e.event || e.Event || '';
    if (name.toLowerCase() !== 'cdr') return;
    if (++n === total) { process.stdout.write('done\n'); process.exit(0); }
}
if (lib === 'asterisk-manager') {
    const ami = require('asterisk-manager')(port, '127.0.0.1', 'orlanbeck', 'secret', true);
    ami.on('managerevent', onEvent);
    ami.on('error', () => {});
} else {
    const AmiClient = require('asterisk-ami-client');
    const client = new AmiClient({ reconnect: false, keepAlive: false });
    client.on('event', onEvent);
    client.connect('orlanbeck', 'secret', { host: '127.0.0.1', port }).catch(() => process.exit(1));
}
JS

export ORLANBECK_NODE_CLIENT_0="node $dir/client.js asterisk-manager"
export ORLANBECK_NODE_CLIENT_1="node $dir/client.js asterisk-ami-client"
echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
"$feed" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    --benchmark_format=csv 2>/dev/null >"$dir/out.csv"
echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
awk -F, '
    /_median"?,/ && /events\/s|manual_time/ {
        name = $1; gsub(/"/, "", name)
        rate = $NF
        for (i = 1; i <= NF; i++) if (col[i] == "events/s") rate = $i
        label = name ~ /Daemon/ ? "orlanbeck" : name ~ /client:0/ ? "asterisk-manager@0.2.0" : "asterisk-ami-client@1.1.5"
        printf "%-28s %12.0f events/s (median of 3)\n", label, rate
        if (label == "orlanbeck") daemon = rate; else if (rate > best) best = rate
    }
    NR == 1 || /^name,/ { for (i = 1; i <= NF; i++) { c = $i; gsub(/"/, "", c); col[i] = c } }
    END { if (best > 0 && daemon > 0) printf "lead over the faster library: %.1fx\n", daemon / best }
' "$dir/out.csv"
