#!/usr/bin/env bash
# Installs what the tests need, builds, and runs all tests. Arguments go to ctest; BUILD_DIR is the build
# folder (default: build).
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

folder=${BUILD_DIR:-build}
install_packages "${test_packages[@]}"
build_in "$folder" --preset tests
ctest --test-dir "$folder" --output-on-failure -j "$(nproc)" "$@"
