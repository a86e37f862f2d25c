#!/bin/sh
# fsck.exfat that dies of SIGSEGV at its second look (the check step), as a
# checker that crashes on the damage it was to find.
. "$(dirname "$0")/counted.sh"
[ "$1" = -n ] && [ "$count" = 2 ] && kill -SEGV $$
exec fsck.exfat "$@"
