#!/bin/sh
# Lets Pacemaker run the watch folder service on one of two machines with a shared disk. Read it, put your
# disk in, and run it once, on one node. Before that prepare both nodes as operating.md says, "Two machines
# on one storage", and set the cluster up, with fencing: nothing starts without it, and two machines that
# mount one disk destroy it.
set -e

# Only the cluster mounts it: no line in /etc/fstab.
device=/dev/disk/by-label/main
type=ext4

# The main storage. A monitor of level 20 writes a file, and so notices a storage that went read-only.
pcs resource create media_storage ocf:heartbeat:Filesystem \
    device="$device" directory=/mnt/main fstype="$type" \
    op start timeout=120s op stop timeout=120s op monitor interval=20s OCF_CHECK_LEVEL=20 \
    --group media

# The service, on the node of the storage, started after it and stopped before it. A stop waits for the
# check that is under way, for which the unit has ten minutes; a stop that takes longer than the timeout
# here fences the node.
pcs resource create media_service systemd:vel4_watch_folder_service \
    op start timeout=120s op stop timeout=660s op monitor interval=15s \
    --group media

# The group stays where it is when the other node comes back, and leaves after three faults, which are
# forgotten after ten minutes without one.
pcs resource meta media resource-stickiness=100 migration-threshold=3 failure-timeout=10min
