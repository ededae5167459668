#!/usr/bin/env bash
# fuzz.sh [EXECUTIONS [TARGET...]]: runs the fuzz targets, all unless some are
# named, two at a time, that many times each (1,000,000 unless told).
#
# Installs what is missing on a Debian 12 and builds first. Prints a line a target
# and fails when one failed; docs/testing.md says what to do then. What a run
# found worth keeping stays in build/fuzz/runs/TARGET, where the next one goes on.
# Packages need root or sudo, the targets do not.
set -euo pipefail
cd "$(dirname "$0")/.."
executions=${1:-1000000}
targets=("${@:2}")
[ ${#targets[@]} -gt 0 ] || targets=(request response messages http2 configuration server_files)
if ! [[ $executions =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: scripts/fuzz.sh [EXECUTIONS [TARGET...]]" >&2
  exit 2
fi

. scripts/packages.sh
install_missing "${build_packages[@]}" clang libclang-rt-dev
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}"

# fuzz TARGET: runs it and prints its line.
fuzz() {
  local target=$1 runs=build/fuzz/runs/$1 dictionary=tests/fuzz/dictionaries/$1.dict options=()
  mkdir -p "$runs/corpus"
  [ -e "$dictionary" ] && options=(-dict="$dictionary")
  local command=(build/fuzz/bin/fuzz_"$target" -runs="$executions" -max_len=512 -timeout=10
    -entropic=0 -artifact_prefix="$runs/" -print_final_stats=1 "${options[@]}" "$runs/corpus" tests/fuzz/seeds/"$target")
  local status=0
  "${command[@]}" >"$runs/log" 2>&1 || status=$?
  if [ $status -ne 0 ]; then
    printf '%-14s FAILED, see %s\n' "$target" "$runs/log"
    grep -E '^DIFFERENCE|ERROR:|SUMMARY:|Test unit written' "$runs/log" | sed 's/^/  /'
    return 1
  fi
  awk -v target="$target" '
    /number_of_executed_units/ { executions = $2 }
    /average_exec_per_sec/ { rate = $2 }
    / corp: / { split($0, part, " corp: "); split(part[2], corpus, "/") }
    END {
      printf "%-14s %d executions, %d a second, corpus %d, differences 0\n",
             target, executions, rate, corpus[1]
    }' "$runs/log"
}
# The targets free what they allocate at once: keeping it costs half the speed.
export ASAN_OPTIONS=quarantine_size_mb=1:malloc_context_size=0
export -f fuzz
export executions
printf '%s\n' "${targets[@]}" | xargs -P 2 -I TARGET bash -c 'fuzz TARGET'
