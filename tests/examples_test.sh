#!/usr/bin/env bash
# The example that thins out ARCHIVE: old items go whole, whatever their names; all else stays.
set -euo pipefail
thin=$(dirname "$0")/../examples/thin-archive
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
archive=$work/ARCHIVE
mkdir "$archive" "$work/elsewhere" "$archive/.orphan.metadir" "$archive/folder"
for name in 'a b.mxf' -rf $'two\nlines' '*' .hidden; do
  mkdir "$archive/.$name.metadir" && touch "$archive/$name" "$archive/.$name.metadir/metadata"
done
touch "$archive/linked" "$work/elsewhere/kept" && ln -s ../elsewhere "$archive/.linked.metadir"
ln -s ../elsewhere/kept "$archive/link"
sleep 1.1 # older than the second in which it runs, the clock of the limit
before=$(ls -AR "$work")
"$thin" --dry-run 0 "$archive" | grep -c '^Would remove' | grep -qx 6
"$thin" 1 "$archive"
[ "$(ls -AR "$work")" = "$before" ]
"$thin" 0 "$archive" >/dev/null
[ "$(cd "$work" && find . | sort | xargs)" = \
  ". ./ARCHIVE ./ARCHIVE/.orphan.metadir ./ARCHIVE/folder ./ARCHIVE/link ./elsewhere ./elsewhere/kept" ]
(! "$thin" 0 "$work/elsewhere" 2>/dev/null)
