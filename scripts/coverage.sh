#!/usr/bin/env bash
# How much of the code the tests run: lines and branches of each folder. Exceptions that only a library
# could throw make no branches here.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" gcovr
# The pass driver stores its counts itself, since it is ended by a signal.
build_in build-coverage -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=-Wl,-u,__gcov_dump
find build-coverage -name '*.gcda' -delete
# What dies on purpose prints that it cannot store its counts, which its test does not expect.
FAULTS=all ctest --test-dir build-coverage --output-on-failure -E InUseDeathTest -j "$(nproc)" \
  >build-coverage/tests.log || { tail -n 40 build-coverage/tests.log; exit 1; }
for folder in compat platform config delivery watch service; do
  echo "$folder: $(gcovr --root . --filter "$folder/" --exclude-throw-branches --exclude-unreachable-branches \
    --print-summary build-coverage 2>/dev/null | grep -E '^(lines|branches)' | tr '\n' ' ')"
done
