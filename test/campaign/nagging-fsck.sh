#!/bin/sh
# fsck.exfat that, asked to look, reports damage that is not there: after
# a volume test that passed, the volume must still be found clean.
if [ "$1" = -n ]; then
  echo "exfatprogs version : 1.2.0"
  echo "ERROR: /runtests: a made-up complaint. Truncate (y/N)? n"
  exit 4
fi
exec fsck.exfat "$@"
