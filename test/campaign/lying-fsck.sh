#!/bin/sh
# A checker that lies about its repairs: asked to repair, it says that it
# fixed everything and changes nothing. Asked to look, it is fsck.exfat.
if [ "$1" = -y ]; then
  echo "exfatprogs version : 1.2.0"
  echo "$2: every error fixed."
  exit 1
fi
exec fsck.exfat "$@"
