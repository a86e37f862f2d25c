#!/usr/bin/env bash
# Installs what is missing, builds the tool, makes a scratch exFAT image in
# the build directory and runs device mode on it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null

tool=build/release/src/cli/qvexfat-test
demo=build/demo
image=$demo/scratch.img
mkdir -p "$demo"
rm -f "$image"
truncate -s 64M "$image"
mkfs.exfat "$image" >/dev/null

echo "\$ qvexfat-test -d $image"
"$tool" -d "$image"
