#!/usr/bin/env bash
# Quick start: installs what is missing, builds the tool, makes a scratch
# exFAT image in the build directory (populated through exfat-fuse where
# FUSE can be used), and shows fsck.exfat's verdict before and after
# qvexfat-test damages the root directory's FAT entry.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '\n== %s\n' "$*"; }

# Prints fsck.exfat -n's report and its exit status; never fails the script.
verdict() {
  local status=0
  fsck.exfat -n "$1" 2>&1 | sed 's/^/   /' || true
  fsck.exfat -n "$1" >/dev/null 2>&1 || status=$?
  echo "   (fsck.exfat exit status $status: $([[ $status -eq 0 ]] && echo clean || echo damage found))"
}

step "Installing missing packages and building (release)"
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null
tool=build/release/src/cli/qvexfat-test

demo=build/demo
image=$demo/scratch.img
mount_point=$demo/mnt
mkdir -p "$demo"
rm -f "$image"
step "Making $image (64 MiB, mkfs.exfat)"
truncate -s 64M "$image"
mkfs.exfat "$image" >/dev/null

# Why FUSE cannot be used here, or nothing when it can.
fuse_unavailable() {
  [[ $(id -u) -eq 0 ]] || { echo "not root"; return; }
  [[ -c /dev/fuse ]] || { echo "no /dev/fuse"; return; }
  command -v losetup >/dev/null || { echo "no losetup"; return; }
  command -v mount.exfat-fuse >/dev/null || { echo "no exfat-fuse"; return; }
}

loop=""
cleanup() {
  if mountpoint -q "$mount_point" 2>/dev/null; then umount "$mount_point" || umount -l "$mount_point" || true; fi
  if [[ -n "$loop" ]]; then losetup -d "$loop" 2>/dev/null || true; fi
  loop=""
}
trap cleanup EXIT

why=$(fuse_unavailable)
if [[ -z "$why" ]]; then
  loop=$(losetup --find --show "$image")
  mkdir -p "$mount_point"
  step "Populating it through exfat-fuse ($loop on $mount_point)"
  mount.exfat-fuse "$loop" "$mount_point" >/dev/null 2>&1
  mkdir -p "$mount_point/photos/2024" "$mount_point/logs"
  head -c 300000 /dev/urandom >"$mount_point/photos/2024/beach.jpg"
  head -c 5000 /dev/urandom >"$mount_point/logs/boot.log"
  printf 'hello, exFAT\n' >"$mount_point/readme.txt"
  head -c 70000 /dev/urandom >"$mount_point/data.bin"
  (cd "$mount_point" && find . -mindepth 1 | sort | sed 's|^\./|   |')
  cleanup
else
  step "Not populating it through exfat-fuse ($why): the volume stays empty"
fi

step "fsck.exfat -n before"
verdict "$image"

# The root directory's first cluster, from the boot sector (offset 96).
root_cluster=$(od -An -tu4 -j96 -N4 "$image" | tr -d ' ')
corruption="fat:start:$(printf '%x' "$root_cluster"):range:1:value:0"
step "qvexfat-test -d $image -c $corruption"
"$tool" -d "$image" -c "$corruption" 2>&1 | sed 's/^/   /'

step "fsck.exfat -n after"
verdict "$image"
