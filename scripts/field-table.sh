#!/usr/bin/env bash
# Runs the quick tier of field rows (qvexfat-campaign --only fields, about
# 340 rows) in each Debian release's emulated arm64 machine, with the
# static programs, as the kernel cases run the campaign, and writes the
# README's field table from the Markdown each run wrote: per release, what
# the checker and the driver made of the changes, and every row not ok.
#
#   scripts/field-table.sh [RELEASE...]     (default: bullseye bookworm trixie)
#
# Each run's KTAP and Markdown stay in build/field-table/<release>.{ktap,md}.
# About ten minutes a release on a 2-core machine; the machines run in turn.
set -euo pipefail
cd "$(dirname "$0")/.."
releases=("$@")
[[ ${#releases[@]} -gt 0 ]] || releases=(bullseye bookworm trixie)

scripts/build-aarch64.sh --static >/dev/null
static=build/aarch64-static
out=build/field-table
mkdir -p "$out"
runs=()
for release in "${releases[@]}"; do
  test/kernel/fetch.sh build/kernel-cache "$release"
  machine=build/field-table/machine-$release
  trap 'python3 test/kernel/machine.py stop "$machine"' EXIT
  python3 test/kernel/machine.py start "build/kernel-cache/$release" "$static/bin/qvexfat-test" "$machine" \
    "/usr/bin/qvexfat-campaign=$static/bin/qvexfat-campaign" >&2
  status=0
  python3 test/kernel/machine.py run "$machine" \
    "TMPDIR=/tmp qvexfat-campaign --image /tmp/f.img --only fields --markdown /tmp/f.md" >"$out/$release.ktap" ||
    status=$?
  echo "field-table: $release: the campaign exited with $status" >&2
  python3 test/kernel/machine.py run "$machine" "cat /tmp/f.md" >"$out/$release.md"
  python3 test/kernel/machine.py stop "$machine"
  trap - EXIT
  runs+=("$release=$out/$release.md")
done
python3 test/field_table.py README.md "${runs[@]}"
echo "field-table: README.md written from ${runs[*]}" >&2
