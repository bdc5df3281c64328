#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Installs what the build, the tests and the demo need on Debian 12. Does nothing when all is there.
#   install-deps.sh demo | test | ci | bench
set -eu
build="g++ clang cmake ninja-build make pkg-config libaio-dev libcli11-dev nlohmann-json3-dev"
demo="libnbd-bin python3-libnbd qemu-utils e2fsprogs"
test="libgtest-dev libgmock-dev fio xfsprogs reiserfsprogs procps mount util-linux"
case "${1:-test}" in
  build) want="$build" ;;
  demo) want="$build $demo" ;;
  test) want="$build $demo $test" ;;
  ci) want="$build $demo $test clang-format clang-tidy libclang-rt-14-dev libbenchmark-dev" ;;
  bench) want="$build $demo $test libbenchmark-dev libnbd-dev qemu-system-common nbdkit liburing-dev eatmydata jq gcc python3" ;;
  *) echo "usage: $0 build|demo|test|ci|bench" >&2; exit 2 ;;
esac
missing=""
for p in $want; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
sudo=""
if [ "$(id -u)" != 0 ]; then
  sudo=$(command -v sudo) || { echo "not root and no sudo: install these packages first:$missing" >&2; exit 1; }
fi
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086
$sudo apt-get install -y -q --no-install-recommends $missing >/dev/null 2>&1 ||
  { $sudo apt-get update -q && $sudo apt-get install -y -q --no-install-recommends $missing; }
