#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# Fails when a product binary holds what makes services fail or cuts the power in tests.
#   scripts/check-product.sh BUILD
set -euo pipefail
build=${1:?usage: scripts/check-product.sh BUILD}
test_doubles='kernel::(fault_|unsynced_|fs_recording)|zorv::memory_disk|lock_order_taking'
for program in src/zorvd src/zorvctl src/libzorv.so; do
  symbols=$(nm -C "$build/$program")
  grep -q ' [TtWw] ' <<<"$symbols" || { echo "$program has no symbols to look at" >&2; exit 1; }
  if grep -E "$test_doubles" <<<"$symbols"; then
    echo "$program holds what only tests may" >&2
    exit 1
  fi
done
