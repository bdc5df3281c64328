#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0-only
"""One client of one export: io.py URI OPERATION...; ends with the number of the error, or 0.

write:OFFSET:BYTES:VALUE  fua:OFFSET:BYTES:VALUE  flush
read:OFFSET:BYTES:VALUE   every byte has to have the value
nofile:PID                that process can open nothing more
kill:PID                  ends it with kill -9, with this client still there
"""
import errno
import os
import resource
import signal
import sys

import nbd

handle = nbd.NBD()
try:
    handle.connect_uri(sys.argv[1])
    for text in sys.argv[2:]:
        verb, *rest = text.split(":")
        if verb == "flush":
            handle.flush()
        elif verb == "nofile":
            taken = {int(name) for name in os.listdir(f"/proc/{rest[0]}/fd")}
            limit = min(set(range(len(taken) + 1)) - taken)
            resource.prlimit(int(rest[0]), resource.RLIMIT_NOFILE, (limit, limit))
        elif verb == "kill":
            os.kill(int(rest[0]), signal.SIGKILL)
        else:
            offset, count, value = (int(n, 0) for n in rest)
            for at in range(offset, offset + count, 1 << 20):
                size = min(1 << 20, offset + count - at)
                data = bytes([value]) * size
                if verb == "read":
                    if handle.pread(size, at) != data:
                        print(f"other bytes near {at}")
                        sys.exit(1)
                else:
                    handle.pwrite(data, at, nbd.CMD_FLAG_FUA if verb == "fua" else 0)
except nbd.Error as failure:
    print(failure)
    sys.exit(getattr(errno, failure.errno or "EIO", errno.EIO))
