#!/usr/bin/env bash
# The example for two machines, as far as it goes without them: pcs takes its commands, the configuration
# verifies, and in a simulation storage and service go to the other node when theirs fails. The tools of
# the cluster are installed in a root that is thrown away: on the machine their daemons would start.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
. scripts/lib.sh

if [ "${1-}" = --in-root ]; then
  cd /tmp
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    pcs pacemaker-cli-utils >log 2>&1 || { cat log; exit 1; }
  # The agent of a unit can be asked only where systemd runs, hence --force for it.
  mkdir bin
  cat >bin/pcs <<'END'
#!/bin/sh
case " $* " in *" systemd:"*) set -- "$@" --force ;; esac
exec /usr/sbin/pcs -f /tmp/cluster.xml "$@"
END
  chmod +x bin/pcs
  PATH=/tmp/bin:$PATH
  cibadmin --empty >cluster.xml
  sh cluster.sh >log 2>&1 || { cat log; exit 1; }
  pcs property set stonith-enabled=false
  crm_verify -V -x cluster.xml
  simulate() { crm_simulate --simulate --quorum=1 "$@"; }
  simulate -x cluster.xml --node-up node1 --node-up node2 -O probed.xml >/dev/null
  simulate -x probed.xml -O started.xml >on-node1
  simulate -x started.xml --node-fail node1 >on-node2
  for node in 1 2; do
    [ "$(tail -n 3 "on-node$node" | grep -c "media_.*Started node$node")" = 2 ] ||
      { cat "on-node$node"; exit 1; }
  done
  exit
fi
layer=$(mktemp -d)
trap 'rmdir "$layer"' EXIT
as_root apt-get update -qq
as_root unshare --mount --pid --fork bash -euo pipefail -c '
  layer=$0
  mount -t tmpfs none "$layer"
  mkdir "$layer"/{root,upper,work}
  mount -t overlay -o "lowerdir=/,upperdir=$layer/upper,workdir=$layer/work" none "$layer/root"
  for folder in mnt tmp dev; do mount -t tmpfs none "$layer/root/$folder"; done
  for device in null:3 zero:5 urandom:9; do
    mknod -m 666 "$layer/root/dev/${device%:*}" c 1 "${device#*:}"
  done
  mount -t proc none "$layer/root/proc"
  echo "exit 101" | install /dev/stdin "$layer/root/usr/sbin/policy-rc.d"
  mkdir "$layer/root/tmp/scripts"
  cp examples/cluster.sh "$layer/root/tmp/"
  cp scripts/lib.sh scripts/check-cluster.sh "$layer/root/tmp/scripts/"
  chroot "$layer/root" bash /tmp/scripts/check-cluster.sh --in-root' "$layer"
echo "The cluster takes the example"
