#!/usr/bin/env bash
# Builds the Debian package and its source package outside of the checkout, twice: the same bytes have to
# come out. Judges them with Debian's own tools, then installs, uses, upgrades, removes and purges the
# package in a root that is thrown away. Installs what it needs. --keep FOLDER copies the package there.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

keep=
[ "${1-}" = --keep ] && keep=$(realpath "$2")
install_packages "${build_packages[@]}" git build-essential dpkg-dev debhelper lintian mandoc systemd bash-completion

. /etc/os-release
checkout=$PWD
work=$(mktemp -d)
trap 'as_root rm -rf "$work"' EXIT

# Builds in a folder of the given name, in a time zone and a locale. What is built for one release differs
# from what is built for another, and so does its version.
build_package() {
  local source=$work/$1/source
  echo "Building the package, time zone $2, locale $3"
  mkdir -p "$source"
  git ls-files -z | tar -c --null -T - | tar -x -C "$source"
  sed -i "1s/) [a-z]*;/~deb$VERSION_ID) $VERSION_CODENAME;/" "$source/debian/changelog"
  (cd "$source" &&
    TZ=$2 LC_ALL=$3 DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -us -uc) >"$work/log" 2>&1 ||
    { cat "$work/log"; exit 1; }
}
build_package package EAST-14 C
build_package the/same/again WEST+12 C.UTF-8
for file in "$work"/package/*.{deb,dsc}; do
  cmp "$file" "$work/the/same/again/$(basename "$file")"
done
package=$(echo "$work"/package/*.deb)
dpkg-deb --info "$package" | sed -n 's/^ \(Version\|Installed-Size\|Depends\): /  &/p'

echo "lintian"
lintian --pedantic --fail-on error,warning,pedantic "$work"/package/*.changes

dpkg-deb -x "$package" "$work/content"
if grep -rlF -e "$work" -e "$checkout/" "$work/content"; then
  echo "These name a folder of the machine that built them"
  exit 1
fi

echo "Installing into a root of its own"
cp scripts/package-root.sh debian/tests/delivery "$work/"
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
  cp "$1" "$0/package-root.sh" "$0/delivery" "$0/root/tmp/"
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
