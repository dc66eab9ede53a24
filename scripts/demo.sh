#!/usr/bin/env bash
# Shows the service at work, on real files: it installs the packages that it needs, builds, and delivers
# in a private mount namespace. With arguments it runs the service itself with them.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

folder=${BUILD_DIR:-build}
service=$(realpath -m "$folder")/vel4_watch_folder_service

# A second of a tone as a WAV file: write_wav FILE HERTZ
write_wav() {
  printf '%b' "$(awk -v hertz="$2" '
    function byte(value) { printf "\\0%03o", value }
    function number(value, bytes) {
      for (; bytes > 0; --bytes) { byte(value % 256); value = int(value / 256) }
    }
    BEGIN {
      rate = samples = 8000
      printf "RIFF"; number(36 + samples, 4); printf "WAVEfmt "; number(16, 4)
      number(1, 2); number(1, 2); number(rate, 4); number(rate, 4); number(1, 2); number(8, 2)
      printf "data"; number(samples, 4)
      for (i = 0; i < samples; ++i) byte(128 + 100 * sin(6.283185 * hertz * i / rate))
    }')" >"$1"
}

heading() { printf '\n== %s\n' "$1"; }

# The tree; of a media file its size and the start of its checksum, of metadata the text.
show_tree() {
  (cd /mnt/main && find . -mindepth 1 | LC_ALL=C sort | while IFS= read -r item; do
    if [ -d "$item" ]; then
      printf '  %s/\n' "${item#./}"
    elif [ "$(basename "$item")" = metadata ]; then
      printf '  %s: %s\n' "${item#./}" "$(tr '\n' ';' <"$item")"
    else
      printf '  %s (%s bytes, %s)\n' "${item#./}" "$(stat -c %s "$item")" \
        "$(md5sum <"$item" | cut -c 1-8)"
    fi
  done)
}

lay_out_storage() {
  mkdir -p /mnt/main/Upload/{evening,news,weather} /mnt/main/Play
  # A first delivery: nothing stands at Play/evening yet.
  write_wav /mnt/main/Upload/evening/show.wav 440
  mkdir /mnt/main/Upload/evening/.show.wav.metadir
  printf 'title=The evening show\n' >/mnt/main/Upload/evening/.show.wav.metadir/metadata
  # A replacement: Play/news was delivered this morning, under another name.
  write_wav /mnt/main/Play/news 330
  mkdir /mnt/main/Play/.news.metadir
  printf 'title=Morning news\noriginal filename=morning.wav\n' >/mnt/main/Play/.news.metadir/metadata
  write_wav /mnt/main/Upload/news/noon.wav 550
  # A refusal: another process is still writing this one.
  write_wav /mnt/main/Upload/weather/map.wav 660
}

demonstrate() {
  mount -t tmpfs none /mnt
  mount -t tmpfs none /run
  lay_out_storage
  local lines=/run/lines
  # Not local: the trap needs them after the function has ended.
  sleep 60 >>/mnt/main/Upload/weather/map.wav &
  writer=$!

  heading "Before: Upload/ holds the watch folders, Play/ what is on air"
  show_tree
  heading "The service: vel4_watch_folder_service --directory /mnt/main"
  mkfifo "$lines"
  "$service" --directory /mnt/main >"$lines" 2>&1 &
  daemon=$!
  trap 'kill "$writer" "$daemon" 2>/dev/null || true' EXIT
  # The first check comes one second after the start. Its three folders end in one of these lines; then
  # the service is stopped, and its last lines are read to the end.
  local done_folders=0 line
  while IFS= read -r line; do
    printf '  %s\n' "$line"
    case $line in already=* | *'not acting') done_folders=$((done_folders + 1)) ;; esac
    if [ "$done_folders" -eq 3 ]; then
      kill -TERM "$daemon"
      done_folders=0
      heading "All three folders are done; SIGTERM, and the service lists its descriptors and ends"
    fi
  done <"$lines"
  local status=0
  wait "$daemon" || status=$?
  heading "After: exit status $status"
  show_tree
  [ "$status" -eq 0 ] || exit "$status"
  cat <<'END'

What happened:
  evening  was delivered: Play/evening, with its metadata, and a note of its name in the watch folder.
  news     was replaced: the old item is in Play/ARCHIVE under the name it was delivered with.
  weather  was left alone: another process has the file open. It is tried again at the next check.
END
}

if [ "${1:-}" = --in-private-namespace ]; then
  demonstrate
  exit
fi
if [ $# -eq 0 ]; then
  require_root "a mount namespace of its own"
  as_root unshare --mount true || {
    echo "No mount namespace can be had here; the demonstration needs one."
    exit 1
  }
fi
install_packages "${build_packages[@]}"
targets=(vel4_watch_folder_service)
build_in "$folder" -DBUILD_TESTING=OFF
[ $# -eq 0 ] || exec "$service" "$@"
as_root env BUILD_DIR="$folder" unshare --mount bash scripts/demo.sh --in-private-namespace
