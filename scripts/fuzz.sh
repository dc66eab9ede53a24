#!/usr/bin/env bash
# Runs every fuzz target for a number of seconds (default: 10), from the kept inputs. New inputs gather
# in the build folder; one that breaks something is written there as crash-* and ends the run with a
# failure. Arguments: SECONDS [TARGET...].
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" clang libclang-rt-dev
seconds=${1:-10}
shift || true
[ $# -gt 0 ] || set -- metadata configuration_file
folder=build-fuzz
# All else is built with it: for .ci/run this is the build with Clang.
build_in "$folder" --preset fuzz
for target in "$@"; do
  found=$folder/corpus/$target
  mkdir -p "$found"
  # A slow input is an answer to a hang: five seconds for what takes microseconds.
  "$folder/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=1024 -close_fd_mask=3 \
    -print_final_stats=1 -artifact_prefix="$folder/$target-" "$found" "tests/fuzz/corpus/$target" \
    >"$folder/$target.log" 2>&1 || { tail -n 40 "$folder/$target.log"; exit 1; }
  echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$folder/$target.log") executions"
done
