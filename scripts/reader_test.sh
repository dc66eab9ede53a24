#!/usr/bin/env bash
# A reader of standard error that stops reading must not stop the passes, and one that is slow must not
# lose a line. Argument: the pass driver. Runs with the other tests.
set -euo pipefail
driver=$1
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir -p "$tree/watch" "$tree/target"
passes=1000
arguments=("$tree" "$tree/watch" "$tree/target/t" "$passes")

echo "A pipe that nobody reads"
mkfifo "$tree/pipe"
exec 3<>"$tree/pipe"
timeout 20 "$driver" "${arguments[@]}" 2>"$tree/pipe"
exec 3>&-

echo "A reader that takes byte after byte"
lines=0
while read -r _; do lines=$((lines + 1)); done < <(timeout 60 "$driver" "${arguments[@]}" 2>&1)
echo "$lines lines"
[ "$lines" -eq $((passes * 5)) ]

echo "A closed pipe, a full disk"
timeout 20 "$driver" "${arguments[@]}" 2> >(:)
timeout 20 "$driver" "${arguments[@]}" 2>/dev/full
