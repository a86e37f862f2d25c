#!/bin/sh
# qvexfat-test with its random choices pinned: the byte that "main" and
# "backup" damage is the same on every run, so that transcripts and the
# README's tables come out the same. The case runner gives the tool and the
# rand() replacement in $QVEXFAT_TOOL and $QVEXFAT_RAND_LIB; a static tool
# takes no preloaded library, and $QVEXFAT_PINNED_TOOL is then the tool
# built with the replacement in it.
LD_PRELOAD=$QVEXFAT_RAND_LIB QVEXFAT_RAND="4 100 200" exec "${QVEXFAT_PINNED_TOOL:-$QVEXFAT_TOOL}" "$@"
