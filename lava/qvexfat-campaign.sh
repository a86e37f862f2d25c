#!/bin/sh
# Runs qvexfat-campaign on the board for the LAVA test definition
# qvexfat-campaign.yaml and reports its KTAP to LAVA line by line, as the
# campaign writes it: each row as the test case <row>, each step of a row
# as <row>.<step>, pass, fail or skip as KTAP says, and the run itself as
# the case qvexfat-campaign (pass when it ran every row it planned and
# exited 0 or 1, skip when it skipped the run as kselftest does with exit
# 4, fail otherwise). A row is sent to LAVA as soon as its line is printed,
# so a board that dies mid-run keeps the rows before. The kernel, checker
# and tool the campaign names go in the test set "stack", as the references
# of its cases kernel, checker and tool. Runs with busybox alone.
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

# "<name> <pass|fail|skip>" of a KTAP result line without its indent.
result() {
  rest=${1#not }
  rest=${rest#ok }
  rest=${rest#* }
  name=${rest%% *}
  case $1 in
    not\ *) echo "$name fail" ;;
    *" # SKIP"*) echo "$name skip" ;;
    *) echo "$name pass" ;;
  esac
}

echo "+ qvexfat-campaign $*"
{
  qvexfat-campaign "$@"
  echo "+ qvexfat-campaign exited with $?"
} | {
  lava-test-set start stack
  in_set=yes planned= reported=0 row= field_row= grouped=no status=
  while IFS= read -r line; do
    printf '%s\n' "$line"
    case $line in
      "# kernel: "* | "# checker: "* | "# tool: "*)
        [ -n "$planned" ] && continue
        key=${line#\# }
        key=${key%%:*}
        value=${line#\# $key: }
        value=${value#exfatprogs version : }
        case $key in checker) value="exfatprogs $value" ;; esac
        lava-test-reference "$key" --result pass --reference "$(echo "$value" | tr ' ' -)"
        continue ;;
      1..*) [ -z "$planned" ] && planned=${line#1..} && planned=${planned%% *} ;;
      "  # Subtest: "*) row=${line#  \# Subtest: } grouped=no ;;
      # A field row, in the test of its structure: its steps one level further in.
      "    # Subtest: "*) field_row=${line#    \# Subtest: } grouped=yes ;;
      "+ qvexfat-campaign exited with "*) status=${line##* } ;;
    esac
    case $line in
      "    ok "* | "    not ok "* | "  ok "* | "  not ok "* | "ok "* | "not ok "*)
        [ "$in_set" = yes ] && lava-test-set stop && in_set=no
        case $line in
          "    "*) set -- $(result "${line#    }") && lava-test-case "$field_row.$1" --result "$2" ;;
          " "*)
            set -- $(result "${line#  }")
            if [ "$grouped" = yes ]; then name=$1; else name=$row.$1; fi
            lava-test-case "$name" --result "$2" ;;
          *) set -- $(result "$line") && lava-test-case "$1" --result "$2" && reported=$((reported + 1)) ;;
        esac ;;
    esac
  done
  [ "$in_set" = yes ] && lava-test-set stop
  # kselftest's exit 4: the campaign could not be run here (no root, no
  # driver, no loop devices), and said so in its plan.
  case $status in
    0 | 1) [ -n "$planned" ] && [ "$reported" = "$planned" ] && finished=pass || finished=fail ;;
    4) finished=skip ;;
    *) finished=fail ;;
  esac
  lava-test-case qvexfat-campaign --result "$finished"
}
