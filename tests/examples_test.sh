#!/usr/bin/env bash
# The examples: what thins out ARCHIVE, and what reads the journal.
set -euo pipefail
examples=$(realpath "$(dirname "$0")/../examples")
work=$(mktemp -d) && cd "$work"
trap 'rm -rf "$work"' EXIT

# thin-archive: old items go whole, whatever their names; all else stays.
mkdir -p elsewhere other ARCHIVE/{folder,.orphan.metadir,.-rf.metadir,$'.two\nlines.metadir'}
touch ARCHIVE/{linked,./-rf,$'two\nlines',.-rf.metadir/metadata} elsewhere/kept
ln -s ../elsewhere ARCHIVE/.linked.metadir
ln -s ../elsewhere other/ARCHIVE
sleep 1.1 # the limit is in whole seconds; the files must be older
before=$(ls -AR)
"$examples/thin-archive" --dry-run 0 "$work/ARCHIVE" | grep -c '^Would remove' | grep -qx 3
(! "$examples/thin-archive" 0 "$work/elsewhere" "$work/other/ARCHIVE" 2>/dev/null)
[ "$(ls -AR)" = "$before" ]
"$examples/thin-archive" 0 "$work/ARCHIVE" >/dev/null
[ "$(find ARCHIVE elsewhere | LC_ALL=C sort | xargs)" = \
  "ARCHIVE ARCHIVE/.orphan.metadir ARCHIVE/folder elsewhere elsewhere/kept" ]

# log-filter.awk: each line of the document that tells what to do, once, with its entry, and no other.
awk -F ' *[|] *' '/^## The log/ { print "No check began: is the service active, the main storage mounted?" >"wanted"; exit }
  /^\| `/ && !/Checking[.]/ { sub(/`/, "", $2); sub(/`.*/, "", $2); gsub(/%[sud]/, "/a.toml", $2)
    print "Nov 26 04:00:00 studio x[7]: " $2 >"lines"
    if ($2 ~ /^Checking .\/a/) entry = substr($2, 10) ": "
    if ($4 != "") print "Nov 26 04:00:00 " ($2 ~ /^Warning/ ? "" : entry) $2 >"wanted" }' "$examples/../docs/operating.md"
awk -v waiting=1 -f "$examples/log-filter.awk" lines lines | diff - wanted

# watch-folder-status, with journalctl and date replaced: an entry that waits again after a check in which
# it did not, one that is gone, one that fails.
install /dev/stdin journalctl <<<'cat'
install /dev/stdin date <<<'echo "$NOW"'
export PATH=$work:$examples:$PATH NOW=20000
awk -F ';' '{ for (i = 2; i <= NF; ++i) print $1 ".5 studio x[7]: " $i }' >log <<<"\
10000;Checking... ;Checking 'gone' in '/b';Metadir fail;Checking 'news' in '/a';File '/x' is in use, not acting;Checking... ;Checking 'news' in '/a'
17300;Checking... ;Checking 'news' in '/a';File '/x' is running, not acting
19960;Checking... ;Checking 'news' in '/a';File '/x' is in use, not acting;Checking 'say \"\|\"' in '/c';* cannot scan directory, I/O"
diff - <(watch-folder-status <log || watch-folder-status -p <log | grep -v '^#\| 0$') <<'END'
WATCH FOLDERS CRITICAL - 2 entries, 1 fail, 1 wait, the longest for 45 min | failing=1;;0 waiting=1 longest_wait=2700s;1800;7200 check_age=40s;150;300
news: File '/x' is in use, not acting
say "\?": * cannot scan directory, I/O
vel4_watch_folder_last_check_timestamp_seconds 19960
vel4_watch_folder_entry_failing{entry="say \"\\|\""} 1
vel4_watch_folder_entry_waiting_since_timestamp_seconds{entry="news"} 17300
END
for run in '0 /acting|I.O/d' '1 /I.O/d' '2 /acting|I.O/d;s/^19/13/' '2 /acting/d;s/[*].*/x.service: Failed with result 1/' '2 /Checking .[ns]/d' '3 s/.*/Hint/'; do
  [ "$(sed -E "${run#* }" log | watch-folder-status >/dev/null; echo $?)" = "${run%% *}" ]
done
