#!/bin/sh
# mount.exfat-fuse that, at the second mount (the mount step), mounts and
# then sends SIGINT to the campaign, its parent, while it is still running:
# the campaign must undo the mount it did not see complete.
real=$(PATH=${PATH#*:} command -v mount.exfat-fuse)
[ "$1" = -V ] && exec "$real" -V
. "$(dirname "$0")/counted.sh"
"$real" "$@" || exit
[ "$count" = 2 ] && kill -INT $PPID && sleep 60
exit 0
