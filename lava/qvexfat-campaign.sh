#!/bin/sh
# Runs qvexfat-campaign on the board for the LAVA test definition
# qvexfat-campaign.yaml and reports its KTAP to LAVA: each row as the test
# case <row>, each step of a row as <row>.<step>, pass, fail or skip as
# KTAP says, and the run itself as the case qvexfat-campaign (fail when the
# campaign could not run or did not finish). The kernel, checker and tool
# the campaign names go in the test set "stack", as the references of its
# cases kernel, checker and tool. Runs with busybox alone.
#
#   qvexfat-campaign.sh DRIVER ONLY IMAGE SIZE DEVICE DEVICE_CONFIRM
#
# An empty ONLY runs every row, an empty SIZE sizes the image as the rows
# need; with a DEVICE, DEVICE_CONFIRM must be "yes".
driver=$1 only=$2 image=$3 size=$4 device=$5 confirm=$6

set -- --driver "$driver"
[ -n "$only" ] && set -- "$@" --only "$only"
if [ -n "$device" ]; then
  set -- "$@" --device "$device"
  [ "$confirm" = yes ] && set -- "$@" --yes
else
  set -- "$@" --image "$image"
  [ -n "$size" ] && set -- "$@" --size "$size"
fi

ktap=$(mktemp)
echo "+ qvexfat-campaign $*"
qvexfat-campaign "$@" >"$ktap"
status=$?
cat "$ktap"
echo "+ qvexfat-campaign exited with $status"

# One "<kind> <name> <result> [<value>]" line per result, from the KTAP:
# a row's steps are its nested results, named after its "# Subtest:" line.
awk '
  function result(ok, directive) {
    if (directive ~ /^# *SKIP/) return "skip"
    return ok ? "pass" : "fail"
  }
  function report(line, indent,   ok, name, rest) {
    rest = substr(line, indent + 1)
    ok = rest !~ /^not /
    sub(/^(not )?ok [0-9]+ /, "", rest)
    name = rest
    sub(/ .*/, "", name)
    rest = substr(rest, length(name) + 1)
    sub(/^ */, "", rest)
    return name " " result(ok, rest)
  }
  /^# (kernel|checker|tool): / && !planned {
    key = substr($2, 1, length($2) - 1)
    value = substr($0, length($2) + 4)
    sub(/^exfatprogs version : /, "exfatprogs ", value)
    gsub(/ /, "-", value)
    print "stack " key " pass " value
  }
  /^1\.\.[0-9]+$/ { planned = substr($0, 4) }
  /^  # Subtest: / { row = substr($0, 14) }
  /^  (not )?ok [0-9]+ / { print "case " row "." report($0, 2) }
  /^(not )?ok [0-9]+ / { print "case " report($0, 0); done++ }
  END { print "done qvexfat-campaign " (planned != "" && done == planned ? "pass" : "fail") }
' "$ktap" | {
  lava-test-set start stack
  in_set=yes finished=fail
  while read -r kind name result value; do
    if [ "$kind" = stack ]; then
      lava-test-reference "$name" --result "$result" --reference "$value"
      continue
    fi
    [ "$in_set" = yes ] && lava-test-set stop && in_set=no
    case $kind in
      case) lava-test-case "$name" --result "$result" ;;
      done) finished=$result ;;
    esac
  done
  # The campaign ran when it exited 0 (every row ok) or 1 (a row not ok)
  # and reported every row it planned.
  case $status in 0 | 1) ;; *) finished=fail ;; esac
  lava-test-case qvexfat-campaign --result "$finished"
}
rm -f "$ktap"
