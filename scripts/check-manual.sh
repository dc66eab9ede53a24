#!/usr/bin/env bash
# docs/operating.md has each line that the service prints, in the words of the source.
set -euo pipefail
cd "$(dirname "$0")/.."

status=0
while IFS= read -r line; do
  if ! grep -qF -- "$line" docs/operating.md; then
    echo "docs/operating.md lacks: $line"
    status=1
  fi
done < <(grep -rohE --include='*.cpp' '(diag\(|syslog\([A-Z_]+, |fprintf\((out|stream), )"[^"]*"' \
  base platform config watch delivery service |
  sed -E 's/^[^"]*" *([^"]*)"$/\1/; s/\\n$//; s/%\.\*s/%s/; s/^(Watch|Target|Match pattern|Pattern|Ready|Entry)\b.*/\1/')
exit "$status"
