#!/usr/bin/env bash
# What takes seconds: the formatter, the direction of the includes, the lines in the manual. As a hook before
# each commit: ln -s ../../scripts/lint.sh .git/hooks/pre-commit
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
status=0

# Each release of the formatter judges otherwise; that of Debian 12 counts.
if clang-format --version 2>/dev/null | grep -q 'version 14\.'; then
  git ls-files -z '*.cpp' '*.h' '*.hpp' | xargs -0 clang-format --dry-run --Werror || status=1
else
  echo "clang-format: left out, it is not of release 14"
fi

# Includes point one way: check, service -> watch -> delivery -> config -> platform/include -> base. The
# one exception is the main storage gate, which watch/ and delivery/ ask; it asks watch/ for a path.
folders=(base platform config delivery watch service check)
for i in "${!folders[@]}"; do
  allowed="${folders[*]:0:i+1}"
  [ "$i" -le 1 ] || allowed=${allowed/platform/platform/include}
  if grep -nE '^#include "[a-z]+/' -r "${folders[i]}" |
    grep -vE "#include \"(${allowed// /|})/" | grep -vE '^(watch|delivery)/.*"service/main_storage\.h"'; then
    echo "Includes point one way: these do not"
    status=1
  fi
done

# docs/operating.md has each line that the service prints, in the words of the source.
while IFS= read -r line; do
  if ! grep -qF -- "$line" docs/operating.md; then
    echo "docs/operating.md lacks: $line"
    status=1
  fi
done < <(grep -rohE --include='*.cpp' '((diag\(|syslog\([A-Z_]+, |fprintf\((out|stream), )"|"Cannot )[^"]*"' \
  base platform config watch delivery service |
  sed -E 's/^[^"]*" *([^"]*)"$/\1/; s/\\n$//; s/%\.\*s/%s/; s/^(Watch|Target|Match pattern|Pattern|Ready|Entry)\b.*/\1/')
exit "$status"
