#!/bin/sh
# mount.exfat-fuse over a card that misreads: the real exfat-fuse mounts
# the volume out of sight, and faultfs, stacked over it at the mount point,
# breaks one rule at the mounts that $TMPDIR/fuse-faults names, a line
# "<mount> <faultfs fault>" each (other-bytes=2: a file's second open reads
# other bytes; read-errors: no file can be read). faultfs, found in
# $QVEXFAT_FAULTFS, unmounts exfat-fuse as it ends, so the campaign's
# unmount takes both down and its wait for the daemons sees both go. This
# directory comes first on PATH: the real mount.exfat-fuse is found after it.
real=$(PATH=${PATH#*:} command -v mount.exfat-fuse)
[ "$1" = -V ] && exec "$real" -V
. "$(dirname "$0")/counted.sh"
fault=$(awk -v n="$count" '$1 == n { print $2 }' "$TMPDIR/fuse-faults" 2>/dev/null)
below="$TMPDIR/below-$count"
mkdir -p "$below"
"$real" "$1" "$below" || exit
"$QVEXFAT_FAULTFS" --fault="${fault:-none}" --unmount-backing "$below" "$2" && exit
status=$?
umount "$below"
exit "$status"
