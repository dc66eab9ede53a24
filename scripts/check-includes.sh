#!/usr/bin/env bash
# Includes point one way: service -> watch -> delivery -> config -> platform -> compat. The one exception
# is the main storage gate, which the watch folder asks. The tools stand above all.
set -euo pipefail
cd "$(dirname "$0")/.."

folders=(compat platform config delivery watch service tools)
status=0
for i in "${!folders[@]}"; do
  allowed="${folders[*]:0:i+1}"
  if grep -nE '^#include "(compat|platform|config|delivery|watch|service|tools)/' -r "${folders[i]}" |
    grep -vE "#include \"(${allowed// /|})/" | grep -vE '^watch/.*"service/main_storage\.h"'; then
    status=1
  fi
done
exit "$status"
