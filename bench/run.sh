#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# Figures for this machine: marking, routing and maps in process, then NBD throughput.
#   run.sh BUILD_DIR [SCRATCH_DIR]
# With the yardstick's peers.sh named by ZORV_PEERS, zorvd is measured beside the bare file and other
# servers in one run, and once more without syncs; without it, by qemu-img's own benchmark against
# the bare file.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:?usage: run.sh BUILD_DIR [SCRATCH_DIR]}" && pwd)
scratch=${2:-$(mktemp -d "${TMPDIR:-/var/tmp}/zorv-bench.XXXXXX")}
export ZORV_BUILD=$build

"$build/bench/zorv_bench" --benchmark_min_time=0.2

if [ -n "${ZORV_PEERS:-}" ]; then
  "$ZORV_PEERS" run -d "$scratch" -o "$scratch/results.jsonl" -r "${ROUNDS:-1}" -t "${SECONDS_EACH:-1}" \
    -S "${SUITE:-all}" -x "zorv=$here/peer.sh" -x "zorv-nosync=env ZORV_WRAP=eatmydata $here/peer.sh"
  "$ZORV_PEERS" report "$scratch/results.jsonl"
  exit 0
fi

trap '"$here/peer.sh" stop "$scratch/srv"; rm -rf "$scratch"' EXIT
head -c $((256 << 20)) /dev/urandom >"$scratch/img"
uri=$("$here/peer.sh" start "$scratch/img" "$scratch/srv" plain 64K | sed -n 's/^filter=//p')
echo
for mode in "" -w; do
  for target in "$scratch/img" "$uri"; do
    printf '%-6s 4 KiB x 32 in flight on %s\n' "${mode:+write}${mode:-read}" "${target%%:*}" | sed 's/-w//'
    # shellcheck disable=SC2086
    qemu-img bench -f raw -t writeback -c 100000 -d 32 -s 4096 -S 69632 $mode "$target" | tail -n 1
  done
done
