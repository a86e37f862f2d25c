#!/bin/sh
# qvexfat-test with its random numbers drawn from a fixed seed: the volume
# tests' file sizes, and so how many files fill a volume, are the same on
# every run, so that transcripts and the README's tables come out the same.
# As pinned-tool.sh, from $QVEXFAT_TOOL and $QVEXFAT_RAND_LIB, or
# $QVEXFAT_PINNED_TOOL where the tool is static.
LD_PRELOAD=$QVEXFAT_RAND_LIB QVEXFAT_SEED=1 exec "${QVEXFAT_PINNED_TOOL:-$QVEXFAT_TOOL}" "$@"
