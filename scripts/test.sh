#!/usr/bin/env bash
# Installs what the tests need, builds, and runs all tests. Arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}"
echo "Building"
build_in build
ctest --test-dir build --output-on-failure -j "$(nproc)" "$@"
