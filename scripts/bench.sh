#!/usr/bin/env bash
# bench.sh [--quick] [--only SECTION,...]: what the shim costs, as one table.
#
# Installs what is missing on a Debian 12, builds, measures, prints the table and
# leaves it in build/bench-table.txt. Sections: per-call, parsing, apache,
# https, connections, publication, collector; all of them take about a quarter of an hour, --quick
# a few minutes, which is enough to see that everything works and too little for
# figures. docs/performance.md says what the rows mean. Leaves the machine as it
# was, but for installed packages and build/. Needs root or sudo, and two cores.
set -euo pipefail
cd "$(dirname "$0")/.."
section='(per-call|parsing|apache|https|connections|publication|collector)'
if ! [[ " $*" =~ ^(\ --quick|\ --only\ $section(,$section)*)*\ ?$ ]]; then
  echo "usage: scripts/bench.sh [--quick] [--only SECTION,...], SECTION of $section" >&2
  exit 2
fi
if [ "$(id -u)" -ne 0 ]; then exec sudo "$0" "$@"; fi
if [ "$(nproc)" -lt 2 ]; then
  echo "The server and its clients need a core each" >&2
  exit 1
fi

. scripts/packages.sh
install_missing "${build_packages[@]}" "${tool_packages[@]}" apache2-bin nghttp2-client openssl valgrind libc6-dbg \
  util-linux media-types python3 libbenchmark-dev libhyperscan-dev libre2-dev
bench/unpacked_packages.sh build/bench-packages
for preset in bench bench32; do
  cmake --preset $preset -DTOLVANE_BENCH_PACKAGES="$PWD/build/bench-packages/root" >/dev/null
  cmake --build --preset $preset
done
cmake --preset release -DTOLVANE_TOOL=ON >/dev/null
cmake --build --preset release --target tolvane tolvane-cli

# What is measured ends with its namespace of processes, and that with this script.
measuring=
trap '[ -z "$measuring" ] || kill -KILL "$measuring" 2>/dev/null' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
unshare --mount --ipc --net --pid --fork --kill-child --mount-proc \
  /usr/bin/python3 -B bench/bench.py "$@" &
measuring=$!
wait $measuring
measuring=
