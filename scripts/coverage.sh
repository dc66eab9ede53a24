#!/usr/bin/env bash
# How much of the code the tests run: lines and branches of each folder. Exceptions that only a library
# could throw make no branches here.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" gcovr
# What ends without the destructors of the program stores its counts first.
mkdir -p build-coverage
cat >build-coverage/store_counts.h <<'EOF'
#ifdef __cplusplus
#include <unistd.h>
extern "C" void __gcov_dump();
#define _exit(status) (__gcov_dump(), _exit(status))
#endif
EOF
build_in build-coverage -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS="--coverage -include $PWD/build-coverage/store_counts.h"
find build-coverage -name '*.gcda' -delete
ctest --test-dir build-coverage --output-on-failure -j "$(nproc)" \
  >build-coverage/tests.log || { tail -n 40 build-coverage/tests.log; exit 1; }
for folder in base platform config delivery watch service; do
  echo "$folder: $(gcovr --root . --filter "$folder/" --exclude-throw-branches --exclude-unreachable-branches \
    --print-summary build-coverage 2>/dev/null | grep -E '^(lines|branches)' | tr '\n' ' ')"
done
