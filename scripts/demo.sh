#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# The main job on a disk that it makes: serve, track, snapshot, overwrite, prove the snapshot, list
# the changed ranges, restart, resume, prove again, and show what a crash does to the bitmaps.
#   demo.sh BUILD_DIR
set -euo pipefail

build=$(cd "${1:?usage: demo.sh BUILD_DIR}" && pwd)
zorvd=$build/src/zorvd ctl=$build/src/zorvctl
work=$(mktemp -d "${TMPDIR:-/var/tmp}/zorv-demo.XXXXXX")
python=/usr/bin/python3 # Debian's: it has the nbd module
daemon=""
finish() {
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null
  rm -rf "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

bold="" plain=""
[ ! -t 1 ] || { bold=$(tput bold 2>/dev/null || true) plain=$(tput sgr0 2>/dev/null || true); }
say() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
run() { printf '  $ %s\n' "$(shown "$@")"; "$@" | sed "s|$work/||g; s|^|    |"; }
shown() { sed "s|$work/||g; s|^zctl|zorvctl|; s|^add_filter|zorvctl add-filter /dev/image/disk --extent-size 64K --bmp-dir state --name data|" <<<"$*"; }
zctl() { "$ctl" --socket "$work/run/control.sock" "$@"; }
fail() { echo "demo: FAILED: $*" >&2; tail -n 20 "$work/zorvd.log" >&2; exit 1; }
uri() { printf 'nbd+unix:///%s?socket=%s' "$1" "$work/run/nbd.sock"; }

serve() {
  "$zorvd" --run-dir "$work/run" --state-dir "$work/notes" --disk "$work/disk.img,name=disk" 2>>"$work/zorvd.log" &
  daemon=$!
  for _ in $(seq 100); do
    zctl disks >/dev/null 2>&1 && return
    kill -0 "$daemon" 2>/dev/null || fail "zorvd did not start"
    sleep 0.05
  done
  fail "zorvd does not answer"
}
add_filter() {
  zctl add-filter /dev/image/disk --extent-size 64K --bmp-dir "$work/state" --name data --minor 0
}

say "1. A disk: 256 MiB with an ext3 file system and some files"
mkdir -p "$work/files/etc" "$work/run" "$work/state" "$work/cow"
for i in 1 2 3 4 5 6 7 8; do head -c 3000000 /dev/urandom >"$work/files/file$i"; done
echo "as it was at the instant" >"$work/files/etc/note"
head -c $((6000 * 4096)) /dev/zero | tr '\0' '.' >"$work/files/journal"
truncate -s 256M "$work/disk.img"
mke2fs -q -F -t ext3 -b 4096 -d "$work/files" "$work/disk.img"
# Where the file's data lies, in order: "(0-11):1234-1245, (IND):1246, (12-1035):1247-2270".
debugfs -R 'stat journal' "$work/disk.img" 2>/dev/null | tr ',' '\n' |
  sed -n 's/^ *([0-9-]*):\([0-9]*\)-*\([0-9]*\)$/\1 \2/p' |
  while read -r first last; do seq "$first" "${last:-$first}"; done >"$work/blocks"
[ "$(wc -l <"$work/blocks")" = 6000 ] || fail "cannot tell where the file lies"
echo "    $(stat -c '%s bytes, %b blocks of 512 allocated' "$work/disk.img")"
# The next generation of the same disk, as its owner will write it.
cp --sparse=always "$work/disk.img" "$work/next.img"
echo "changed after the snapshot" >"$work/note2"
head -c 4000000 /dev/urandom >"$work/new"
debugfs -w -f - "$work/next.img" >/dev/null 2>&1 <<X
rm etc/note
write $work/note2 etc/note
rm file2
write $work/new file9
X

say "2. zorvd serves it through a filter node, both change bitmaps on"
serve
run add_filter
zctl bmp clear data incr >/dev/null
zctl bmp clear data diff >/dev/null
run zctl start data
run nbdinfo --size "$(uri data)"

say "3. A client writes the 6000 blocks of a file, one after the other, and a snapshot starts meanwhile"
cat >"$work/writer.py" <<'X'
import nbd, sys
h = nbd.NBD(); h.connect_uri(sys.argv[1])
for i, block in enumerate(open(sys.argv[2]).read().split()):
    h.pwrite((b"block %06d " % i).ljust(4096, b"#"), int(block) * 4096)
    print(i, flush=True)
X
run zctl add-snap data --chunk-size 64K --cow-dir "$work/cow" --name yesterday --minor 1
: >"$work/written"
$python "$work/writer.py" "$(uri data)" "$work/blocks" >"$work/written" &
writer=$!
while [ "$(wc -l <"$work/written")" -lt 500 ]; do sleep 0.01; done
before=$(tail -n 1 "$work/written")
run zctl start yesterday
after=$(tail -n 1 "$work/written")
wait "$writer"
nbdcopy "$(uri yesterday)" "$work/instant.img"
cat >"$work/prefix.py" <<'X'
import sys
f = open(sys.argv[1], "rb")
def holds(i, block):
    f.seek(int(block) * 4096)
    return f.read(12).startswith(b"block %06d" % i)
seen = [holds(i, b) for i, b in enumerate(open(sys.argv[2]).read().split())]
k = seen.index(False) if False in seen else len(seen)
assert not any(seen[k:]), "the snapshot holds a later block without an earlier one"
print(k)
X
k=$($python "$work/prefix.py" "$work/instant.img" "$work/blocks")
# Free space is neither copied nor shown: what counts is every block that the file system holds.
cat >"$work/same.py" <<'X'
import re, subprocess, sys
a, b = open(sys.argv[1], "rb"), open(sys.argv[2], "rb")
free = set()
for line in subprocess.run(["dumpe2fs", sys.argv[1]], capture_output=True, text=True).stdout.splitlines():
    m = re.match(r"  Free blocks: (.*)", line)
    for lo, hi in re.findall(r"(\d+)(?:-(\d+))?", m.group(1)) if m else []:
        free.update(range(int(lo), int(hi or lo) + 1))
n = held = 0
while block := a.read(4096):
    other = b.read(4096)
    if n not in free:
        held += 1
        if block != other: sys.exit(f"block {n} differs")
    n += 1
print(held)
X
same() { $python "$work/same.py" "$work/instant.img" "$1" || fail "the snapshot changed"; }
[ "$k" -ge "$before" ] || fail "a block written before the start is missing from the snapshot"
echo "    when the start was asked for, $((before + 1)) blocks were written; when it returned, $((after + 1));"
echo "    the snapshot holds exactly the first $k of the 6000, and none of the later ones"

say "4. The owner overwrites what the snapshot shows"
run nbdcopy "$work/next.img" "$(uri data)"
run zctl info yesterday

say "5. Proof: the snapshot still shows every byte of its instant, the disk does not"
nbdcopy "$(uri yesterday)" "$work/again.img"
n=$(same "$work/again.img")
echo "    snapshot: all $n blocks that its file system holds are what they were"
e2fsck -fn "$work/again.img" >"$work/fsck" 2>&1 || { head "$work/fsck"; fail "the snapshot's file system is not clean"; }
echo "    snapshot: e2fsck finds it clean; etc/note: \"$(debugfs -R 'cat etc/note' "$work/again.img" 2>/dev/null)\""
nbdcopy "$(uri data)" "$work/now.img"
cmp -s "$work/instant.img" "$work/now.img" && fail "the disk did not change"
cmp "$work/next.img" "$work/now.img" || fail "the disk is not what its owner wrote"
echo "    disk:     etc/note: \"$(debugfs -R 'cat etc/note' "$work/now.img" 2>/dev/null)\""

say "6. Which ranges changed since the bitmaps were cleared"
# A quiet state to compare with: clear, write four known ranges, list them.
zctl bmp clear data incr >/dev/null
qemu-io -f raw -c "write -q -P 1 1M 4k" -c "write -q -P 2 8191k 2k" -c "write -q -P 3 100M 1M" \
  -c "write -q -P 4 268431360 4096" "$(uri data)"
run zctl bmp show data incr
got=$(zctl --json bmp show data incr | $python -c 'import json,sys
print([(r["offset"], r["length"]) for r in json.load(sys.stdin)["ranges"]])')
want="[(1048576, 65536), (8323072, 131072), (104857600, 1048576), (268369920, 65536)]"
[ "$got" = "$want" ] || fail "expected $want, got $got"

say "7. Stop, restart the daemon, resume the snapshot, prove it again"
nbdcopy "$(uri data)" "$work/now.img"
kill "$daemon"; wait "$daemon" || fail "zorvd did not end cleanly"
serve
add_filter >/dev/null
run zctl bmp show data incr
[ "$(zctl --json bmp show data incr)" != "" ] || fail "no bitmap"
run zctl add-snap data --chunk-size 64K --cow-dir "$work/cow" --name yesterday --minor 1
run zctl resume yesterday
nbdcopy "$(uri yesterday)" "$work/third.img"
n=$(same "$work/third.img")
echo "    the resumed snapshot: all $n blocks are what they were"
got=$(zctl --json bmp show data incr | $python -c 'import json,sys
print([(r["offset"], r["length"]) for r in json.load(sys.stdin)["ranges"]])')
[ "$got" = "$want" ] || fail "the restart lost the bitmap: $got"

say "8. A crash: a client writes more, and kill -9 hits the daemon before it has saved"
cat >"$work/crash.py" <<'X'
import nbd, os, signal, sys
h = nbd.NBD(); h.connect_uri(sys.argv[1])
h.pwrite(b"!" * 4096, 64 << 20)
os.kill(int(sys.argv[2]), signal.SIGKILL)
X
# In one group, so that the shell's own word about the end of its job stays away.
{ $python "$work/crash.py" "$(uri data)" "$daemon"; wait "$daemon" || true; } 2>/dev/null
serve
add_filter >/dev/null
run zctl bmp show data incr
got=$(zctl --json bmp show data incr | $python -c 'import json,sys
print([(r["offset"], r["length"]) for r in json.load(sys.stdin)["ranges"]])')
[ "$got" = "[(0, 268435456)]" ] || fail "after a crash everything has to count as changed, got $got"
echo "    everything counts as changed: no outdated bitmap ever looks current"
say "done"
