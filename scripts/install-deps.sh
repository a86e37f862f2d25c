#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking
# (scripts/bench.sh: hyperfine, GNU time) qvexfat-test need,
# and only those that are missing. Quiet when everything is there. Works as
# root and, for other users, through sudo.
#
#   scripts/install-deps.sh            native (amd64) build and tests
#   scripts/install-deps.sh --aarch64  also the arm64 cross compiler, the
#                                      arm64 libraries and qemu-user to run
#                                      the aarch64 build's tests, and
#                                      qemu-system-arm with the arm64 kernel,
#                                      busybox, exfatprogs and C library of
#                                      Debian 11, 12 and 13 (each unpacked in
#                                      build/kernel-cache/<release>, never
#                                      installed) to boot them on Linux's
#                                      exFAT driver
#   scripts/install-deps.sh --lava     also LAVA's lava-dispatcher (lava-run)
#                                      and a TFTP server's configuration
#                                      (tftpd-hpa), to run the example LAVA
#                                      job (lava/) in the test suite
set -euo pipefail

aarch64=false
lava=false
for arg in "$@"; do
  case "$arg" in
    --aarch64) aarch64=true ;;
    --lava) lava=true ;;
    *) echo "usage: $0 [--aarch64] [--lava]" >&2; exit 2 ;;
  esac
done

packages=(
  g++ cmake ninja-build pkg-config
  libfmt-dev libboost-filesystem-dev libboost-system-dev libgtest-dev
  # The campaign reads images compressed with gzip or xz itself.
  zlib1g-dev liblzma-dev
  exfatprogs exfat-fuse fuse3 libfuse3-dev
  util-linux dpkg-dev groff-base python3 lintian
  clang libclang-rt-14-dev
  hyperfine time
  # The kernel's own KTAP parser (tools/testing/kunit/kunit_parser.py),
  # which the campaign cases read every transcript with.
  linux-source-6.1 xz-utils
)
if $aarch64; then
  # libc6:arm64 is what qemu-user runs the target programs with;
  # libfuse3-dev:arm64 because the tests' FUSE filesystem is built with the
  # rest of the test suite for the target.
  packages+=(
    g++-aarch64-linux-gnu qemu-user libc6:arm64
    libfmt-dev:arm64 libboost-filesystem-dev:arm64 libboost-system-dev:arm64
    libgtest-dev:arm64 libfuse3-dev:arm64 zlib1g-dev:arm64 liblzma-dev:arm64
  )
  # qemu-system-arm boots Debian's arm64 kernels for the kernel driver's
  # tests; kmod's depmod indexes their modules, which zstd unpacks where a
  # kernel ships them so compressed.
  packages+=(qemu-system-arm kmod zstd)
fi

if $lava; then
  # lava-run's tftp deploy checks for a TFTP server (in.tftpd) and its
  # directory (/etc/default/tftpd-hpa); the job's qemu boots the files
  # straight from that directory. git fetches the test definition, cpio
  # repacks the ramdisk with LAVA's scripts.
  packages+=(lava-dispatcher tftpd-hpa git cpio)
fi

# A plain name must be installed for the native architecture (or be
# architecture-independent); once arm64 is added, dpkg-query lists both.
native=$(dpkg --print-architecture)
installed() {
  local name=${1%%:*} arch=${1#*:}
  [[ "$arch" == "$1" ]] && arch=$native
  dpkg-query -W -f='${Status} ${Architecture}\n' "$name" 2>/dev/null |
    grep -qE "^install ok installed ($arch|all)\$"
}

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
# A release that cannot be fetched is reported and left out: its cases say
# why and are skipped (failed under CI), the other releases' still run.
fetch_kernels() {
  if $aarch64; then
    for release in bullseye bookworm trixie; do
      "$(dirname "$0")/../test/kernel/fetch.sh" "$(dirname "$0")/../build/kernel-cache" "$release" ||
        echo "install-deps: the $release machine cannot be made; its kernel cases will say why" >&2
    done
  fi
}
# The parser's two files, unpacked once into build/kunit-parser.
unpack_kunit_parser() {
  local target
  target="$(dirname "$0")/../build/kunit-parser"
  [[ -f "$target/kunit_parser.py" ]] && return
  mkdir -p "$target"
  tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$target" --strip-components=4 \
    --wildcards 'linux-source-6.1/tools/testing/kunit/kunit_p*.py'
}
if [[ ${#missing[@]} -eq 0 ]]; then
  unpack_kunit_parser
  fetch_kernels
  exit 0
fi

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "install-deps: run as root or install sudo" >&2; exit 1; }
  as_root=(sudo)
fi

if $aarch64 && ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "install-deps: adding the arm64 architecture"
  "${as_root[@]}" dpkg --add-architecture arm64
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
unpack_kunit_parser
fetch_kernels
