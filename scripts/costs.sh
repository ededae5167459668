#!/usr/bin/env bash
# Prints what the shim's own work costs per call, in both word sizes: the calls
# below it are empty, and what the measuring loop itself takes is subtracted.
# Needs root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
if [ "${1-}" != inside ]; then
  install_missing "${build_packages[@]}" valgrind libc6-dbg util-linux
  for preset in bench bench32; do
    cmake --preset $preset >/dev/null && cmake --build --preset $preset >/dev/null
  done
  exec unshare --mount --ipc "$0" inside
fi

# A server root and an agent's directories of our own.
mount --make-rprivate /
mount -t tmpfs none /opt
mkdir -p /opt/tolvane/agent/{logs,config,data} /opt/server/{conf,logs}
printf 'Listen 8080\n' >/opt/server/conf/httpd.conf
echo prefork >/opt/server/logs/.tolvane_info
echo $$ >/opt/server/logs/httpd.pid
export WEB_SERVER=apache WEB_SERVER_ROOT=/opt/server NUM_SEMAPHORES=1 SSL_FACTOR=start

# run BUILD INTERVAL with|without SCENARIO CONFIGURATION COUNT
run() {
  local libraries="build/$1/lib/libempty_calls.so"
  [ "$3" = without ] || libraries="build/$1/lib/libtolvane.so $libraries"
  REQUEST_INTERVAL=$2 LD_PRELOAD=$libraries ${wrap-} "build/$1/bin/call_cost" "$4" "$5" "$6"
}
# The best of several runs, in nanoseconds a call.
nanoseconds() {
  for _ in 1 2 3 4 5; do run "$@" 1000000; done | sort -n | head -1
}
# Instructions a call: what twice as many calls take more.
instructions() {
  local counted=()
  for count in 20000 40000; do
    wrap="valgrind --tool=callgrind --callgrind-out-file=/dev/null" run "$@" $count 2>&1 >/dev/null |
      sed -n 's/.*Collected : //p' >/opt/collected
    counted+=("$(cat /opt/collected)")
  done
  awk -v a="${counted[0]-0}" -v b="${counted[1]-0}" 'BEGIN { printf "%.0f", (b - a) / 20000 }'
}

# row BUILD TITLE INTERVAL SCENARIO CONFIGURATION
row() {
  local build=$1 title=$2 ours=(with "$4" "$5") bare=(without "$4" none)
  awk -v title="$title" -v system_pair="$system_pair" \
    -v with="$(nanoseconds "$build" "$3" "${ours[@]}")" -v without="$(nanoseconds "$build" "$3" "${bare[@]}")" \
    -v i="$(instructions "$build" "$3" "${ours[@]}")" -v j="$(instructions "$build" "$3" "${bare[@]}")" 'BEGIN {
      printf "%-58s %8.1f ns %6.0f instructions %7.1f %%\n", title, with - without, i - j,
        100 * (with - without) / (system_pair / 2) }'
}

never=20000  # calls between two publications where they are not what is measured
for build in bench bench32; do
  system_pair=$(nanoseconds "$build" $never without system-pair none)
  echo "== $build: a bare read or write of one byte on a socket takes $(awk "BEGIN { print $system_pair / 2 }") ns (100 %)"
  row $build "read on an untracked descriptor" $never untracked-read none
  row $build "read within a request" $never read fullest
  row $build "write within a response" $never write fullest
  row $build "read and write of one byte (smallest request)" $never byte-pair none
  row $build "the same, a real request, no configuration" $never request-pair none
  row $build "the same, one site and category" $never request-pair small
  row $build "the same, fullest configuration, URL matches nothing" $never request-pair fullest
  row $build "the same, a byte and a real response" $never response-pair none
  row $build "accept and close" $never accept-close none
  row $build "write with a publication, nothing to hand on" 1 write fullest
  row $build "smallest request with a publication at its write" 1 byte-pair none
  row $build "real request, fullest, with a publication at its write" 1 request-pair fullest
done

echo "== the monitor's cycle"
for slots in 75 1000 10000; do build/bench/bin/monitor_cycle $slots; done
