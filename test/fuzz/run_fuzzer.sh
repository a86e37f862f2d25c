#!/usr/bin/env bash
# Runs the device-mode fuzzer for a bounded time on seeds made from the
# suite's images. What it finds is kept in <scratch>/findings, and the end
# of its log is shown when it fails.
#   run_fuzzer.sh <fuzzer> <scratch> <seconds> <image>...
set -u
fuzzer=$1 scratch=$2 seconds=$3
shift 3
rm -rf "$scratch" && mkdir -p "$scratch/corpus" "$scratch/findings"
truncate -s 4M "$scratch/small.img" && mkfs.exfat -c 512 "$scratch/small.img" >/dev/null
python3 "$(dirname "$0")/make_corpus.py" "$scratch/seeds" "$@" "$scratch/small.img"
export QVEXFAT_FUZZ_IMAGE=$scratch/image.img
"$fuzzer" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=2048 -max_len=1048576 \
  -artifact_prefix="$scratch/findings/" "$scratch/corpus" "$scratch/seeds" >"$scratch/log" 2>&1
status=$?
grep -E "^#[0-9]+ +DONE|^Done [0-9]+ runs" "$scratch/log" | tail -2
if [[ $status -ne 0 ]]; then tail -60 "$scratch/log"; ls -la "$scratch/findings"; fi
exit $status
