#!/usr/bin/env bash
# The README's first command, end to end, on the programs of this build.
set -euo pipefail
source_dir=$1
build_dir=$2
ORLANBECK_DEMO_BUILD=$build_dir bash "$source_dir/scripts/demo.sh"
