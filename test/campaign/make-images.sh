#!/bin/sh
# Makes DIR, a folder of images a user might bring to --images: an 8M
# volume of mkfs.exfat holding a directory tree written through exfat-fuse,
# with a manifest as sha256sum writes it; the same compressed with gzip and
# with xz; a copy whose allocation bitmap says the files' clusters are free
# (qvexfat-test -d, from $QVEXFAT_TOOL); and images no row can try: empty,
# gzip and xz data cut short, a volume cut in half, and one larger than the
# campaign's 64M scratch area.
set -eu
dir=$1
work=$dir.work
mkdir -p "$dir" "$work/mnt"
truncate -s 8M "$dir/card.img"
mkfs.exfat "$dir/card.img" >/dev/null
dev=$(losetup -f --show "$dir/card.img")
cleanup() {
  umount "$work/mnt" 2>/dev/null || true
  losetup -d "$dev" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
mount.exfat-fuse "$dev" "$work/mnt" >/dev/null 2>&1
mkdir -p "$work/mnt/DCIM/100"
printf 'hello\n' >"$work/mnt/notes.txt"
i=0
while [ $i -lt 3000 ]; do printf 'IMG_0001 line %05d\n' $i; i=$((i + 1)); done >"$work/mnt/DCIM/100/IMG_0001.JPG"
(cd "$work/mnt" && sha256sum notes.txt DCIM/100/IMG_0001.JPG) >"$dir/card.img.sha256"
umount "$work/mnt"
losetup -d "$dev"

gzip -c "$dir/card.img" >"$dir/card-gzip.img.gz"
xz -c "$dir/card.img" >"$dir/card-xz.img.xz"
# The tree's clusters, 6 to 0x17 on this volume, marked free.
cp "$dir/card.img" "$dir/free-bits.img"
"$QVEXFAT_TOOL" -d "$dir/free-bits.img" -c bitmap:start:6:range:12:value:0 >/dev/null
cp "$dir/card.img.sha256" "$dir/free-bits.img.sha256"
if fsck.exfat -n "$dir/free-bits.img" >/dev/null 2>&1; then echo "the bitmap damage was not made" >&2; exit 1; fi

: >"$dir/empty.img"
for packed in card-gzip.img.gz card-xz.img.xz; do
  head -c $(($(wc -c <"$dir/$packed") / 2)) "$dir/$packed" >"$dir/cut.img.${packed##*.}"
done
head -c 4194304 "$dir/card.img" >"$dir/half.img"
truncate -s 1G "$dir/large.img"
