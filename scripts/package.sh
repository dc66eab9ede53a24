#!/usr/bin/env bash
# Builds the Debian package outside of the checkout, judges it with Debian's own tools, then installs,
# uses, upgrades, removes and purges it in a root that is thrown away. Installs what it needs.
# --keep FOLDER copies the package there.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

keep=
[ "${1-}" = --keep ] && keep=$(realpath "$2")
install_packages "${build_packages[@]}" git build-essential pkgconf 'systemd-dev|systemd' dpkg-dev debhelper lintian mandoc systemd bash-completion

checkout=$PWD
work=$(mktemp -d)
trap 'as_root rm -rf "$work"' EXIT
mkdir "$work/source"
git ls-files -z | tar -c --null -T - | tar -x -C "$work/source"

echo "Building the package"
(cd "$work/source" &&
  DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -us -uc -b) >"$work/log" 2>&1 ||
  { cat "$work/log"; exit 1; }
package=$(echo "$work"/vel4-watch-folder_*.deb)
dpkg-deb --info "$package" | sed -n 's/^ \(Version\|Installed-Size\|Depends\): /  &/p'

echo "lintian"
lintian --pedantic --fail-on error,warning,pedantic "$work"/*.changes

dpkg-deb -x "$package" "$work/content"
if grep -rlF -e "$work" -e "$checkout/" "$work/content"; then
  echo "These name a folder of the machine that built them"
  exit 1
fi

echo "Installing into a root of its own"
cp scripts/package-root.sh "$work/"
as_root unshare --mount --pid --fork bash -euo pipefail -c '
  mkdir "$0/root" "$0/layer"
  mount -t tmpfs none "$0/layer"
  mkdir "$0/layer/upper" "$0/layer/work"
  mount -t overlay -o "lowerdir=/,upperdir=$0/layer/upper,workdir=$0/layer/work" none "$0/root"
  for folder in run mnt tmp dev; do mount -t tmpfs none "$0/root/$folder"; done
  for device in null:3 zero:5 urandom:9; do
    mknod -m 666 "$0/root/dev/${device%:*}" c 1 "${device#*:}"
  done
  mount -t proc none "$0/root/proc"
  cp "$1" "$0/package-root.sh" "$0/root/tmp/"
  rm -f "$0/root/etc/vel4_watch_folder.toml"
  chroot "$0/root" bash /tmp/package-root.sh "/tmp/$(basename "$1")"
  # What the layer holds now is what all of it has left behind, but for the records of dpkg and of the
  # index of the manual.
  cd "$0/layer/upper"
  if find . -type f | grep -vE "^\./var/(lib/dpkg|log|cache)/"; then
    echo "These stayed behind"
    exit 1
  fi' "$work" "$package"
[ -z "$keep" ] || cp "$package" "$keep"
echo "The package is good"
