#!/bin/sh
# mount.exfat-fuse over a card that loses what was written since the
# previous mount: at the third mount (the write step's remount; the first
# wrote the tree, the second is the mount step) the volume is put back as
# it was at the second, so the file written, fsync'd and syncfs'd in
# between is gone. This directory comes first on PATH: the real
# mount.exfat-fuse is found after it.
real=$(PATH=${PATH#*:} command -v mount.exfat-fuse)
[ "$1" = -V ] && exec "$real" -V
. "$(dirname "$0")/counted.sh"
[ "$count" = 2 ] && dd if="$1" of="$TMPDIR/at-mount-2" bs=1M 2>/dev/null
[ "$count" = 3 ] && dd if="$TMPDIR/at-mount-2" of="$1" bs=1M 2>/dev/null
exec "$real" "$@"
