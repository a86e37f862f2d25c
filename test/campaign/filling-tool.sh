#!/bin/sh
# qvexfat-test run while something else fills the filesystem that holds
# the campaign's image (the case's tmpfs, at $QVEXFAT_SCRATCH/mnt), as
# another program filling the board's card would: the volume test's
# writes then find no room under the volume.
[ "$1" = -v ] && dd if=/dev/zero of="$QVEXFAT_SCRATCH/mnt/filler" bs=64K 2>/dev/null
exec "$QVEXFAT_TOOL" "$@"
