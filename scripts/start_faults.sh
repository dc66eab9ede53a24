#!/usr/bin/env bash
# Every system call of the service's start, reload and stop fails once, with each of a few errors, in
# namespaces of its own for mounts and processes. Each life has to end by itself, and one that did not
# go through says why. Argument: the build folder (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${test_packages[@]}" strace
folder=${1:-build}
build_in "$folder"
if [ -z "${FAULTS_NAMESPACE:-}" ]; then
  exec env FAULTS_NAMESPACE=1 unshare --mount --pid --fork --kill-child --mount-proc "$0" "$folder"
fi
mount -t tmpfs tmpfs /mnt
cp "$folder/vel4_watch_folder_service" /mnt/service
mount -t tmpfs tmpfs /etc
mount -t tmpfs tmpfs /run
[ ! -e /dev/log ] || { touch /run/log && mount --bind /run/log /dev/log; }
mkdir -p /mnt/main/watch
cat >/etc/vel4_watch_folder.toml <<'TOML'
[event]
"watch path" = "/mnt/main/watch"
"match pattern" = "x"
"target file" = "/mnt/main/news.mxf"
TOML
cd /mnt

# One life: the signal to reload comes with the last handler, the one to stop with the first wait, which
# takes no time. Arguments: more for strace.
live() {
  timeout -s KILL 20 strace -o calls -e "inject=rt_sigaction:signal=HUP:when=${handlers:-1000}" \
    -e inject=clock_nanosleep:retval=0:signal=TERM:when=1 "$@" ./service >out 2>lines
}

# Was it served, reloaded and stopped, or is there a line that says why not?
is_explained() {
  case $1 in
  0) grep -q '^Reloading config' lines &&
    grep -q "^Added section 'event'\$\|^Warning: Configuration load failure" <(sed '1,/^Reloading/d' lines) ||
    grep -q '^No configuration path, exiting$' lines ;;
  1) grep -q '^Failed to load\|^Nothing to watch\|^Unable to write PID file\|already running' lines ;;
  *) false ;;
  esac
}

live
handlers=$(grep '^rt_sigaction' calls | grep -n '^rt_sigaction(SIGHUP' | tail -n 1 | cut -d : -f 1)
live && is_explained 0
# The calls of main, each with its number among those of its name: "NAME NUMBER". Those left out cannot
# fail, or take the signals along.
declare -A count
in_main=
while IFS= read -r call; do
  name=${call%%(*}
  count[$name]=$((${count[$name]:-0} + 1))
  [[ $call != "fcntl(0, F_GETFD"* ]] || in_main=1
  [ -z "$in_main" ] || echo "$name ${count[$name]}"
done < <(grep '^[a-z_0-9]*(' calls) |
  grep -v '^rt_sig\|^clock_nanosleep\|^exit_group\|^brk\|^mmap\|^munmap\|^getpid\|^futex' >all
runs=0 failed=0
while read -r name number; do
  for error in EIO EACCES EMFILE EINTR; do
    rm -f /run/*.pid
    status=0
    live -e "inject=$name:error=$error:when=$number" || status=$?
    runs=$((runs + 1))
    left=$(ls /run/*.pid 2>/dev/null || true)
    if { ! is_explained "$status" && [ "$name" != write ]; } || [ "$status" -gt 1 ] ||
      { [ -n "$left" ] && [ "$name" != unlink ]; }; then
      failed=$((failed + 1))
      echo "$name $number $error: status $status $left"
      cat lines
    fi
  done
done <all
echo "$runs lives, $failed not explained"
live && is_explained 0 && [ "$failed" -eq 0 ]
