#!/usr/bin/env bash
# Measures the service against what the kernel needs and against fuser, in one run, and prints a table of
# ratios. Status 1 when one exceeds its bound. The figures and the pictures go to a folder, which may be
# given. Figures are CPU time, or elapsed time where that is said, medians of several repetitions; the work
# is done in memory, in a mount namespace of its own.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

folder=$(realpath -m "${1:-build-bench/pictures}")
repetitions=${REPETITIONS:-5} # two at least: one has no median
if [ "$(id -u)" -ne 0 ]; then
  echo "Run this as root: it mounts a file system in memory, and fuser sees nothing otherwise."
  exit 1
fi
if [ "${BENCH_NAMESPACE:-}" != own ]; then
  install_packages "${build_packages[@]}" libbenchmark-dev psmisc gnuplot-nox
  build_in build-bench -DCMAKE_BUILD_TYPE=Release -DVEL4_BENCHMARKS=ON -DBUILD_TESTING=OFF
  BENCH_NAMESPACE=own exec unshare --mount --propagation private "$0" "$@"
fi

results=$(mktemp -d)
load=
trap 'stop_load; rm -rf "$results"' EXIT
trap 'exit 1' INT TERM HUP
mount -t tmpfs none /mnt
export TMPDIR=/mnt

# A load of sleeping processes with descriptors each. It ends when its input does, so also when this
# script is killed.
start_load() {
  coproc sleepers { build-bench/benchmarks/sleepers "$1" "$2" 2>/dev/null; }
  load=$sleepers_PID
  read -r -u "${sleepers[0]}" _
  exec 9>&"${sleepers[1]}" {sleepers[1]}>&-
}
stop_load() {
  [ -n "$load" ] || return 0
  exec 9>&-
  wait "$load" || true
  load=
}

# Appends the medians of the benchmarks that match to the results: "LABEL NAME MICROSECONDS". Repetitions of
# all of them are mixed, so that a machine that is slow for a while is so for both sides of a ratio.
measure() {
  local label=$1 filter=$2
  build-bench/benchmarks/benchmarks --benchmark_filter="$filter" --benchmark_min_time=0.1 \
    --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true \
    --benchmark_enable_random_interleaving=true \
    --benchmark_format=csv 2>/dev/null 9>&- |
    awk -F, -v label="$label" '/_median/ { gsub(/"/, "", $1); sub(/\/manual_time_median/, "", $1)
      print label, $1, $3 }' >>"$results/all"
}

# Prints the CPU microseconds that a shell script with find, fuser and mv takes a file.
measure_shell() {
  local folders=20 i
  for ((i = 0; i < folders; ++i)); do
    mkdir -p "/mnt/shell/$i" /mnt/shell/target && echo x >"/mnt/shell/$i/a.mxf"
    echo x >"/mnt/shell/target/$i.mxf"
  done
  TIMEFORMAT='%U %S'
  { time bash -c 'cd /mnt/shell
    for ((i = 0; i < '"$folders"'; ++i)); do
      file=$(find "$i" -maxdepth 1 -type f -name "*.mxf" | head -n 1)
      if ! fuser -s "target/$i.mxf" && ! fuser -s "$file"; then
        mkdir -p target/ARCHIVE
        mv "target/$i.mxf" "target/ARCHIVE/$i.$(date +%Y%m%d%H%M%S)"
        mv "$file" "target/$i.mxf"
      fi
    done' 2>/dev/null; } 2>&1 9>&- |
    awk -v folders="$folders" '{ printf "%.0f\n", ($1 + $2) * 1e6 / folders }'
  rm -rf /mnt/shell
}

echo "Measuring without a load"
measure 0 'in_use_|pass_|delivery_'
echo "0 shell $(measure_shell)" >>"$results/all"
for size in 20x50 200x50 400x50 400x250; do
  processes=${size%x*} descriptors=${size#*x}
  echo "Measuring beside $processes processes with $descriptors descriptors each"
  start_load "$processes" "$descriptors"
  measure $((processes * descriptors)) in_use_
  if [ "$size" = 400x50 ]; then
    measure 20000 'delivery_service/1/'
    echo "20000 shell $(measure_shell)" >>"$results/all"
  fi
  stop_load
done

echo
uname -srm
grep -m 1 'model name' /proc/cpuinfo || true
status=0
awk -f scripts/bench-table.awk "$results/all" || status=$?
mkdir -p "$folder"
cp "$results/all" "$folder/figures.txt"
gnuplot -c scripts/bench.gnuplot "$folder"
exit "$status"
