#!/usr/bin/env bash
# The manual has each line that the service prints, in the words of the source, and its transcript and
# its sample configuration are those of the README and of examples/.
set -euo pipefail
cd "$(dirname "$0")/.."

status=0
page=man/vel4_watch_folder_service.8
while IFS= read -r line; do
  if ! grep -qF -- "$line" "$page"; then
    echo "$page lacks: $line"
    status=1
  fi
done < <(grep -ohE '(diag\(|syslog\([A-Z_]+, |fprintf\((out|stream), )"[^"]*"' \
  {base,platform/*,config,watch,delivery,service}/*.cpp |
  sed -E 's/^[^"]*" *([^"]*)"$/\1/; s/\\n$//; s/%\.\*s/%s/; s/^ *(Watch|Target|Match pattern|Pattern|Ready|Entry)\b.*/\1/')

# The lines of the first block of a section that fences enclose, or that a man page shows as they are.
if ! diff <(sed -n '/^## The log/,/^## After/p' README.md |
  sed -n '/^```$/,/^```$/{/^```$/!p};/^# its own/q') \
  <(sed -n '/^\.Bd -literal$/,/^\.Ed$/{/^\./!p};/^# its own/q' "$page"); then
  echo "The transcripts of README.md and $page differ"
  status=1
fi
if ! diff examples/vel4_watch_folder.toml \
  <(sed -n '/^\.Bd -literal$/,/^\.Ed$/{/^\./!p}' man/vel4_watch_folder.toml.5); then
  echo "The sample configurations differ"
  status=1
fi
exit "$status"
