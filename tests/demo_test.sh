#!/usr/bin/env bash
# The README's first command, end to end, on the programs of this build (with
# the daemon's billing period and record pause shortened).
set -euo pipefail
source_dir=$1
build_dir=$2
export ORLANBECK_TEST_BILLING_PERIOD_MS=200 ORLANBECK_TEST_RECORD_PAUSE_MS=20
ORLANBECK_DEMO_BUILD=$build_dir bash "$source_dir/scripts/demo.sh"
