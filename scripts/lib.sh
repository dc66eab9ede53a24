# What the scripts share. Sourced, not run.

# Runs a command as root: as it is for root, else through sudo.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Says at once, before anything takes time, that a command will need a right that is not to be had.
require_root() {
  [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null || {
    echo "This needs root, for $1: run it as root or install sudo."
    exit 1
  }
}

# Installs those of the given Debian packages that are missing; silent and at once when none is. Of
# packages joined by "|" the first that the release offers.
install_packages() {
  local choice package missing=()
  is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
  }
  for choice in "$@"; do
    for package in ${choice//|/ }; do
      is_installed "$package" && continue 2
    done
    missing+=("$choice")
  done
  [ "${#missing[@]}" -eq 0 ] && return
  require_root "installing packages"
  as_root apt-get update -qq
  echo "Installing: ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get satisfy -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages=(g++ cmake ninja-build 'libpcre3-dev|libpcre2-dev' libcpptoml-dev
  libboost-filesystem-dev)
test_packages=("${build_packages[@]}" libgtest-dev)
check_packages=(git clang-format clang-tidy clang libbenchmark-dev)

# Configures a build folder and builds the targets in the array `targets`, all when it is empty; the
# rest of the arguments go to the configuration. A folder that was configured with another generator
# keeps it.
build_in() {
  local folder=$1 log=$1/build.log
  shift
  if [ -f "$folder/CMakeCache.txt" ] &&
    ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$folder/CMakeCache.txt"; then
    echo "The build folder $folder is that of another checkout: remove it or set BUILD_DIR."
    return 1
  fi
  mkdir -p "$folder"
  echo "Building in $folder, the log is $log"
  { CMAKE_GENERATOR=Ninja cmake -S . -B "$folder" "$@" &&
    cmake --build "$folder" -j "$(nproc)" ${targets[0]:+--target "${targets[@]}"}; } 2>&1 |
    tee "$log" | show_progress || { cat "$log"; return 1; }
}
targets=()

# The builder's own progress: on a terminal in one line that is written over, else every 20th line.
show_progress() {
  if [ -t 1 ]; then
    awk '/^\[/ { printf "\r\033[K%.78s", $0; fflush() } END { print "" }'
  else
    awk '/^\[/ && ++n % 20 == 0 { print "  " $1; fflush() }'
  fi
}
