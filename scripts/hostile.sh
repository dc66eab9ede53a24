#!/usr/bin/env bash
# Passes over a watch folder as fast as they go, with the target in a folder below it, while a hostile
# writer swaps everything there; a canary tree beside it must not change, and no pass may wait. Then
# 100,000 files in one folder, and metadata of 8 MiB. Arguments: SWAPS (default: 1000000) [BUILD].
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" time
swaps=${1:-1000000}
folder=${2:-build}
build_in "$folder" 
tree=$(mktemp -d)
trap 'kill "${driver:-}" 2>/dev/null || true; rm -rf "$tree"' EXIT
main=$tree/main watch=$tree/main/watch canary=$tree/canary
mkdir -p "$watch/out" "$canary/.news.mxf.metadir" "$canary/folder"
echo canary | tee "$canary/news.mxf" "$canary/.news.mxf.metadir/metadata" >"$canary/folder/file"

# Everything there is to know of the canary: kinds, times, content.
picture() {
  find "$canary" -printf '%p %y %m %u %s %T@ %C@ %l\n' | sort
  find "$canary" -type f -exec sha256sum {} +
}

picture >"$tree/before"
"$folder/tests/pass_driver" "$main" "$watch" "$watch/out/news.mxf" 1000000000 2>"$tree/lines" &
driver=$!
start=$(date +%s)
"$folder/tests/hostile_writer" "$watch" "$canary" "$swaps" 1 &
writer=$!
passes=0 before=0
while kill -0 "$writer" 2>/dev/null; do
  sleep 5
  kill -0 "$driver" || { echo "the driver has ended"; exit 1; }
  now=$(grep -ac '^Checking\.\.\.' "$tree/lines" || true)
  [ "$now" -gt 0 ] || { echo "no pass in five seconds"; exit 1; }
  passes=$((passes + now))
  # Only the driver appends; what was counted may go.
  grep -ao '^Checking found\|^Metadir fail\|^Cannot [^,]*\|^Path(s) do not\|^Target meta.*\|is running\|in use' \
    "$tree/lines" >>"$tree/kinds" || true
  truncate -s 0 "$tree/lines"
done
wait "$writer"
kill "$driver"
picture | diff "$tree/before" - || { echo "the canary has changed"; exit 1; }
echo "$passes passes in $(($(date +%s) - start)) s, canary untouched; what they met:"
sort "$tree/kinds" | uniq -c | sort -rn

rm -rf "$watch" && mkdir -p "$watch/out"
(cd "$watch" && seq -f 'file%.0f.txt' 100000 | xargs touch)
echo "100,000 files that do not match:"
/usr/bin/time -f '%e s, %M KiB' "$folder/tests/pass_driver" "$main" "$watch" "$watch/out/news.mxf" 1 2>&1 |
  tail -n 1
rm -rf "$watch" && mkdir -p "$watch/.a.mxf.metadir" "$watch/out" && echo media >"$watch/a.mxf"
for text in $'x=y\n' $'\n' $'a\n' '='; do
  { yes "${text%$'\n'}" || true; } | head -c 8000000 >"$watch/.a.mxf.metadir/metadata"
  echo "Metadata of 8,000,000 bytes, lines \"${text%$'\n'}\":"
  /usr/bin/time -f '%e s, %M KiB' "$folder/tests/pass_driver" "$main" "$watch" "$watch/out/news.mxf" 1 \
    2>"$tree/lines" || { tail -n 3 "$tree/lines"; exit 1; }
  tail -n 1 "$tree/lines"
  [ "$(tail -n 1 "$watch/out/.news.mxf.metadir/metadata")" = "original filename=a.mxf" ]
  rm -rf "$watch" && mkdir -p "$watch/.a.mxf.metadir" "$watch/out" && echo media >"$watch/a.mxf"
done
