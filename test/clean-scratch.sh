#!/usr/bin/env bash
# Unmounts and detaches whatever the tests left under the scratch area (a
# test killed by its timeout cannot clean up after itself). With --wipe it
# also removes the scratch area's files.
set -u
root=$1
[[ -d "$root" ]] || exit 0
root=$(cd "$root" && pwd -P)

# Deepest mount points first.
awk -v root="$root" '$2 ~ "^"root"/" { print $2 }' /proc/mounts | sort -r |
  while read -r mount_point; do
    umount "$mount_point" 2>/dev/null || umount -l "$mount_point" 2>/dev/null || true
  done

if command -v losetup >/dev/null && [[ $(id -u) -eq 0 ]]; then
  losetup -n -O NAME,BACK-FILE 2>/dev/null | while read -r device backing; do
    case "$backing" in "$root"/*) losetup -d "$device" 2>/dev/null || true ;; esac
  done
fi

if [[ "${2:-}" == "--wipe" ]]; then rm -rf "$root"/*; fi
exit 0
