#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# zorvd as one peer of a throughput comparison.
#   peer.sh start IMG DIR plain|snap CHUNK   serves IMG; files only inside DIR; prints filter=URI,
#                                            for snap also snap=URI (started), and pid=PID
#   peer.sh stop DIR                         ends it and returns when it is gone
# plain: a filter with both change bitmaps on, no snapshot. ZORV_BUILD names the build folder,
# ZORV_WRAP a command to start zorvd through (eatmydata: what the syncs cost).
set -euo pipefail
build=${ZORV_BUILD:-$(cd "$(dirname "$0")/.." && pwd)/build/release}
zctl() { "$build/src/zorvctl" --socket "$dir/run/control.sock" "$@"; }

case "${1:-}" in
  start)
    img=$2 dir=$3 kind=$4 chunk=$5
    mkdir -p "$dir/run" "$dir/bmp" "$dir/cow"
    # shellcheck disable=SC2086
    setsid ${ZORV_WRAP:-} "$build/src/zorvd" --run-dir "$dir/run" --state-dir "$dir/notes" --disk "$img,name=disk" \
      >"$dir/zorvd.out" 2>"$dir/zorvd.log" </dev/null &
    echo $! >"$dir/pid"
    for _ in $(seq 100); do zctl disks >/dev/null 2>&1 && break; sleep 0.05; done
    zctl add-filter /dev/image/disk --extent-size 64K --bmp-dir "$dir/bmp" --name disk >/dev/null
    zctl bmp clear disk incr >/dev/null
    zctl bmp clear disk diff >/dev/null
    zctl start disk >/dev/null
    echo "filter=nbd+unix:///disk?socket=$dir/run/nbd.sock"
    if [ "$kind" = snap ]; then
      zctl add-snap disk --chunk-size "$chunk" --cow-dir "$dir/cow" --name snap >/dev/null
      zctl start snap >/dev/null
      echo "snap=nbd+unix:///snap?socket=$dir/run/nbd.sock"
    fi
    echo "pid=$(cat "$dir/pid")"
    ;;
  stop)
    dir=$2
    pid=$(cat "$dir/pid")
    kill "$pid" 2>/dev/null || exit 0
    for _ in $(seq 400); do kill -0 "$pid" 2>/dev/null || exit 0; sleep 0.05; done
    kill -9 "$pid"
    ;;
  *) sed -n 2,7p "$0"; exit 2 ;;
esac
