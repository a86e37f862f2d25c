#!/usr/bin/env bash
# Benchmark: the device scan of `qvexfat-test -d IMG` (no -c, so it reads and
# checks the volume and damages nothing) against `fsck.exfat -n IMG` on the
# same populated images, with hyperfine and GNU time. A benchmark, not a
# test: nothing in the test suite or CI runs it, and it fails only when it
# cannot measure (an image that is not clean, a run that exits non-zero).
#
#   scripts/bench.sh [--tool PATH] [--runs N] [--only small|large] [DIR]
#
#   DIR        where the images and the hyperfine JSON go (default
#              build/bench); the images are made once and kept there
#   --tool     the qvexfat-test binary to time (or QVEXFAT_TOOL=PATH);
#              default build/release/bin/qvexfat-test, built first.
#              Run the script once per build to compare two builds.
#   --runs     timed runs per command (default 5, after one warm-up run)
#   --only     time only the small (20,000 files) or large (200,000) image
#
# Needs root: the images are populated through exfat-fuse on a loop device,
# and the cold figures drop the page cache before each run.
set -euo pipefail
cd "$(dirname "$0")/.."

tool=${QVEXFAT_TOOL:-}
runs=5
only=""
dir=build/bench
while [[ $# -gt 0 ]]; do
  case "$1" in
    --tool) tool=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --only) only=$2; shift 2 ;;
    -h|--help) sed -n '2,/^set -e/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    -*) echo "bench: unknown option $1 (see --help)" >&2; exit 2 ;;
    *) dir=$1; shift ;;
  esac
done
[[ $(id -u) -eq 0 ]] || { echo "bench: run as root (loop devices, FUSE, drop_caches)" >&2; exit 1; }

scripts/install-deps.sh
if [[ -z "$tool" ]]; then
  # The default binary is built from this work tree, so that a rerun from
  # the README times the code that is checked out, not a stale build.
  cmake --preset release >/dev/null
  cmake --build --preset release >/dev/null
  tool=build/release/bin/qvexfat-test
fi
[[ -x "$tool" ]] || { echo "bench: $tool is not an executable" >&2; exit 1; }
tool=$(realpath "$tool")
mkdir -p "$dir"
dir=$(realpath "$dir")

# --- Making the images ------------------------------------------------------

# Mount state for cleanup, which the EXIT trap runs on success and failure
# alike, so that no loop device or FUSE mount outlives the script.
mount_point="" loop=""
cleanup() {
  if [[ -n "$mount_point" ]] && mountpoint -q "$mount_point"; then
    umount "$mount_point" || umount -l "$mount_point" || true
  fi
  if [[ -n "$loop" ]]; then losetup -d "$loop" 2>/dev/null || true; fi
  mount_point="" loop=""
}
trap cleanup EXIT

# make_image IMG FILES DIRS SIZE: an exFAT volume of SIZE (sparse) with
# 4 KiB clusters holding FILES files spread evenly over DIRS directories,
# written through exfat-fuse so that the layout is a real driver's. Kept
# across runs: IMG.made records the recipe and how long the making took, and
# is written last, so an interrupted making is redone.
make_image() {
  local img=$1 files=$2 dirs=$3 size=$4
  local recipe="files=$files dirs=$dirs size=$size cluster=4K sizes=1+(i*2654435761)%8192"
  if [[ -f "$img" && -f "$img.made" ]] && grep -qxF "recipe: $recipe" "$img.made"; then
    return
  fi
  rm -f "$img" "$img.made"
  echo "bench: making $img ($files files in $dirs directories, $size)"
  local start=$SECONDS
  truncate -s "$size" "$img"
  mkfs.exfat -c 4K "$img" >/dev/null
  loop=$(losetup --find --show "$img")
  mount_point=$img.mnt
  mkdir -p "$mount_point"
  mount.exfat-fuse "$loop" "$mount_point" >/dev/null
  # One Python process writes every file: starting a process per file would
  # cost more than the FUSE round trips themselves. Sizes run from 1 byte to
  # 8 KiB by a fixed hash of the index (never 0: the scan deletes empty
  # files), so every making gives the same volume.
  python3 - "$mount_point" "$files" "$dirs" <<'EOF'
import os, sys
root, files, dirs = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
per_dir = files // dirs
for d in range(dirs):
    path = os.path.join(root, f"dir{d:03d}")
    os.mkdir(path)
    for j in range(per_dir):
        i = d * per_dir + j
        size = 1 + (i * 2654435761) % 8192
        with open(os.path.join(path, f"file{i:06d}.dat"), "wb") as f:
            f.write(bytes([65 + i % 26]) * size)
EOF
  # exfat-fuse mounts a block device as fuseblk, whose unmount waits for the
  # driver to write everything back; only then is the loop device let go.
  cleanup
  rmdir "$img.mnt"
  local took=$((SECONDS - start))
  fsck.exfat -n "$img" >/dev/null || { echo "bench: fsck.exfat -n finds $img not clean" >&2; exit 1; }
  printf 'recipe: %s\nmade in: %d s\n' "$recipe" "$took" >"$img.made"
  echo "bench: made $img in $took s"
}

# --- Timing ------------------------------------------------------------------

# The cold figures need the page cache dropped before each run; where
# /proc/sys/vm is read-only (a container, say) they are skipped. Trying the
# write is the only reliable test: [[ -w ]] says yes to root regardless.
drop='sync; echo 3 > /proc/sys/vm/drop_caches'
cold=true
if ! (eval "$drop") 2>/dev/null; then
  cold=false
  echo "bench: /proc/sys/vm/drop_caches is not writable here: no cold-cache figures"
fi

# Peak resident set size in kB of one run of a command, from GNU time.
peak_kb() {
  /usr/bin/time -v "$@" 2>&1 >/dev/null | awk -F': ' '/Maximum resident set size/ {print $2}'
}

# bench_image NAME FILES DIRS SIZE: make (or reuse) the image, check it is
# sound for both tools, time both and print the table.
bench_image() {
  local name=$1 files=$2 dirs=$3 size=$4
  local img=$dir/$name.img
  make_image "$img" "$files" "$dirs" "$size"

  # Checked on every run, not only when made: the image may have been
  # damaged since (by hand with -c), and the tool under test may be a new
  # build. A scan that deletes anything is not the scan to time.
  fsck.exfat -n "$img" >/dev/null || { echo "bench: fsck.exfat -n finds $img not clean" >&2; exit 1; }
  local out
  out=$("$tool" -d "$img" 2>&1) || { echo "bench: $tool -d $img failed:"$'\n'"$out" >&2; exit 1; }
  if grep -q '^Deleting' <<<"$out"; then
    echo "bench: $tool -d $img deletes entries on a clean image:"$'\n'"$out" >&2; exit 1
  fi

  local cmds=(-n qvexfat-test "'$tool' -d '$img'" -n fsck.exfat "fsck.exfat -n '$img'")
  echo "bench: timing $name, warm page cache"
  hyperfine --style basic --warmup 1 --runs "$runs" \
    --export-json "$dir/$name-warm.json" "${cmds[@]}" >"$dir/$name-warm.txt" 2>&1
  if $cold; then
    echo "bench: timing $name, page cache dropped before each run"
    hyperfine --style basic --runs "$runs" --prepare "$drop" \
      --export-json "$dir/$name-cold.json" "${cmds[@]}" >"$dir/$name-cold.txt" 2>&1
  fi
  local tool_kb fsck_kb
  tool_kb=$(peak_kb "$tool" -d "$img")
  fsck_kb=$(peak_kb fsck.exfat -n "$img")

  python3 - "$dir/$name" "$tool_kb" "$fsck_kb" "$(sed -n 's/^made in: //p' "$img.made")" \
    "$files" "$dirs" "$size" "$runs" <<'EOF'
import json, os, sys
base, tool_kb, fsck_kb, made, files, dirs, size, runs = sys.argv[1:]

def means(path):
    """Wall and user+system CPU means, in seconds, per command name."""
    res = json.load(open(path))["results"]
    return {r["command"]: (r["mean"], r["stddev"] or 0.0, r["user"] + r["system"]) for r in res}

print(f"\n{os.path.basename(base)}.img: {int(files):,} files in {dirs} directories, "
      f"{size} volume, made in {made}; {runs} runs each")
print(f"  {'':24}{'qvexfat-test':>18}{'fsck.exfat -n':>18}{'ratio':>8}")
for cache in ("warm", "cold"):
    path = f"{base}-{cache}.json"
    if not os.path.exists(path):
        continue
    m = means(path)
    (tw, ts, tc), (fw, fs, fc) = m["qvexfat-test"], m["fsck.exfat"]
    print(f"  {'wall, ' + cache + ' (s)':24}{f'{tw:.3f} ± {ts:.3f}':>18}{f'{fw:.3f} ± {fs:.3f}':>18}{tw / fw:>7.2f}x")
    print(f"  {'user+sys, ' + cache + ' (s)':24}{tc:>18.3f}{fc:>18.3f}{tc / fc:>7.2f}x")
t, f = int(tool_kb), int(fsck_kb)
print(f"  {'peak RSS (MB)':24}{t / 1000:>18.1f}{f / 1000:>18.1f}{t / f:>7.2f}x")
# The tool keeps two cluster bitmaps (as loaded, and as the scan finds the
# volume); memory beyond fsck.exfat's is judged against their size.
bitmaps = 2 * int(size.rstrip("G")) * 2**30 // 4096 // 8
print(f"  {'fsck RSS + two bitmaps':24}{'':>18}{(f * 1024 + bitmaps) / 1e6:>18.1f}")
EOF
}

echo "bench: timing $tool (results and hyperfine JSON in $dir)"
# The cold JSON of an earlier run must not be shown as this run's.
$cold || rm -f "$dir"/*-cold.json "$dir"/*-cold.txt
[[ "$only" == large ]] || bench_image files-20000 20000 20 2G
[[ "$only" == small ]] || bench_image files-200000 200000 200 8G
echo
echo "Means of $runs runs; ± is the standard deviation. hyperfine's full reports (and any"
echo "warning of outliers, common on a busy machine) are in $dir/*.txt."
