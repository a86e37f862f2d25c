#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite three
# times: the release build, the AddressSanitizer + UndefinedBehaviorSanitizer
# build, and the aarch64 cross build, whose programs run under qemu-aarch64;
# before the last, the static aarch64 build, which is checked for needing
# nothing of the userland it runs on; then runs the device-mode fuzzer
# (clang's libFuzzer) for two minutes. Tests that need a mounted exFAT
# volume, the damage campaign's among them, run as root on a machine with
# FUSE and loop devices. The aarch64 run's kernel cases boot the arm64
# kernels of Debian 11, 12 and 13 under qemu-system-aarch64 (test/kernel/),
# each with its own release's exfatprogs and busybox, to try the tool and
# the campaign on Linux's own exFAT driver: the static programs where the
# release is not this machine's own; and LAVA's lava-run runs the example
# job of lava/ on Debian 12's kernel there.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --aarch64 --lava
for preset in release sanitize aarch64-static aarch64 fuzz; do
  echo "=== $preset build ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
