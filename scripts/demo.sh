#!/usr/bin/env bash
# Quick start: installs what is missing, builds the tool and the campaign,
# and runs the campaign, every row, on a scratch image it makes itself,
# then shows its table. Where the campaign cannot run (not root, no FUSE
# and no exfat in the kernel, no loop devices) it damages a scratch image
# with the tool alone and shows fsck.exfat's verdict before and after.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '\n== %s\n' "$*"; }

step "Installing missing packages and building (release)"
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null
tool=build/release/bin/qvexfat-test
campaign=build/release/bin/qvexfat-campaign
demo=build/demo
mkdir -p "$demo"

# The kernel's driver where the kernel has one, else exfat-fuse; or why
# neither can be used here.
driver=kernel
grep -qw exfat /proc/filesystems || driver=fuse
campaign_unavailable() {
  [[ $(id -u) -eq 0 ]] || { echo "not root"; return; }
  [[ -c /dev/loop-control ]] || { echo "no loop devices"; return; }
  if [[ $driver == fuse ]]; then
    [[ -c /dev/fuse ]] || { echo "no exfat in the kernel and no /dev/fuse"; return; }
    command -v mount.exfat-fuse >/dev/null || { echo "no exfat-fuse"; return; }
  fi
}

why=$(campaign_unavailable)
if [[ -z "$why" ]]; then
  rm -f "$demo/campaign.img"
  step "qvexfat-campaign --driver $driver --image $demo/campaign.img (KTAP in $demo/campaign.ktap)"
  status=0
  "$campaign" --driver "$driver" --image "$demo/campaign.img" \
    --markdown "$demo/campaign.md" >"$demo/campaign.ktap" || status=$?
  step "Its table ($demo/campaign.md; exit status $status: $(
    case $status in 0) echo "every row ok" ;; 1) echo "some row not ok" ;;
      4) echo "skipped: $(sed -n 's/^1\.\.0 # SKIP //p' "$demo/campaign.ktap")" ;; *) echo "it could not run" ;; esac))"
  cat "$demo/campaign.md" 2>/dev/null || true
  exit 0
fi

# Prints fsck.exfat -n's report and its exit status; never fails the script.
verdict() {
  local status=0
  fsck.exfat -n "$1" 2>&1 | sed 's/^/   /' || true
  fsck.exfat -n "$1" >/dev/null 2>&1 || status=$?
  echo "   (fsck.exfat exit status $status: $([[ $status -eq 0 ]] && echo clean || echo damage found))"
}

image=$demo/scratch.img
step "Not running the campaign ($why): making $image (64 MiB, mkfs.exfat) for the tool alone"
rm -f "$image"
truncate -s 64M "$image"
mkfs.exfat "$image" >/dev/null
step "fsck.exfat -n before"
verdict "$image"
# The root directory's first cluster, from the boot sector (offset 96).
root_cluster=$(od -An -tu4 -j96 -N4 "$image" | tr -d ' ')
corruption="fat:start:$(printf '%x' "$root_cluster"):range:1:value:0"
step "qvexfat-test -d $image -c $corruption"
"$tool" -d "$image" -c "$corruption" 2>&1 | sed 's/^/   /'
step "fsck.exfat -n after"
verdict "$image"
