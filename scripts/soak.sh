#!/usr/bin/env bash
# A long life on a fast clock: passes with deliveries, storms of reloads, rescans and jumping clocks, in
# namespaces of its own for mounts and processes. Then, a tenth as long each, with standard error a pipe
# that nobody reads, a closed pipe and a full disk; 200 passes that look at 2,000 processes and others
# that come and go.
# Arguments: PASSES (default: 10000) [BUILD [WRAPPER...]]; a wrapper is a program to run the driver
# under, valgrind say.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}"
passes=${1:-10000}
folder=${2:-build}
wrapper=("${@:3}")
build_in "$folder"
if [ -z "${SOAK_NAMESPACE:-}" ]; then
  exec env SOAK_NAMESPACE=1 unshare --mount --pid --fork --kill-child --mount-proc "$0" "$passes" "$folder" "${wrapper[@]}"
fi
mount -t tmpfs tmpfs /mnt
trap 'jobs -p | xargs -r kill 2>/dev/null' EXIT
tree=0

soak() {
  tree=$((tree + 1))
  mkdir -p "/mnt/main/$tree"
  timeout 3000 "${wrapper[@]}" "$folder/tests/soak_driver" "/mnt/main/$tree" "$passes"
}

echo "== To a file"
if [ ${#wrapper[@]} -gt 0 ]; then
  soak 2>/mnt/lines || true # the wrapper's own memory may grow
  grep -a '^==[0-9]' /mnt/lines || echo "${wrapper[0]} is silent"
  exit
fi
soak 2>/mnt/lines
passes=$((passes < 2000 ? 200 : passes / 10))
echo "== To a pipe that nobody reads"
mkfifo /mnt/pipe
sleep 3600 <>/mnt/pipe &
exec 9>/mnt/pipe
soak 2>&9
echo "== To a closed pipe"
soak 2> >(:)
echo "== To a full disk"
soak 2>/dev/full
passes=200
echo "== On an overlay, where the processes are asked: 2,000 that stay and others that come and go"
mkdir -p /mnt/lower /mnt/upper /mnt/work "/mnt/main/$((tree + 1))"
mount -t overlay -o lowerdir=/mnt/lower,upperdir=/mnt/upper,workdir=/mnt/work overlay "/mnt/main/$((tree + 1))"
for _ in $(seq 2000); do sleep 3600 & done
while :; do for _ in 1 2 3 4 5 6 7 8; do /bin/true & done; wait -n; done 2>/dev/null &
soak 2>/mnt/lines
echo "$(grep -ac '^already=' /mnt/lines) deliveries, $(grep -ac 'is in use' /mnt/lines) refused as in use"
