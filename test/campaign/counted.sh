# Sourced by the stand-ins: $count is how many times this stand-in has been
# called with the same option first (-n, -y, -d; none for a mount), counted
# in $TMPDIR (the case's scratch directory, on the host and in the arm64
# machine).
counter="$TMPDIR/$(basename "$0")"
case $1 in -*) counter="$counter$1" ;; esac
count=$(($(cat "$counter.count" 2>/dev/null || echo 0) + 1))
echo "$count" >"$counter.count"
