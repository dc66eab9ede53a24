#!/usr/bin/env bash
# Fuzzes the configuration file for a number of seconds (default: 10), from the kept inputs. New inputs
# gather in the build folder; one that breaks something is written there as crash-* and ends the run with a
# failure. Argument: SECONDS.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" clang libclang-rt-dev
seconds=${1:-10}
folder=build-fuzz
# All else is built with it: for .ci/run this is the build with Clang.
build_in "$folder" --preset fuzz
mkdir -p "$folder/corpus"
# A slow input is an answer to a hang: five seconds for what takes microseconds.
"$folder/tests/fuzz/fuzz_configuration_file" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=1024 \
  -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$folder/" "$folder/corpus" tests/fuzz/corpus \
  >"$folder/fuzz.log" 2>&1 || { tail -n 40 "$folder/fuzz.log"; exit 1; }
echo "$(sed -n 's/^stat::number_of_executed_units: *//p' "$folder/fuzz.log") executions"
