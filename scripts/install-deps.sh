#!/usr/bin/env bash
# Installs the Debian packages that building and testing qvexfat-test need,
# and only those that are missing. Quiet when everything is there. Works as
# root and, for other users, through sudo.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libfmt-dev libboost-filesystem-dev libboost-system-dev libgtest-dev
  exfatprogs exfat-fuse fuse3 libfuse3-dev
  util-linux
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "install-deps: run as root or install sudo" >&2; exit 1; }
  as_root=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
