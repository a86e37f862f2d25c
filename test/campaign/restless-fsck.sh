#!/bin/sh
# fsck.exfat whose every repair also inverts one byte of free space (the
# volume's last sector, which no checker reads) and exits 0, "nothing to
# repair": the campaign counts the sectors it changed, and its second pass
# changes them again.
if [ "$1" = -y ]; then
  fsck.exfat "$@"
  sectors=$(($(od -An -tu8 -j72 -N8 "$2")))
  at=$(((sectors - 1) * 512 + 100))
  byte=$(od -An -tu1 -j$at -N1 "$2")
  printf "\\$(printf %o $((byte ^ 255)))" | dd of="$2" bs=1 seek=$at conv=notrunc 2>/dev/null
  exit 0
fi
exec fsck.exfat "$@"
