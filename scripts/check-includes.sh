#!/usr/bin/env bash
# Includes point one way: check, service -> watch -> delivery -> config -> platform/include -> base. The
# one exception is the main storage gate, which watch/ and delivery/ ask.
set -euo pipefail
cd "$(dirname "$0")/.."

folders=(base platform config delivery watch service check)
status=0
for i in "${!folders[@]}"; do
  allowed="${folders[*]:0:i+1}"
  [ "$i" -le 1 ] || allowed=${allowed/platform/platform/include}
  if grep -nE '^#include "[a-z]+/' -r "${folders[i]}" |
    grep -vE "#include \"(${allowed// /|})/" | grep -vE '^(watch|delivery)/.*"service/main_storage\.h"'; then
    status=1
  fi
done
exit "$status"
