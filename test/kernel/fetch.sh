#!/usr/bin/env bash
# Fetches what the arm64 test machine (machine.py) boots from into
# <cache-dir>: Debian's current arm64 kernel (the one linux-image-arm64
# depends on), busybox-static and exfatprogs for arm64. The packages
# are downloaded with apt-get download and unpacked under <cache-dir>/root,
# never installed. Whatever is already in the cache is skipped.
#
#   test/kernel/fetch.sh <cache-dir>
#
# Leaves <cache-dir>/kernel-release naming the kernel (e.g. 6.1.0-56-arm64),
# with root/boot/vmlinuz-<release> and root/lib/modules/<release>/modules.dep
# (the package ships no modules.dep: depmod makes it, as its postinst would).
set -euo pipefail
[[ $# -eq 1 ]] || { echo "usage: $0 <cache-dir>" >&2; exit 2; }
cache=$(realpath -m "$1")
mkdir -p "$cache/debs" "$cache/root"

kernel_package() {
  { apt-cache depends linux-image-arm64:arm64 2>/dev/null || true; } |
    sed -n 's/^ *Depends: \(linux-image-[0-9][^:]*\):arm64$/\1/p' | head -n 1
}
package=$(kernel_package)
if [[ -z "$package" ]]; then
  # No arm64 package lists yet (a fresh machine, or the architecture was
  # added since the last update).
  apt-get update -qq
  package=$(kernel_package)
fi
[[ -n "$package" ]] || { echo "fetch: no linux-image-arm64:arm64 in apt's lists" >&2; exit 1; }
release=${package#linux-image-}

# exfatprogs needs only libc6, which install-deps.sh --aarch64 puts in the
# host's arm64 tree; machine.py takes the libraries from there.
wanted=("$package" busybox-static exfatprogs)
for name in "${wanted[@]}"; do
  if ! compgen -G "$cache/debs/${name}_*_arm64.deb" >/dev/null; then
    echo "fetch: downloading $name:arm64"
    # Into a directory that apt's unprivileged _apt user can write, so that
    # apt does not warn about downloading as root; moved once complete.
    rm -rf "$cache/partial"
    mkdir -m 777 "$cache/partial"
    (cd "$cache/partial" && apt-get download -qq "$name:arm64")
    mv "$cache/partial"/*.deb "$cache/debs/"
    rmdir "$cache/partial"
  fi
  for deb in "$cache/debs/${name}"_*_arm64.deb; do
    if [[ ! -e "$deb.unpacked" ]]; then
      dpkg-deb -x "$deb" "$cache/root"
      touch "$deb.unpacked"
    fi
  done
done

if [[ ! -e "$cache/root/lib/modules/$release/modules.dep" ]]; then
  command -v depmod >/dev/null || PATH=$PATH:/sbin:/usr/sbin
  depmod -b "$cache/root" "$release"
fi
echo "$release" >"$cache/kernel-release"
