#!/usr/bin/env bash
# Builds the aarch64 (64-bit Arm, glibc) qvexfat-test and qvexfat-campaign
# with Debian's cross compiler and makes their Debian package, installing
# the cross compiler and the arm64 libraries first if they are missing.
# Prints the package's path.
#
#   scripts/build-aarch64.sh        build/aarch64/src/cli/qvexfat-test
#                                   build/aarch64/src/campaign/qvexfat-campaign
#                                   build/aarch64/packages/qvexfat-test_<version>_arm64.deb
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --aarch64
cmake --preset aarch64 >/dev/null
cmake --build --preset aarch64
cpack --preset aarch64 >/dev/null
ls build/aarch64/packages/*_arm64.deb
