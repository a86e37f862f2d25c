#!/usr/bin/env python3
"""Writes the fuzzer's seed inputs: each image given (xz-compressed or
plain) as a sparse image, its non-zero sectors only, once for each damage
the fuzzer knows (the first byte)."""
import lzma
import os
import sys

out, images = sys.argv[1], sys.argv[2:]
os.makedirs(out, exist_ok=True)
for path in images:
    data = (lzma.open if path.endswith(".xz") else open)(path, "rb").read()
    records = b"".join(n.to_bytes(4, "little") + data[n * 512:n * 512 + 512]
                       for n in range(len(data) // 512) if any(data[n * 512:n * 512 + 512]))
    for kind in range(10):
        with open(os.path.join(out, f"{os.path.basename(path)}.{kind}"), "wb") as f:
            f.write(bytes([kind]) + records)
