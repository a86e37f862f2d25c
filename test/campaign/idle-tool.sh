#!/bin/sh
# qvexfat-test with its random choices pinned that, asked to damage, lets
# two of every three runs go without the damage (it scans only), as a
# random draw that changes no byte does: the campaign must draw again. As
# never-damaging-tool.sh it never damages, and the row is skipped.
. "$(dirname "$0")/counted.sh"
if [ "$1" = -d ] && { [ $((count % 3)) != 0 ] || [ "$(basename "$0")" = never-damaging-tool.sh ]; }; then
  set -- "$1" "$2"
fi
LD_PRELOAD=$QVEXFAT_RAND_LIB QVEXFAT_RAND="4 100 200" exec "${QVEXFAT_PINNED_TOOL:-$QVEXFAT_TOOL}" "$@"
