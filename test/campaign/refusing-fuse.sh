#!/bin/sh
# mount.exfat-fuse that refuses its first mount, as a driver that will not
# take a volume it left itself at a flush: the first row's mount step.
# Later mounts go to the real mount.exfat-fuse, found on PATH after this
# directory.
real=$(PATH=${PATH#*:} command -v mount.exfat-fuse)
[ "$1" = -V ] && exec "$real" -V
. "$(dirname "$0")/counted.sh"
if [ "$count" = 1 ]; then
  echo "ERROR: the stand-in refuses this volume." >&2
  exit 1
fi
exec "$real" "$@"
