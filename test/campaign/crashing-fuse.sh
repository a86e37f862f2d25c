#!/bin/sh
# mount.exfat-fuse whose daemon dies at the second mount, right after it,
# as a driver that crashes under the campaign would: the first row's mount
# step (its first mount wrote the tree) takes a volume that no longer
# answers. The rows after it must run as ever. Mounts are counted in
# $QVEXFAT_SCRATCH/mounts. This directory comes first on PATH: the real
# mount.exfat-fuse is found after it.
real=$(PATH=${PATH#*:} command -v mount.exfat-fuse)
[ "$1" = -V ] && exec "$real" -V
count=$(($(cat "$QVEXFAT_SCRATCH/mounts" 2>/dev/null || echo 0) + 1))
echo "$count" >"$QVEXFAT_SCRATCH/mounts"
"$real" "$@" || exit
[ "$count" = 2 ] || exit 0
# Its daemon, and no other case's: the one serving this mount point.
for process in /proc/[0-9]*; do
  [ "$(readlink "$process/exe")" = "$real" ] &&
    tr '\0' '\n' <"$process/cmdline" | grep -qxF "$2" && kill -SEGV "${process#/proc/}"
done
exit 0
