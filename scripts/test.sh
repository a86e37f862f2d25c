#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite twice:
# the release build and the AddressSanitizer + UndefinedBehaviorSanitizer
# build. Tests that need a mounted exFAT volume run as root on a machine with
# FUSE and loop devices.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
for preset in release sanitize; do
  echo "=== $preset build ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
