#!/usr/bin/env bash
# Builds the daemon and runs it in the foreground, logging to the console, on
# the sample configuration (states file and log under ./run). Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DORLANBECK_TESTS=OFF -DORLANBECK_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target orlanbeck
mkdir -p run
exec ./build/src/orlanbeck -f -d -c etc/orlanbeck.conf
