# What the scripts share. Sourced, not run.

# Runs a command as root: as it is for root, else through sudo.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs those of the given Debian packages that are missing; silent and at once when none is.
install_packages() {
  local package missing=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return
  echo "Installing: ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages=(g++ cmake ninja-build libpcre3-dev libcpptoml-dev libboost-filesystem-dev
  libboost-system-dev)
test_packages=("${build_packages[@]}" libgtest-dev)
check_packages=(clang-format clang-tidy clang libbenchmark-dev)

# Configures and builds a build folder; the rest of the arguments go to the configuration. A folder that
# was configured with another generator keeps it.
build_in() {
  local folder=$1 generator=(-G Ninja) log=$1/build.log
  shift
  [ -f "$folder/CMakeCache.txt" ] && generator=()
  mkdir -p "$folder"
  if ! { cmake -S . -B "$folder" "${generator[@]}" "$@" &&
    cmake --build "$folder" -j "$(nproc)"; } >"$log" 2>&1; then
    cat "$log"
    return 1
  fi
}
