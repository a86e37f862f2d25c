#!/usr/bin/env bash
# Runs the whole damage campaign, then the power-cut rows, on Debian
# unstable (sid): its newest arm64 kernel, exfatprogs and busybox in the
# emulated arm64 machine, with the static programs. It reports and never
# fails on what the campaign finds: unstable moves under us, so its results
# are news, not a regression. It fails only when it cannot run (nothing
# fetched, no machine), saying why.
#
#   scripts/campaign-sid.sh [--markdown FILE]
#
# Prints the campaign's KTAP and then its Markdown tables (also written to
# FILE), and leaves build/kernel-cache/sid/versions naming what ran.
set -euo pipefail
cd "$(dirname "$0")/.."
markdown=
case "${1-}" in
  "") ;;
  --markdown) markdown=$(realpath -m "$2") ;;
  *) echo "usage: $0 [--markdown FILE]" >&2; exit 2 ;;
esac

scripts/build-aarch64.sh --static >/dev/null
test/kernel/fetch.sh build/kernel-cache sid
static=build/aarch64-static
machine=build/kernel-machine-sid
trap 'python3 test/kernel/machine.py stop "$machine"' EXIT
python3 test/kernel/machine.py start build/kernel-cache/sid "$static/bin/qvexfat-test" "$machine" \
  "/usr/bin/qvexfat-campaign=$static/bin/qvexfat-campaign" >&2
run() { python3 test/kernel/machine.py run "$machine" "$1"; }

echo "# Debian unstable: $(tr '\n' ';' <build/kernel-cache/sid/versions | sed 's/;$//; s/;/; /g')"
status=0
run "TMPDIR=/tmp qvexfat-campaign --image /tmp/campaign.img --markdown /tmp/campaign.md" || status=$?
echo "# the campaign exited with $status (0: every row ok, 1: a row not ok, 2: it could not run)"
power=0
run "TMPDIR=/tmp qvexfat-campaign --image /tmp/power-cut.img --only power-cut --markdown /tmp/power-cut.md" ||
  power=$?
echo "# the power-cut rows exited with $power (4: the kernel has no dm-log-writes)"
echo
run "cat /tmp/campaign.md; echo; cat /tmp/power-cut.md 2>/dev/null" | tee ${markdown:+"$markdown"}
