#!/usr/bin/env bash
# How much of the code the tests run: lines and branches of each folder. Exceptions that only a library
# could throw make no branches here.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" gcovr
# A test that changes its user stores its counts too.
umask 0
# The pass driver stores its counts itself, since it is ended by a signal.
build_in build-coverage -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=-Wl,-u,__gcov_dump
find build-coverage -type d -exec chmod a+rwx {} +
find build-coverage -name '*.gcda' -delete
FAULTS=all ctest --test-dir build-coverage --output-on-failure -j "$(nproc)" \
  >build-coverage/tests.log || { tail -n 40 build-coverage/tests.log; exit 1; }
for folder in compat platform config delivery watch service; do
  echo "$folder: $(gcovr --root . --filter "$folder/" --exclude-throw-branches --exclude-unreachable-branches \
    --print-summary build-coverage 2>/dev/null | grep -E '^(lines|branches)' | tr '\n' ' ')"
done
