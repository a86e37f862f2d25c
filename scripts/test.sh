#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite three
# times: the release build, the AddressSanitizer + UndefinedBehaviorSanitizer
# build, and the aarch64 cross build, whose programs run under qemu-aarch64;
# then runs the device-mode fuzzer (clang's libFuzzer) for two minutes.
# Tests that need a mounted exFAT volume, the damage campaign's among them,
# run as root on a machine with FUSE and loop devices. The aarch64 run's
# kernel cases boot Debian's arm64 kernel under qemu-system-aarch64
# (test/kernel/) to try the tool and the campaign on Linux's own exFAT
# driver.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --aarch64
for preset in release sanitize aarch64 fuzz; do
  echo "=== $preset build ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
