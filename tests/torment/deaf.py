#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0-only
"""A control client that asks for a node's bitmap: deaf.py SOCKET COMMAND MINOR BYTES [close | TIMES BUFFER].
It never reads the answer; with `close` it ends once the daemon has begun to answer; with a number
it asks as often, each time with a buffer of so many bytes, and reads."""
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
how = sys.argv[5] if sys.argv[5:] else ""
room = int(sys.argv[6]) if sys.argv[6:] else size
request = struct.pack("<IHHIIQQII8x", 0x4C54435A, 1, 1, command, 2, 0x1000, 0x10000,
                      len(record), room) + record
for _ in range(int(how) if how.isdigit() else 0):
    peer.sendall(request)
    head = peer.recv(32, socket.MSG_WAITALL)
    result, in_record, _, in_buffer, in_text = struct.unpack("<8xiIIII4x", head)
    peer.recv(in_record + in_buffer + in_text, socket.MSG_WAITALL)
    if result != 0:
        sys.exit(f"refused: {result}")
if how.isdigit():
    sys.exit()
peer.sendall(request)
select.select([peer], [], [], 10)
print("answered", flush=True)
if how != "close":
    time.sleep(60)
