#!/usr/bin/env python3
"""drop-write.py LOG N OUT: writes OUT, the dm-log-writes log LOG without
its entry N (0-based) and that entry's data, as a device that acknowledged
a write and then lost it would have left the medium. Only writes may be
dropped: the point of the fault is a flush that did not hold its promise."""
import struct
import sys

log_path, number, out_path = sys.argv[1], int(sys.argv[2]), sys.argv[3]
with open(log_path, "rb") as f:
    log = f.read()
magic, version, entries, sector = struct.unpack_from("<QQQI", log, 0)
assert magic == 0x6a736677736872 and version == 1, "not a dm-log-writes log"
kept, at = [], sector
for index in range(entries):
    _, sectors, flags, _ = struct.unpack_from("<QQQQ", log, at)
    length = sector * (1 + (0 if flags & (4 | 8) else sectors))  # discards and marks carry no data
    if index == number:
        assert flags & (4 | 8) == 0 and sectors > 0, f"entry {number} is not a write"
    else:
        kept.append(log[at:at + length])
    at += length
body = b"".join(kept)
header = struct.pack("<QQQI", magic, version, entries - 1, sector).ljust(sector, b"\0")
with open(out_path, "wb") as f:
    f.write(header + body)
