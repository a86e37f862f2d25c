#!/bin/sh
# qvexfat-test, and then a lie: after a damage run it quietly inverts one
# byte of the file "big" too (in cluster 50, well inside the 147 clusters
# the known tree's big takes from cluster 17 on), and says nothing of it.
# The campaign must not take the tool's word: its read step sees the byte.
LD_PRELOAD=$QVEXFAT_RAND_LIB QVEXFAT_RAND="4 100 200" "$QVEXFAT_TOOL" "$@" || exit
[ "$1" = -d ] || exit 0
heap=$(od -An -tu4 -j88 -N4 "$2")
at=$((heap * 512 + 48 * 4096 + 1000))
byte=$(od -An -tu1 -j$at -N1 "$2")
printf "\\$(printf %o $((byte ^ 255)))" | dd of="$2" bs=1 seek=$at conv=notrunc 2>/dev/null
