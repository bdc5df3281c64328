#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0-only
"""A control client that asks for a node's bitmap and never reads the answer:
deaf.py SOCKET COMMAND MINOR BYTES [close]; `close` ends it once the daemon has begun to answer."""
import select
import socket
import struct
import sys
import time

path, command, minor, size = sys.argv[1], *(int(n, 0) for n in sys.argv[2:5])
record = struct.pack("<IIIIQ", minor, 1, size, 0, 0x10000)
peer = socket.socket(socket.AF_UNIX)
peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
peer.connect(path)
peer.sendall(struct.pack("<IHHIIQQII8x", 0x4C54435A, 1, 1, command, 2, 0x1000, 0x10000,
                         len(record), size) + record)
select.select([peer], [], [], 10)
print("answered", flush=True)
if sys.argv[5:] != ["close"]:
    time.sleep(60)
