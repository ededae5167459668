#!/usr/bin/env bash
# per_call.sh BUILD...: what the shim adds to each kind of call, and what handing
# on its counts costs, measured with the programs of the given build directories
# (presets bench and bench32). Prints figures in the format of measured.sh: per
# row nanoseconds, shares of bare system calls, and instructions. Takes about a
# minute and a half for two builds. Needs root, valgrind and iproute2.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/measured.sh"
if [ "$1" != inside ]; then exec unshare --mount --ipc --net "$here/per_call.sh" inside "$@"; fi
shift

# A server root, an agent's directories and a loopback interface of our own.
ip link set lo up
mount --make-rprivate /
mount -t tmpfs none /opt
mkdir -p /opt/tolvane/agent/{logs,config,data} /opt/server/{conf,logs}
printf 'Listen 8080\n' >/opt/server/conf/httpd.conf
echo $$ >/opt/server/logs/httpd.pid
# So many calls between two publications that these do not show.
export WEB_SERVER=apache WEB_SERVER_ROOT=/opt/server NUM_SEMAPHORES=1 SSL_FACTOR=start REQUEST_INTERVAL=20000

for build in "$@"; do
  build=$(realpath "$build")
  for group in none small fullest threads; do
    module=prefork
    [ $group != threads ] || module=worker
    echo $module >/opt/server/logs/.tolvane_info
    preload="$build/lib/libtolvane.so $build/lib/libempty_calls.so" measure "$build/bin/per_call" $group
  done
  for kind in type0 75 10000; do measure "$build/bin/publication_cost" $kind; done
done
