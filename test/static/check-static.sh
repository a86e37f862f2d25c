#!/bin/sh
# Checks that each program of a static build is one file that starts on any
# 64-bit Arm Linux userland: an ELF executable for AArch64 with no program
# interpreter and no shared library to load, which runs under qemu-aarch64
# with no library tree at all and in an empty environment, printing its
# usage.
#
#   check-static.sh <program>...
set -eu
fail() { echo "check-static: $*" >&2; exit 1; }

for program in "$@"; do
  name=$(basename "$program")
  headers=$(LC_ALL=C readelf -h -l -d "$program") || fail "$name: not an ELF file"
  echo "$headers" | grep -q 'Machine: *AArch64' || fail "$name: not built for AArch64"
  echo "$headers" | grep -q 'Requesting program interpreter' &&
    fail "$name: asks for a program interpreter: $(echo "$headers" | sed -n 's/.*interpreter: \(.*\)]/\1/p')"
  echo "$headers" | grep -q '(NEEDED)' &&
    fail "$name: needs shared libraries: $(echo "$headers" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | tr '\n' ' ')"
  # -L at an empty directory: a program that still needed the loader or a
  # library could not find one.
  empty=$(mktemp -d)
  usage=$(env -i qemu-aarch64 -L "$empty" "$program" --help 2>&1) || true
  rmdir "$empty"
  case "$usage" in
    Usage:*) ;;
    *) fail "$name did not print its usage under qemu-aarch64: $usage" ;;
  esac
  echo "$name: static, $(stat -c %s "$program") bytes"
done
