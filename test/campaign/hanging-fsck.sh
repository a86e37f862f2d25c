#!/bin/sh
# fsck.exfat that, asked to look the second time (the check step: the first
# is the fresh volume's), never returns, as a checker stuck on a damaged
# volume: the step is TIMEOUT, the checker killed, and the row goes on.
. "$(dirname "$0")/counted.sh"
[ "$1" = -n ] && [ "$count" = 2 ] && exec sleep 3600
exec fsck.exfat "$@"
