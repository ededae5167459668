#!/usr/bin/env bash
# Measures `tolvane serve` beside 50 servers of 16 records that publish all the
# time, at one taking a second. Needs root or sudo, and the presets release and
# bench built.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1-}" != inside ]; then
  exec unshare --mount --ipc --net --pid --fork --mount-proc "$0" inside
fi
mount --make-rprivate /
mount -t tmpfs none /opt
mkdir -p /opt/tolvane/agent/{logs,config,data}
ip link set lo up
load() { build/bench/bin/collector_load build/release/bin/tolvane "$@"; }
load 50 16 20 2 3
load 50 16 20 10 15
