#!/usr/bin/env bash
# Builds the aarch64 (64-bit Arm) qvexfat-test and qvexfat-campaign with
# Debian's cross compiler, installing the cross compiler and the arm64
# libraries first if they are missing.
#
#   scripts/build-aarch64.sh           linked against glibc 2.35 or newer, and
#                                      their Debian package; prints its path:
#                                      build/aarch64/packages/qvexfat-test_<version>_arm64.deb
#   scripts/build-aarch64.sh --static  one file each that runs on any 64-bit Arm
#                                      Linux userland (old glibc, musl, busybox
#                                      alone); prints their paths:
#                                      build/aarch64-static/bin/qvexfat-test
#                                      build/aarch64-static/bin/qvexfat-campaign
set -euo pipefail
cd "$(dirname "$0")/.."

preset=aarch64
case "${1-}" in
  "") ;;
  --static) preset=aarch64-static ;;
  *) echo "usage: $0 [--static]" >&2; exit 2 ;;
esac

scripts/install-deps.sh --aarch64
cmake --preset "$preset" >/dev/null
if [[ $preset == aarch64-static ]]; then
  cmake --build --preset "$preset" >/dev/null
  ctest --preset "$preset" >/dev/null || { ctest --preset "$preset" --output-on-failure; exit 1; }
  ls build/aarch64-static/bin/qvexfat-test build/aarch64-static/bin/qvexfat-campaign
else
  cmake --build --preset "$preset"
  cpack --preset "$preset" >/dev/null
  ls build/aarch64/packages/*_arm64.deb
fi
