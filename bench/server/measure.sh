#!/usr/bin/env bash
# measure.sh WORK long|quick SECTION...: makes the measurements and prints their
# figures; progress goes to standard error. Started by scripts/bench.sh, as root,
# in namespaces of its own, in which nothing outlives this process. WORK holds
# our programs and the shim, and takes what is written meanwhile.
set -euo pipefail
shopt -s inherit_errexit
work=$1
length=$2
shift 2
if [ "$length" = quick ]; then
  builds=(build/bench) seconds=5 starts=1 rounds=5 workers=(10) milliseconds=50
else
  builds=(build/bench build/bench32) seconds=20 starts=4 rounds=90 workers=(1 10 50 200) milliseconds=200
fi

mount --make-rprivate /
mount -t tmpfs none /opt
mkdir -p /opt/tolvane/agent/{logs,config,data}
chmod 1777 /opt/tolvane/agent/logs
ip link set lo up
servers=()
. bench/server/apache.sh
. bench/server/instructions.sh
. bench/server/connections.sh
. bench/server/publication.sh
. bench/server/figures.sh
make_documents

say() { printf '%s %s\n' "$(date +%T)" "$*" >&2; }

measure_module() {
  local variant count
  say "Apache $1: CPU time, throughput, response times, memory"
  measure_apache "$1" $starts $rounds
  apache_figures "Apache $1" "$work/rows-$1"
  apache_figures "Apache $1, a connection for each request" "$work/rows-$1-close"
  say "Apache $1: instructions"
  for variant in "${variants[@]}"; do
    [ "$variant" != "bare again" ] || continue
    count=$(count_instructions "$1" "$variant")
    printf '%s\t%s\n' "$variant" "$count"
  done >"$work/instructions-$1"
  instruction_figures "Apache $1" "$work/instructions-$1"
}

for section in "$@"; do
  case $section in
    per-call)
      say "Per call"
      bench/per_call.sh "${builds[@]}"
      ;;
    parsing)
      say "Parsing and matching"
      bench/parsing.sh build/bench
      ;;
    apache) for module in prefork worker event; do measure_module $module; done ;;
    connections)
      for count in 10 100 1000 "$(most_connections 10000)"; do
        say "$count open connections"
        measure_connections "$count" $starts $rounds
        connection_figures "$count"
      done
      ;;
    publication)
      for count in "${workers[@]}"; do
        say "$count workers that publish"
        measure_publication "$count" 10 $milliseconds
        publication_figures "$count"
      done
      ;;
    collector)
      say "Collector"
      build/bench/bin/collector_load "$work/bin/tolvane" 50 16 $seconds 2 3
      build/bench/bin/collector_load "$work/bin/tolvane" 50 16 $seconds 10 15
      ;;
  esac
done
