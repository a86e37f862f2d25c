#!/bin/sh
# What the machines say when a release cannot be had: fetch.sh names a
# release it does not know and a mirror that does not serve the release,
# each on one line, and the machine of that release then says why it
# cannot boot, skipped (77), or failed under CI=true. No network is used:
# the mirror is a directory that does not exist.
#
#   check-refusals.sh <scratch-dir>
set -u
here=$(cd "$(dirname "$0")" && pwd)
scratch=$1
rm -rf "$scratch" && mkdir -p "$scratch"
failed=0

# expect <status> <expected output> <command>...
expect() {
  want_status=$1 want=$2
  shift 2
  got=$("$@" 2>&1)
  status=$?
  if [ "$status" != "$want_status" ] || [ "$got" != "$want" ]; then
    printf 'check-refusals: %s\n  expected [%s] %s\n  got      [%s] %s\n' "$*" "$want_status" "$want" "$status" "$got"
    failed=1
  fi
}

expect 2 "fetch: unknown release 'buster': known are bullseye, bookworm, trixie and sid" \
  "$here/fetch.sh" "$scratch/cache" buster
expect 1 "fetch: trixie: the mirror does not serve it: E: The repository 'file:$scratch/no-mirror trixie Release' does not have a Release file." \
  "$here/fetch.sh" --mirror "file://$scratch/no-mirror" "$scratch/cache" trixie
expect 0 "the mirror does not serve it: E: The repository 'file:$scratch/no-mirror trixie Release' does not have a Release file." \
  cat "$scratch/cache/trixie/unavailable"
start_says="machine: cannot boot: trixie: the mirror does not serve it: E: The repository 'file:$scratch/no-mirror trixie Release' does not have a Release file."
expect 77 "$start_says" env -u CI python3 "$here/machine.py" start "$scratch/cache/trixie" /no/tool "$scratch/m"
expect 1 "$start_says" env CI=true python3 "$here/machine.py" start "$scratch/cache/trixie" /no/tool "$scratch/m"
expect 77 "machine: cannot boot: no arm64 kernel fetched into $scratch/cache/sid (test/kernel/fetch.sh $scratch/cache sid)" \
  env -u CI python3 "$here/machine.py" start "$scratch/cache/sid" /no/tool "$scratch/m"
[ $failed = 0 ] && rm -rf "$scratch"
exit $failed
