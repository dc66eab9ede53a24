#!/usr/bin/env bash
# Cross-builds the package and the tests for arm64 in a root of its own, without a warning, and runs the
# tests that qemu-user can run. It cannot start a second program, ask the kernel for sockets, or end the
# first thread of several; lives with faults and big metadata take it minutes.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

require_root "a root of its own"
install_packages git debootstrap
work=$(mktemp -d /var/tmp/arm64.XXXXXX)
trap 'as_root rm -rf "$work"' EXIT

. /etc/os-release
mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $VERSION_CODENAME" | sed -n 1p)
echo "Making the root, Debian $VERSION_CODENAME"
as_root debootstrap --variant=minbase "$VERSION_CODENAME" "$work/root" "$mirror" >"$work/log" ||
  { cat "$work/log"; exit 1; }
as_root mkdir "$work/root/source"
git ls-files -z | tar -c --null -T - | as_root tar -x -C "$work/root/source"

as_root unshare --mount bash -euo pipefail -c '
  mount -t proc none "$0/proc"
  mount --rbind /dev "$0/dev"
  chroot "$0" bash -euo pipefail' "$work/root" <<'END'
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
export CC=aarch64-linux-gnu-gcc CXX=aarch64-linux-gnu-g++ DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)"
quietly() { "$@" >/log 2>&1 </dev/null || { cat /log; exit 1; }; }
no_warning() { ! grep 'warning:' /log | grep -v '^dpkg-shlibdeps:'; }
cd /source

echo "Installing the compiler and the libraries"
dpkg --add-architecture arm64
quietly apt-get update
quietly apt-get build-dep -y --no-install-recommends --host-architecture arm64 ./
quietly apt-get install -y --no-install-recommends crossbuild-essential-arm64 libgtest-dev:arm64 \
  ninja-build qemu-user

echo "Building the package"
quietly dpkg-buildpackage --host-arch arm64 -Pcross -us -uc -b
no_warning
dpkg-deb --info ../*.deb | sed -n 's/^ \(Version\|Architecture\|Depends\): /  &/p'

echo "Building and running the tests"
quietly cmake -G Ninja -S . -B build -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64 \
  -DCMAKE_CROSSCOMPILING_EMULATOR=/usr/bin/qemu-aarch64
quietly cmake --build build
no_warning
ctest --test-dir build --output-on-failure -j "$(nproc)" </dev/null \
  -E '^(Start|Daemon|Faults|SocketServer)\.|LinkToIdleSocket|BigFile|AfterTheFirstThread'
END
