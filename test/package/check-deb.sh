#!/usr/bin/env bash
# Builds the Debian package of a build tree into a scratch directory and
# checks it against the binary inside it, with Debian's own tools:
#   - the package architecture is the one the binary was compiled for,
#   - the package holds exactly the tool, its manual page and the README,
#   - the manual page renders without warnings,
#   - Depends is exactly what dpkg-shlibdeps derives from the binary.
#
#   check-deb.sh <build-dir> <scratch-dir>
set -euo pipefail
build=$1
scratch=$2

fail() { echo "check-deb: $*" >&2; exit 1; }

rm -rf "$scratch"
mkdir -p "$scratch"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/out" >"$scratch/cpack.log" 2>&1 ||
  fail "cpack failed: $(cat "$scratch/cpack.log")"
shopt -s nullglob
debs=("$scratch"/out/*.deb)
[[ ${#debs[@]} -eq 1 ]] || fail "expected one package, found ${#debs[@]}"
deb=${debs[0]}
root=$scratch/root
dpkg-deb -x "$deb" "$root"
tool=$root/usr/bin/qvexfat-test
[[ -x "$tool" ]] || fail "no executable usr/bin/qvexfat-test in $deb"

machine=$(LC_ALL=C readelf -h "$tool" | sed -n 's/^ *Machine: *//p')
case "$machine" in
  AArch64) arch=arm64 ;;
  "Advanced Micro Devices X86-64") arch=amd64 ;;
  *) fail "unexpected machine '$machine'" ;;
esac
[[ "$(dpkg-deb -f "$deb" Architecture)" == "$arch" ]] ||
  fail "Architecture is '$(dpkg-deb -f "$deb" Architecture)', the binary is $arch"
version=$(dpkg-deb -f "$deb" Version)
[[ "$(basename "$deb")" == "qvexfat-test_${version}_${arch}.deb" ]] ||
  fail "file name $(basename "$deb") does not say qvexfat-test_${version}_${arch}"
LC_ALL=C readelf -S "$tool" | grep -q '\.symtab' && fail "the packaged binary is not stripped"

files=$(cd "$root" && find . -type f | sort | tr '\n' ' ')
expected="./usr/bin/qvexfat-test ./usr/share/doc/qvexfat-test/README.md ./usr/share/man/man1/qvexfat-test.1.gz "
[[ "$files" == "$expected" ]] || fail "package files are: $files"

warnings=$(zcat "$root/usr/share/man/man1/qvexfat-test.1.gz" | groff -man -ww -z 2>&1)
[[ -z "$warnings" ]] || fail "manual page warnings: $warnings"

# dpkg-shlibdeps wants a debian/control to read; the binary's libraries are
# looked up for the package's architecture (multiarch for a cross build).
mkdir -p "$scratch/shlibdeps/debian"
printf 'Source: qvexfat-test\n\nPackage: qvexfat-test\nArchitecture: any\n' \
  >"$scratch/shlibdeps/debian/control"
derived=$(cd "$scratch/shlibdeps" && DEB_HOST_ARCH=$arch dpkg-shlibdeps -O "$tool" 2>/dev/null |
  sed -n 's/^shlibs:Depends=//p')
normalize() { tr ',' '\n' | sed 's/^ *//; s/ *$//' | grep -v '^$' | sort; }
declared=$(dpkg-deb -f "$deb" Depends)
if [[ "$(normalize <<<"$declared")" != "$(normalize <<<"$derived")" ]]; then
  fail "Depends: $declared
dpkg-shlibdeps: $derived"
fi
echo "check-deb: $(basename "$deb"): $arch, Depends: $declared"
