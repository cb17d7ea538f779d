#!/usr/bin/env bash
# Builds the benchmarks in a Release build (build-bench/), runs them all and
# prints one table: measure | figure | target.
#
# Each program runs BENCH_RUNS times (default 3) and the best figure counts,
# since a shared machine slows single runs down. Cycles, bursts and the
# reader are wall-clock figures (they involve several threads and the disk);
# the parser and the log line are the CPU time of the one thread doing them.
# The raw results stay in build-bench/results/.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${BENCH_RUNS:-3}
jobs=$(nproc 2>/dev/null || echo 2)
bash scripts/setup.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DORLANBECK_TESTS=OFF \
      -DORLANBECK_BENCH=ON >/dev/null
cmake --build build-bench -j"$jobs" --target orlanbeck fias_bench logger_bench mgr_bench billing_bench actions_bench calls_bench wakeup_bench rating_bench >/dev/null

out=build-bench/results
rm -rf "$out"
mkdir -p "$out"
for run in $(seq 1 "$runs"); do
  for b in fias_bench logger_bench mgr_bench billing_bench actions_bench calls_bench wakeup_bench rating_bench; do
    echo "bench: $b, run $run of $runs" >&2
    "build-bench/bench/$b" --benchmark_out="$out/$b.$run.csv" --benchmark_out_format=csv \
      >/dev/null 2>"$out/$b.$run.log" || echo "bench: $b failed (see $out/$b.$run.log)" >&2
  done
done

# name pattern | measure | column (real, cpu or a counter) | scale | unit | best (min/max) | target
cat >"$out/measures" <<'EOF'
BM_CycleCacheMode/fixes:0/level:4/|cache-mode cycle, 2,000 rooms, 100,000 posted + 20,000 new calls|real|1|ms|min|< 1000 ms
BM_CycleCacheMode/fixes:1/level:4/|  the same with every [fixes] correction|real|1|ms|min|< 1000 ms
BM_CycleCacheMode/fixes:0/level:5/|  the same at log_level 5, every DEBUG line (for information)|real|1|ms|min|-
BM_CycleCacheIdle/fixes:0/level:4|idle cache-mode cycle (120,000 posted, nothing new)|real|1|ms|min|< 50 ms
BM_CycleCacheIdle/fixes:1/level:4|  the same with every [fixes] correction|real|1|ms|min|< 50 ms
BM_CycleQueryMode/fixes:0/level:4/normal:1/|query-mode cycle, 20,000 new calls, PBX file in WAL, synchronous = normal|real|1|ms|min|< 1000 ms
BM_CycleQueryMode/fixes:1/level:4/normal:1/|  the same with every [fixes] correction|real|1|ms|min|< 1000 ms
BM_CycleQueryMode/fixes:0/level:4/normal:0/|  the same with synchronous = full, one disk sync per room (for information)|real|1|ms|min|-
BM_CaptureBurst/level:4/|burst of 10,000 room Cdr events cached (shipped log_level 4)|real|1|ms|min|< 1000 ms
BM_CaptureBurst/level:5/|  the same at log_level 5, every DEBUG line (for information)|real|1|ms|min|-
BM_ReaderToRoomTest/level:4/|Manager reader, socket to room test (shipped log_level 4)|events/s|1|events/s|max|>= 250000 events/s
BM_ReaderToRoomTest/level:5/|  the same at log_level 5, 2,000 rooms logged per event (for information)|events/s|1|events/s|max|-
BM_ResyncWithActionSteps|resync of 2,000 rooms, three Manager actions per check-in ([fixes] ordered_records)|real|1|ms|min|< 5000 ms
BM_ImmediatePosting/20/|[posting] immediate: Cdr event to its "PS" on the wire, 1,000 calls over 20 s, p99|p99_ms|1|ms|min|< 1000 ms (goal < 100 ms)
BM_ImmediatePosting/20/|  the same, median (for information)|p50_ms|1|ms|min|-
BM_WakeupsForOneSecond|500 wake-up calls booked for one second: the last Originate after the booked second|real|1|ms|min|< 2000 ms
BM_ParseGuestCheckin|parse a "GI" record|cpu|1|ns|min|< 100 ns
BM_ParsePosting|parse a "PS" record|cpu|1|ns|min|< 150 ns
BM_LogLineToFile/|a log line written to the file|cpu|1|ns|min|< 2000 ns
BM_LogLineNotWritten|a DEBUG line below the level|cpu|1|ns|min|-
BM_LoadTariff100k|tariff file of 100,000 lines loaded and checked|real|1|ms|min|< 500 ms
BM_LoadTariff100k|  the memory its table holds|table_MB|1|MB|min|< 16 MB
BM_PriceCall|a call priced from that table (longest prefix, dated lines, amount)|cpu|1|ns|min|< 2000 ns
EOF

awk -F'|' -v OFS='|' '
  FNR == 1 { file++; split("", idx) }
  file == 1 { pat[++n] = $1; label[n] = $2; col[n] = $3; unit[n] = $5; best[n] = $6; target[n] = $7; next }
  /^name,/ {
    split($0, h, ",")
    for (i in h) { gsub(/"/, "", h[i]); idx[h[i]] = i }
    next
  }
  idx["name"] && NF == 1 {
    split($0, f, ",")
    name = f[1]; gsub(/"/, "", name)
    for (k = 1; k <= n; k++) {
      if (index(name, pat[k]) != 1) continue
      c = col[k] == "real" ? "real_time" : col[k] == "cpu" ? "cpu_time" : col[k]
      v = f[idx[c]] + 0
      if (f[idx["error_occurred"]] == "true" || v == 0) continue
      if (!(k in val) || (best[k] == "min" && v < val[k]) || (best[k] == "max" && v > val[k])) val[k] = v
    }
  }
  END {
    printf "| %-78s | %-22s | %-20s |\n", "measure", "figure", "target"
    printf "|%s|%s|%s|\n", "--------------------------------------------------------------------------------", "------------------------", "----------------------"
    for (k = 1; k <= n; k++) {
      fig = (k in val) ? sprintf(unit[k] == "events/s" ? "%.0f %s" : "%.1f %s", val[k], unit[k]) : "(no result)"
      printf "| %-78s | %-22s | %-20s |\n", label[k], fig, target[k]
    }
  }
' "$out/measures" "$out"/*.csv | tee "$out/table.md"
echo
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), load average $(cut -d' ' -f1-3 /proc/loadavg); $(date -u '+%Y-%m-%d %H:%M UTC'); best of $runs runs"
