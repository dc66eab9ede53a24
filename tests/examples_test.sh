#!/usr/bin/env bash
# The example that thins out ARCHIVE: old items go whole, whatever their names; all else stays.
set -euo pipefail
thin=$(realpath "$(dirname "$0")/../examples/thin-archive")
work=$(mktemp -d)
cd "$work"
trap 'rm -rf "$work"' EXIT
mkdir -p elsewhere ARCHIVE/.orphan.metadir ARCHIVE/folder other
for name in 'a b.mxf' -rf $'two\nlines' '*' .hidden; do
  mkdir "ARCHIVE/.$name.metadir" && touch "ARCHIVE/$name" "ARCHIVE/.$name.metadir/metadata"
done
touch ARCHIVE/linked elsewhere/kept
ln -s ../elsewhere ARCHIVE/.linked.metadir
ln -s ../elsewhere/kept ARCHIVE/link
ln -s ../elsewhere other/ARCHIVE
sleep 1.1 # the limit is in whole seconds; the files must be older
before=$(ls -AR)
"$thin" --dry-run 0 "$work/ARCHIVE" | grep -c '^Would remove' | grep -qx 6
"$thin" 1 "$work/ARCHIVE"
(! "$thin" 0 "$work/elsewhere" "$work/other/ARCHIVE" 2>/dev/null)
[ "$(ls -AR)" = "$before" ]
"$thin" 0 "$work/ARCHIVE" >/dev/null
[ "$(find ARCHIVE elsewhere | LC_ALL=C sort | xargs)" = \
  "ARCHIVE ARCHIVE/.orphan.metadir ARCHIVE/folder ARCHIVE/link elsewhere elsewhere/kept" ]
