#!/usr/bin/env bash
# The long form of the fault tests: every system call of a delivery, every fitting error, every
# position, and a kill at every call. Argument: the build folder (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}"
folder=${1:-build}
build_in "$folder"
FAULTS=all scripts/own_processes.sh "$folder/tests/fault_test"
