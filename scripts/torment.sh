#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# What may not happen to anybody's data, tried from outside on the programs as they are installed:
# real files and loop devices, kill -9, syncs that fail or take long (tests/torment/syncs.c), names
# that lead elsewhere. One line for each behaviour; ends with 1 when one of them fails.
#   torment.sh [BUILD_DIR [WORD]]   the release build; only the cases with WORD in their names
set -euo pipefail

self=$(readlink -f "$0")
here=${self%/scripts/*}
build=${1:-$here/build/release}
python=/usr/bin/python3 # Debian's: it has the nbd module
export PATH=$PATH:/usr/sbin:/sbin LC_ALL=C

# ---- vocabulary of the cases; each runs in a folder of its own, in a process of its own ----------
KiB=1024
MiB=$((1024 * KiB))
declare -A daemons=()
undo=()

at_end() {
  for step in "${undo[@]}"; do eval "$step" || true; done
  for pid in "${daemons[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
}
fail() { echo "not so: $*"; exit 1; }
refused() { if "$@"; then fail "accepted: $*"; fi; }
refused_for() { # WORDS COMMAND...: the reason is said
  local words=$1
  shift
  if "$@" >said 2>&1; then fail "accepted: $*"; fi
  grep -q -e "$words" said || { cat said; fail "for another reason: $*"; }
}
within() { # SECONDS COMMAND...
  local limit=$1 before took rc=0
  shift
  before=$(date +%s%N)
  "$@" || rc=$?
  took=$((($(date +%s%N) - before) / 1000000))
  [ $took -lt $((limit * 1000)) ] || fail "took $took ms: $*"
  return $rc
}
eventually() { # COMMAND...
  for _ in $(seq 100); do
    "$@" && return
    sleep 0.1
  done
  fail "never: $*"
}
# A daemon of the folder NAME; every disk an image in the current folder, named like it.
serve() { # NAME [ARGUMENT...]
  local name=$1
  shift
  ZORV_SYNCS=$PWD/syncs LD_PRELOAD=$syncs "$build/src/zorvd" --run-dir "$PWD/$name" --state-dir "$PWD/$name.state" "$@" 2>>"$name.log" &
  daemons[$name]=$!
  eventually answers_or_ended "$name"
  kill -0 "${daemons[$name]}" 2>/dev/null && on "$name" disks >/dev/null && return
  cat "$name.log"
  return 1
}
answers_or_ended() { on "$1" disks >/dev/null 2>&1 || ! kill -0 "${daemons[$1]}" 2>/dev/null; }
on() { # NAME COMMAND...
  local name=$1
  shift
  "$build/src/zorvctl" --socket "$PWD/$name/control.sock" "$@"
}
z() { on run "$@"; }
io() { # NODE OPERATION...
  "$python" "$here/tests/torment/io.py" "nbd+unix:///$1?socket=$PWD/run/nbd.sock" "${@:2}"
}
# Ends a daemon; the status it ends with. `kill -9` leaves what a crash leaves.
end() { # NAME [SIGNAL]
  local pid=${daemons[$1]}
  unset "daemons[$1]"
  kill "-${2:-TERM}" "$pid"
  wait "$pid" 2>/dev/null
}
crash() { end "$1" KILL || true; }
# The same under a client that has the node open: nothing is saved when it leaves.
crash_under() { # NODE OPERATION...
  io "$@" "kill:${daemons[run]}" || true # a refused write is an answer as well
  crash run
}
rules() { printf '%s\n' "$@" >syncs; } # none: syncs are what they are
image() { truncate -s "$2" "$1.img"; } # NAME SIZE
filter() { # DISK [NAME [ARGUMENT...]]
  local name=${2:-$1}
  z add-filter "$1" --extent-size 64K --bmp-dir "$PWD" --name "$name" "${@:3}" >/dev/null
  z start "$name" >/dev/null
}
snap() { # FILTER NAME [DATA-FILE]
  z add-snap "$1" --chunk-size 64K --name "$2" --cow-bmp "$PWD/$2.bmp" --cow-data "${3:-$PWD/$2.cow}" >/dev/null
}
valid() { [ "$(z --json info "$1" | sed -n 's/.*"snap_valid": \([01]\).*/\1/p')" = 1 ]; }
changed() { # NODE OFFSET: whether the bitmap says so
  z bmp show "$1" incr | awk -v at="$2" '/^[0-9]/ && $1 <= at && at < $1 + $2 { found = 1 } END { exit !found }'
}
# A disk of 16 MiB full of ones behind the filter "data", its bitmaps cleared and saved.
clean_disk() {
  head -c $((16 * MiB)) /dev/zero | tr '\0' '\1' >disk.img
  serve run --disk "$PWD/disk.img,name=disk"
  filter disk data
  z bmp clear data incr >/dev/null
  z bmp save data incr >/dev/null
}
again() { serve run --disk "$PWD/disk.img,name=disk"; filter disk data; }

# ---- the cases: the text of each stands in `cases` -----------------------------------------------
cow_names() {
  clean_disk
  cp disk.img before.img
  ln -s disk.img link
  ln disk.img hard
  mkdir folder
  ln -s "$PWD" folder/up
  for name in link hard folder/up/disk.img folder/../disk.img zorv0.incr run/zorvd.lock run.log; do
    if snap data s "$PWD/$name" 2>/dev/null; then
      refused z start s 2>/dev/null
      z del s >/dev/null
    fi
    cmp disk.img before.img
    [ -s "$name" ] || fail "$name is gone or empty"
  done
  snap data one
  z start one >/dev/null
  snap data two "$PWD/folder/../one.cow"
  refused z start two 2>/dev/null
  valid one
  cmp disk.img before.img
}
bitmap_names() {
  head -c $((16 * MiB)) /dev/zero | tr '\0' '\1' >disk.img
  cp disk.img before.img
  ln -s disk.img zorv0.incr
  ln disk.img zorv0.diff
  serve run --disk "$PWD/disk.img,name=disk"
  filter disk data 2>/dev/null || return 0
  z bmp save data incr >/dev/null 2>&1 || true
  z bmp save data diff >/dev/null 2>&1 || true
  z stop data >/dev/null 2>&1 || true
  cmp disk.img before.img
}
two_daemons_bitmaps() {
  clean_disk
  io data write:1048576:65536:2 flush
  image other 16M
  serve other --disk "$PWD/other.img,name=other"
  if on other add-filter other --extent-size 64K --bmp-dir "$PWD" --name theirs --minor 0 >/dev/null; then
    on other bmp clear theirs incr >/dev/null || true
    on other bmp save theirs incr >/dev/null 2>&1 || true
  fi
  end other || true
  crash run
  again
  changed data 1048576
}
exchanged_disks() {
  image a 16M
  image b 16M
  serve run --disk "$PWD/a.img,name=a" --disk "$PWD/b.img,name=b"
  filter a
  filter b
  z bmp clear a incr >/dev/null
  z bmp clear b incr >/dev/null
  io a write:1048576:65536:1
  end run
  serve run --disk "$PWD/a.img,name=a" --disk "$PWD/b.img,name=b"
  filter b
  filter a
  changed a 1048576
  end run
  # Another disk where the first one was.
  rm a.img
  image a 16M
  serve run --disk "$PWD/a.img,name=a"
  filter a a --minor 0
  changed a 8388608
}
long_folder() {
  image disk 16M
  local folder=$PWD
  while [ ${#folder} -lt 760 ]; do folder=$folder/$(printf 'x%.0s' $(seq 200)); done
  folder=$folder/$(printf 'y%.0s' $(seq $((1018 - ${#folder} - 1))))
  mkdir -p "$folder"
  serve run --disk "$PWD/disk.img,name=disk"
  # Refused, or two files.
  z add-filter disk --extent-size 64K --bmp-dir "$folder" --name data >/dev/null 2>&1 || return 0
  z bmp save data incr >/dev/null
  z bmp save data diff >/dev/null
  [ "$(find "$folder" -name '*.incr' -o -name '*.diff' | wc -l)" = 2 ]
}
two_daemons_cow() {
  clean_disk
  snap data s
  z start s >/dev/null
  io data write:0:1048576:2
  image other 16M
  serve other --disk "$PWD/other.img,name=other"
  on other add-filter other --extent-size 64K --bmp-dir "$PWD/other" --name theirs >/dev/null
  on other start theirs >/dev/null
  on other add-snap theirs --chunk-size 64K --name s --cow-bmp "$PWD/s.bmp" --cow-data "$PWD/s.cow" >/dev/null
  refused on other start s
  refused on other attach "$PWD/s.cow" --name stolen
  valid s
  io s read:0:16777216:1
}
renamed_cow() {
  clean_disk
  snap data s
  z start s >/dev/null
  cp disk.img precious
  mv s.cow moved
  ln -s precious s.cow
  rules "fail moved 5"
  io data write:0:1048576:2
  refused valid s
  rules
  z stop s >/dev/null
  z del s >/dev/null || true
  cmp precious <(head -c $((16 * MiB)) /dev/zero | tr '\0' '\1')
}
cut_cow() {
  clean_disk
  snap data s
  z start s >/dev/null
  io data write:0:16777216:2
  io s read:0:16777216:1
  truncate -s 1M s.cow
  refused io s read:8388608:65536:1
  truncate -s 16M s.cow
  refused io s read:8388608:65536:0
  refused valid s
}
strange_names_in_run() {
  mkdir run
  echo precious >run/nbd.sock
  image disk 16M
  refused serve run --disk "$PWD/disk.img,name=disk"
  [ "$(cat run/nbd.sock)" = precious ]
  rm -r run
  mkdir -m 777 run
  refused_for "$PWD/run" serve run --disk "$PWD/disk.img,name=disk"
}
failed_save() {
  clean_disk
  for nth in 1 2 3 4 5 6 7 8; do
    rules "fail zorv0.incr 5 $nth"
    z bmp save data incr >/dev/null 2>&1 || true
    crash_under data "write:$((nth * MiB)):65536:2" flush
    rules
    again
    changed data $((nth * MiB))
    z bmp clear data incr >/dev/null
    z bmp save data incr >/dev/null
  done
}
no_descriptors() {
  clean_disk
  crash_under data "nofile:${daemons[run]}" write:1048576:65536:2 flush
  again
  cmp -s -n 65536 -i 1048576 disk.img <(head -c $((16 * MiB)) /dev/zero | tr '\0' '\1') || changed data 1048576
}
read_only_folder() {
  local loop
  head -c $((16 * MiB)) /dev/zero | tr '\0' '\1' >disk.img
  cp disk.img before.img
  image fs 32M
  mke2fs -q -F -t ext4 fs.img
  mkdir bmp
  loop=$(losetup -f --show fs.img)
  undo+=("losetup -d $loop")
  mount -o errors=remount-ro "$loop" bmp
  undo=("crash run" "umount $PWD/bmp" "${undo[@]}")
  serve run --disk "$PWD/disk.img,name=disk"
  z add-filter disk --extent-size 64K --bmp-dir "$PWD/bmp" --name data >/dev/null
  z start data >/dev/null
  z bmp clear data incr >/dev/null
  z bmp save data incr >/dev/null
  echo 1 >"/sys/fs/ext4/${loop#/dev/}/trigger_fs_error"
  crash_under data write:1048576:65536:2 flush
  umount bmp
  mount -o errors=continue "$loop" bmp
  serve run --disk "$PWD/disk.img,name=disk"
  z add-filter disk --extent-size 64K --bmp-dir "$PWD/bmp" --name data >/dev/null
  cmp -s disk.img before.img || changed data 1048576
  z info data | grep -q "trouble .*noted in the state folder: $PWD/bmp/zorv0.incr"
  z list | grep -q "data: .*noted in the state folder"
  z del data >/dev/null
  undo=("${undo[@]:1}")
  refused end run
}
slow_save() { # longer than any limit to the wait for a mark
  clean_disk
  rules "slow zorv0.incr 1500"
  z --limit 0 bmp save data incr >/dev/null 2>&1 &
  sleep 0.3
  crash_under data write:1048576:65536:2 flush
  wait $! || true
  rules
  again
  changed data 1048576
}
crash_while_handing_out() {
  clean_disk
  for tenths in 1 4 7 10 13 16 19; do
    rules
    io data write:1048576:65536:2 flush
    rules "slow zorv0.incr 300"
    z --limit 0 bmp get-clear data incr -o got >/dev/null 2>&1 &
    sleep "$((tenths / 10)).$((tenths % 10))"
    crash run
    local has_it=no
    wait $! && has_it=yes
    rules
    again
    [ $has_it = yes ] || changed data 1048576
    z bmp clear data incr >/dev/null
    z bmp save data incr >/dev/null
  done
}
taken_and_lost() {
  clean_disk
  io data write:1048576:65536:2 flush
  refused z --json bmp get-clear data incr >/dev/full 2>/dev/null
  changed data 1048576
  "$python" "$here/tests/torment/deaf.py" "$PWD/run/control.sock" 0xc018430e 0 32 close
  eventually changed data 1048576
}
memory_given_back() {
  clean_disk
  "$python" "$here/tests/torment/deaf.py" "$PWD/run/control.sock" 0xc018430e 0 32 40 $((64 * MiB))
  z bmp get data incr -o got
}
files_of_deleted() {
  clean_disk
  snap data s
  z start s >/dev/null
  z stop s >/dev/null
  z del s | grep -q "$PWD/s.cow"
  [ ! -e s.cow ] && [ ! -e s.bmp ]
  z stop data >/dev/null
  z del data >/dev/null
  [ -e zorv0.incr ] && [ -e zorv0.diff ]
}
disk_error_stays() {
  clean_disk
  io data write:0:1048576:2
  rules "fail disk.img 28 1"
  refused io data fua:2097152:4096:3
  refused io data flush
  refused io data fua:2097152:4096:3
}
interrupted_start() {
  clean_disk
  snap data s
  for tenths in 1 4 7 10; do
    z start s >/dev/null
    io data write:0:16777216:$((tenths + 1)) flush
    z stop s >/dev/null
    rules "slow /s. 300"
    z start s >/dev/null 2>&1 &
    sleep "$((tenths / 10)).$((tenths % 10))"
    crash run
    wait $! || true
    rules
    again
    snap data s
    # What the file held before, what the disk held at the start that was cut off, or nothing.
    if z resume s >/dev/null 2>&1 && valid s; then
      io s "read:0:16777216:$((tenths + 1))" || io s "read:0:16777216:$((tenths == 1 ? 1 : tenths - 2))"
    fi
    z stop s >/dev/null 2>&1 || true
  done
}
failed_flush() {
  clean_disk
  io data write:0:65536:2
  rules "fail disk.img 5"
  "$python" - "nbd+unix:///data?socket=$PWD/run/nbd.sock" <<'PY'
import nbd, sys
h = nbd.NBD()
h.connect_uri(sys.argv[1])
for _ in range(2):
    try:
        h.flush()
        sys.exit("a flush went well")
    except nbd.Error:
        pass
assert h.pread(4096, 0) == b"\2" * 4096
PY
}
stopped_daemon() {
  image disk 16M
  serve run --disk "$PWD/disk.img,name=disk"
  kill -STOP "${daemons[run]}"
  undo+=("kill -CONT ${daemons[run]}")
  within 5 refused_for "no answer\|does not answer" z --limit 2 list
}
stopped_snap_misses_a_write() {
  clean_disk
  snap data s
  z start s >/dev/null
  io data write:0:1048576:2
  z stop s >/dev/null
  io data write:2097152:1048576:3
  refused_for "missed writes" z resume s
  refused valid s
}
copies_put_back() { # on a file system that keeps no times of birth
  truncate -s 96M fs
  mkfs.ext4 -q -F -I 128 fs 2>/dev/null
  mkdir mnt
  mount -o loop,noatime fs mnt
  undo+=("umount -l mnt")
  clean_disk
  z add-snap data --chunk-size 64K --name s --cow-bmp "$PWD/mnt/s.bmp" --cow-data "$PWD/mnt/s.cow" >/dev/null
  z start s >/dev/null
  for f in mnt/s.bmp mnt/s.cow; do cp --sparse=always $f $f.old; done
  io data write:0:1048576:2
  crash run
  for f in mnt/s.bmp mnt/s.cow; do rm $f && cp --sparse=always $f.old $f; done # the inode numbers come back, too
  again
  z add-snap data --chunk-size 64K --name s --cow-bmp "$PWD/mnt/s.bmp" --cow-data "$PWD/mnt/s.cow" >/dev/null
  refused_for "copies" z resume s
  refused valid s
  end run
}
running_snap_survives_a_crash() {
  clean_disk
  snap data s
  z start s >/dev/null
  io data write:0:1048576:2 flush
  io data write:2097152:14680064:4 2>/dev/null & # under way when the end comes
  sleep 0.1
  crash run
  wait $! || true
  again
  snap data s
  z resume s >/dev/null
  valid s
  io s read:0:16777216:1
  io data write:4194304:1048576:3
  io s read:0:16777216:1
}
resume_behind_a_start() {
  clean_disk
  snap data old
  z start old >/dev/null
  io data write:0:1048576:2 flush
  crash run
  again
  snap data new
  z start new >/dev/null
  snap data old
  z resume old >/dev/null
  io data write:0:2097152:3
  io new read:0:1048576:2 read:1048576:1048576:1
  if valid old; then io old read:0:16777216:1; fi
}
pool_label() {
  image disk 64M
  mke2fs -q -F -t ext4 disk.img
  for at in $((128 * KiB)) $((384 * KiB)) $((64 * MiB - 384 * KiB)); do
    printf '\x0c\xb1\xba\0\0\0\0\0' | dd of=disk.img bs=1 seek=$at conv=notrunc status=none
  done
  serve run --disk "$PWD/disk.img,name=disk"
  filter disk data
  snap data s
  z start s >/dev/null
  [ "$(z --json datablock show s --extent-size 64K | sed -n 's/.*"total": \([0-9]*\).*/\1/p')" = $((64 * MiB)) ]
  io data write:50331648:1048576:7
  io s read:50331648:1048576:0
}
dump_names() {
  image disk 24M
  mke2fs -q -F -t ext2 -b 1024 disk.img 23456K 2>/dev/null
  truncate -s 23456K disk.img
  echo precious >victim
  local dump=/tmp/bmp.1024.2932
  rm -f "$dump"
  ln -s "$PWD/victim" "$dump"
  undo+=("rm -f $dump")
  serve run --disk "$PWD/disk.img,name=disk"
  z datablock test disk >/dev/null
  [ "$(cat victim)" = precious ] && [ ! -L "$dump" ]
}
own_export() {
  clean_disk
  mkdir fuse mnt
  # In the background: it ends when its mount point goes.
  nbdfuse -P "$PWD/fuse.pid" fuse "nbd+unix:///data?socket=$PWD/run/nbd.sock" >/dev/null 2>&1 &
  eventually test -e fuse.pid
  undo+=("umount $PWD/fuse")
  local loop
  loop=$(losetup -f --show fuse/nbd)
  undo=("losetup -d $loop" "${undo[@]}")
  mke2fs -q -t ext4 "$loop"
  mount "$loop" mnt
  undo=("umount $PWD/mnt" "${undo[@]}")
  refused_for "can't be on" z add-snap data --chunk-size 64K --name s --cow-dir "$PWD/mnt"
  image other 16M
  z attach "$PWD/other.img" --name other >/dev/null
  refused_for "can't be on" z add-filter other --extent-size 64K --bmp-dir "$PWD/mnt"
}
unread_log() {
  image disk 16M
  mkfifo pipe
  "$python" -c 'import fcntl, time; f = open("pipe", "r+b", 0); fcntl.fcntl(f, 1031, 4096); time.sleep(60)' &
  undo+=("kill $!")
  "$build/src/zorvd" --run-dir "$PWD/run" --state-dir "$PWD/state" --disk "$PWD/disk.img,name=disk" zorv_debug=4 2>pipe &
  daemons[run]=$!
  eventually answers_or_ended run
  filter disk data
  for _ in $(seq 40); do within 3 z list >/dev/null; done
  io data write:0:16777216:1
  within 10 end run
}
unread_answer() {
  image disk 512G
  serve run --disk "$PWD/disk.img,name=disk"
  z add-filter disk --extent-size 4K --bmp-dir "$PWD" --name data >/dev/null
  "$python" "$here/tests/torment/deaf.py" "$PWD/run/control.sock" 0xc018430d 0 $((16 * MiB)) &
  undo+=("kill $!")
  sleep 0.5
  within 8 end run
}
abandoned_test() {
  image disk 256G
  mke2fs -q -F -t ext4 -O ^has_journal -E lazy_itable_init=1 disk.img
  serve run --disk "$PWD/disk.img,name=disk"
  z datablock test disk >/dev/null 2>&1 &
  sleep 1
  kill -9 $!
  within 4 end run
}
slow_neighbour() {
  image slow 16M
  image fast 16M
  serve run --disk "$PWD/slow.img,name=slow" --disk "$PWD/fast.img,name=fast"
  filter slow
  filter fast
  io fast write:0:4096:1 flush
  rules "slow slow.img 1000"
  for at in 0 4096 8192 12288 16384 20480; do io slow "write:$at:4096:1" flush & done
  sleep 0.4
  within 1 io fast write:0:4096:1 flush
  rules
  wait %2 %3 %4 %5 %6 %7 2>/dev/null || true
}
stuck_image() {
  clean_disk
  image stuck 16M
  image other 16M
  rules "hold stuck.img"
  z --limit 0 attach "$PWD/stuck.img" >/dev/null &
  sleep 0.3
  within 2 z attach "$PWD/other.img" >/dev/null
  within 2 z detach other >/dev/null
  within 2 z disks | grep -q disk
  rules
  wait $!
  z detach stuck >/dev/null
}
stuck_end() {
  clean_disk
  for why in "asked to end" "takes too long"; do
    io data write:1048576:65536:2
    rules "hold zorv0.incr"
    z --limit 0 bmp save data incr >/dev/null 2>&1 &
    sleep 0.3
    if [ "$why" = "asked to end" ]; then # a second time, before its limit
      kill "${daemons[run]}"
      sleep 2.2
    fi
    within 4 refused end run
    grep -q "$why.*ended while" run.log || fail "it does not say what it waited for"
    rules
    serve run --disk "$PWD/disk.img,name=disk" --stop-limit 1
    filter disk data
    changed data 1048576
    z bmp clear data incr >/dev/null
  done
}
hung_mark() {
  clean_disk
  rules "hold zorv0.incr"
  io data write:1048576:65536:2 # for as long as anybody waits
  refused within 5 z del data
  within 1 z list >/dev/null
  rc=0
  within 10 end run || rc=$?
  [ $rc = 1 ]
  rules
  again
  changed data 1048576
}
hung_cow_file() {
  clean_disk
  snap data s
  z start s >/dev/null
  io data write:0:65536:2
  rules "read s.cow"
  refused within 45 io s read:0:65536:1
  refused valid s
  io data write:1048576:65536:2
  within 5 z stop s >/dev/null
  refused within 5 z del s
  refused within 10 end run
  rules
}
busy_folder() {
  clean_disk
  image other 16M
  z attach "$PWD/other.img" --name other >/dev/null
  io data write:0:4096:2
  rules "slow zorv0.incr 1500"
  z bmp save data incr >/dev/null &
  sleep 0.2
  within 1 z list >/dev/null
  within 1 z info data >/dev/null
  within 1 filter other
  rules
  wait $! || true
}
hang_up() {
  clean_disk
  kill -USR1 "${daemons[run]}"
  kill -USR2 "${daemons[run]}"
  z list >/dev/null
  io data write:1048576:65536:2
  end run HUP
  again
  changed data 1048576
  refused changed data 4194304
}
digits() {
  image a 16M
  image b 16M
  serve run --disk "$PWD/a.img,name=a" --disk "$PWD/b.img,name=b"
  z add-filter a --extent-size 64K --bmp-dir "$PWD" --name 1 --minor 0 >/dev/null
  z add-filter b --extent-size 64K --bmp-dir "$PWD" --name other --minor 1 >/dev/null
  z del --yes 1 >/dev/null 2>&1 || z del 1 >/dev/null 2>&1 || true
  z info other >/dev/null
}
one_name_one_node() {
  image a 16M
  image b 16M
  serve run --disk "$PWD/a.img,name=a" --disk "$PWD/b.img,name=b"
  filter a data
  refused_for data z add-filter b --extent-size 64K --bmp-dir "$PWD" --name data
  io data write:0:4096:1
}
host_major() {
  local major
  major=$(awk '/^Block/ { on = 1 } on && $1 ~ /^[0-9]+$/ { print $1; exit }' /proc/devices)
  image disk 16M
  refused_for major serve run --disk "$PWD/disk.img,name=disk" "zorv_blk_major=$major"
}

# name | needs root? | what holds
cases="
hung_mark||a bitmap file that hangs costs its node's saves, and no write, command or end of the daemon
hung_cow_file||a COW file that hangs costs its snapshot, and no client or end of the daemon
cow_names||a COW file that is somebody's, by whatever name, is refused and stays as it is
bitmap_names||a bitmap file's name that leads to a disk changes nothing on that disk
two_daemons_bitmaps||another daemon on the same folder does not change this one's bitmaps
exchanged_disks||disks that change places do not take each other's bitmaps
long_folder||a bitmap folder with a long name does not make one file of two
two_daemons_cow||another daemon gets neither a running snap's COW files nor the file as a disk
renamed_cow||a snap that is given up empties its own file, not what its name leads to
cut_cow||a COW data file that is cut makes the snap invalid, for good
strange_names_in_run||what lies in the run folder and is not the daemon's stays
failed_save||a save whose sync fails leaves no file that is believed
no_descriptors||a write whose stale mark met no free descriptor is in the bitmap after a crash
read_only_folder|root|a write whose stale mark met a read-only file system is in the bitmap after a crash, and the note is told
slow_save||a write during a slow save is in the bitmap after a crash
crash_while_handing_out||bits that were being handed out survive a crash
taken_and_lost||bits that a client took and could not keep are merged back
memory_given_back||what a client's requests took of the memory is given back
disk_error_stays||a disk error that a FUA write met is every later flush's
failed_flush||a failed flush is an error to the client and costs no connection
interrupted_start||a start that was interrupted leaves nothing that resumes as whole
stopped_snap_misses_a_write||a snap that missed a write while stopped is not resumed as whole
copies_put_back|root|older copies of a snap's files are told from them where no times of birth are kept
running_snap_survives_a_crash||a running snap survives a crash, byte for byte
resume_behind_a_start||a snap resumed after another was started leaves that one as it was
pool_label||a superblock in front of a pool's labels frees nothing
dump_names||the self-test's dumps go through no link
own_export|root|COW and bitmap files on a file system on an own export are refused
unread_log||a log that nobody reads holds up nothing
unread_answer||a control client that does not read holds up the end for seconds only
abandoned_test||a self-test ends with its client
stopped_daemon||zorvctl does not wait for ever for a daemon that does not answer
slow_neighbour||a disk with slow syncs holds up no other disk
stuck_image||an image that hangs when it is attached holds up no other disk
stuck_end||an end that hangs in a file is cut short in time or by a second signal, and loses nothing
busy_folder||a folder with slow syncs holds up no other node's commands
hang_up||SIGHUP saves and ends, SIGUSR1 does nothing
files_of_deleted||what is deleted with a node is said, and nothing else goes
digits||a name of digits is a name
one_name_one_node||a second node of a name is refused
host_major||a major number that the host uses is refused
"

if [ "${ZORV_TORMENT_CASE:-}" != "" ]; then
  syncs=$ZORV_TORMENT_SYNCS
  trap at_end EXIT
  trap 'exit 143' TERM
  "$ZORV_TORMENT_CASE"
  exit
fi

# ---- all of them ---------------------------------------------------------------------------------
if [ ! -x "$build/src/zorvd" ]; then
  [ "$build" = "$here/build/release" ] || { echo "torment: no zorvd in $build" >&2; exit 2; }
  (cd "$here" && cmake --preset release && cmake --build --preset release --target zorvd zorvctl) >/dev/null
fi
build=$(cd "$build" && pwd)
work=$(mktemp -d "${TMPDIR:-/var/tmp}/zorv-torment.XXXXXX")
trap '[ -n "${KEEP:-}" ] || rm -rf --one-file-system "$work"' EXIT
cc -shared -fPIC -O2 -Wall -Werror -o "$work/syncs.so" "$here/tests/torment/syncs.c" -ldl
try() { # NAME TEXT
  mkdir "$work/$1"
  if (cd "$work/$1" && ZORV_TORMENT_CASE=$1 ZORV_TORMENT_SYNCS=$work/syncs.so \
    timeout -k 5 60 "$self" "$build") >"$work/$1.out" 2>&1 </dev/null; then
    printf 'ok    %s\n' "$2"
  else
    printf 'FAIL  %s\n%s\n' "$2" "$(tail -n 8 "$work/$1.out" | sed 's/^/        /')"
    touch "$work/failed"
  fi
}
while IFS='|' read -r name needs text; do
  case "$name" in "" | *[!a-z_]*) continue ;; esac
  case "$name" in *"${2:-}"*) ;; *) continue ;; esac
  if [ "$needs" = root ] && { [ "$(id -u)" != 0 ] || [ ! -e /dev/fuse ] || [ ! -e /dev/loop-control ]; }; then
    printf 'not run  %s (needs root, FUSE and loop devices)\n' "$text"
    continue
  fi
  while [ "$(jobs -pr | wc -l)" -ge 5 ]; do wait -n || true; done
  try "$name" "$text" &
done <<<"$cases"
wait
[ ! -e "$work/failed" ]
