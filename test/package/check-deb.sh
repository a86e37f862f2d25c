#!/usr/bin/env bash
# Builds the Debian package of a build tree into a scratch directory and
# checks it against the binary inside it, with Debian's own tools:
#   - the package architecture is the one the binary was compiled for,
#   - the package holds exactly the tool and the campaign, their manual
#     pages, the README, the copyright file and the changelog,
#   - the copyright file is in Debian's machine-readable format and licenses
#     every file under MIT, with the terms of the source tree's LICENSE,
#   - the changelog is a Debian changelog whose top entry is the package's
#     version,
#   - the manual pages render without warnings,
#   - Depends is exactly what dpkg-shlibdeps derives from the binaries,
#   - lintian reports no error, and every warning it reports is one the
#     README lists with its reason.
#
#   check-deb.sh <build-dir> <scratch-dir>
set -euo pipefail
build=$1
scratch=$2
source_dir=$(cd "$(dirname "$0")/../.." && pwd)

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
campaign=$root/usr/bin/qvexfat-campaign
for program in "$tool" "$campaign"; do
  [[ -x "$program" ]] || fail "no executable usr/bin/$(basename "$program") in $deb"
done

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
for program in "$tool" "$campaign"; do
  LC_ALL=C readelf -S "$program" | grep -q '\.symtab' && fail "the packaged $(basename "$program") is not stripped"
done

files=$(cd "$root" && find . -type f | sort | tr '\n' ' ')
doc=./usr/share/doc/qvexfat-test
man=./usr/share/man/man1
expected="./usr/bin/qvexfat-campaign ./usr/bin/qvexfat-test $doc/README.md $doc/changelog.gz $doc/copyright \
$man/qvexfat-campaign.1.gz $man/qvexfat-test.1.gz "
[[ "$files" == "$expected" ]] || fail "package files are: $files"

# The copyright file: in the machine-readable format (lintian, below,
# checks its syntax), licensing every file under MIT with LICENSE's terms,
# each line indented by a space and an empty one written " .".
copyright=$root/usr/share/doc/qvexfat-test/copyright
license=$source_dir/LICENSE
expected_copyright="Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/

Files: *
Copyright: $(sed -n 's/^Copyright (c) //p' "$license")
License: MIT
$(sed '1,/^Copyright (c) /d' "$license" | sed '1d; s/^/ /; s/^ $/ ./')"
[[ "$(grep -v '^Upstream-Name:\|^Source:' "$copyright")" == "$expected_copyright" ]] ||
  fail "copyright file does not license every file under MIT with the terms of LICENSE:
$(diff <(echo "$expected_copyright") "$copyright" || true)"

zcat "$root/usr/share/doc/qvexfat-test/changelog.gz" >"$scratch/changelog" ||
  fail "changelog.gz is not gzip"
changelog_version=$(dpkg-parsechangelog -l "$scratch/changelog" -S Version 2>"$scratch/changelog.err") &&
  [[ ! -s "$scratch/changelog.err" ]] ||
  fail "changelog does not parse: $(cat "$scratch/changelog.err")"
[[ "$changelog_version" == "$version" ]] ||
  fail "the changelog's top entry is version '$changelog_version', the package is $version"

for page in qvexfat-test qvexfat-campaign; do
  warnings=$(zcat "$root/usr/share/man/man1/$page.1.gz" | groff -man -ww -z 2>&1)
  [[ -z "$warnings" ]] || fail "manual page $page(1) warnings: $warnings"
done

# dpkg-shlibdeps wants a debian/control to read; the binary's libraries are
# looked up for the package's architecture (multiarch for a cross build).
mkdir -p "$scratch/shlibdeps/debian"
printf 'Source: qvexfat-test\n\nPackage: qvexfat-test\nArchitecture: any\n' \
  >"$scratch/shlibdeps/debian/control"
derived=$(cd "$scratch/shlibdeps" && DEB_HOST_ARCH=$arch dpkg-shlibdeps -O "$tool" "$campaign" 2>/dev/null |
  sed -n 's/^shlibs:Depends=//p')
normalize() { tr ',' '\n' | sed 's/^ *//; s/ *$//' | grep -v '^$' | sort; }
declared=$(dpkg-deb -f "$deb" Depends)
if [[ "$(normalize <<<"$declared")" != "$(normalize <<<"$derived")" ]]; then
  fail "Depends: $declared
dpkg-shlibdeps: $derived"
fi

# lintian judges a foreign-architecture package as it does a native one.
# Exit status 2 means it found errors, 1 that it could not run.
status=0
report=$(lintian --fail-on error --tag-display-limit 0 "$deb" 2>"$scratch/lintian.err") || status=$?
if [[ $status -ne 0 ]] || grep -q '^E: ' <<<"$report"; then
  fail "lintian (status $status):
$report
$(grep -v 'running with root privileges' "$scratch/lintian.err" || true)"
fi
lintian_warnings=$(sed -n 's/^W: [^ ]*: \([^ ]*\).*/\1/p' <<<"$report" | sort -u)
for tag in $lintian_warnings; do
  grep -qF "\`$tag\`" "$root/usr/share/doc/qvexfat-test/README.md" ||
    fail "lintian warning $tag is not listed in the README:
$report"
done

echo "check-deb: $(basename "$deb"): $arch, Depends: $declared, lintian warnings: ${lintian_warnings:-none}"
