#!/usr/bin/env bash
# bench.sh [--quick] [--only SECTION,...]: what the shim costs, as one table.
#
# Installs what is missing on a Debian 12, builds, measures, prints the table and
# leaves it in build/bench-table.txt. Sections: per-call, parsing, apache,
# connections, publication, collector; all of them take about a quarter of an hour, --quick
# a few minutes, which is enough to see that everything works and too little for
# figures. docs/performance.md says what the rows mean. Leaves the machine as it
# was, but for installed packages and build/. Needs root or sudo, and two cores.
set -euo pipefail
cd "$(dirname "$0")/.."
length=long
all_sections=(per-call parsing apache connections publication collector)
sections=("${all_sections[@]}")
arguments=("$@")
usage() {
  local IFS=,
  echo "usage: scripts/bench.sh [--quick] [--only ${all_sections[*]}]" >&2
  exit 2
}
while [ $# -gt 0 ]; do
  case $1 in
    --quick) length=quick ;;
    --only)
      IFS=, read -r -a sections <<<"${2-}"
      [ ${#sections[@]} -gt 0 ] || usage
      for section in "${sections[@]}"; do
        case " ${all_sections[*]} " in *" $section "*) ;; *) usage ;; esac
      done
      shift
      ;;
    *) usage ;;
  esac
  shift
done
if [ "$(id -u)" -ne 0 ]; then exec sudo "$0" "${arguments[@]}"; fi
if [ "$(nproc)" -lt 2 ]; then
  echo "The server and its clients need a core each" >&2
  exit 1
fi

. scripts/packages.sh
install_missing "${build_packages[@]}" "${tool_packages[@]}" apache2-bin valgrind libc6-dbg \
  util-linux iproute2 media-types libbenchmark-dev libhyperscan-dev libre2-dev
bench/unpacked_packages.sh build/bench-packages
for preset in bench bench32; do
  cmake --preset $preset -DTOLVANE_BENCH_PACKAGES="$PWD/build/bench-packages/root" >/dev/null
  cmake --build --preset $preset
done
cmake --preset release -DTOLVANE_TOOL=ON >/dev/null
cmake --build --preset release --target tolvane tolvane-cli

work=$(mktemp -d -t tolvane-bench.XXXXXX)
chmod 755 "$work"
mkdir "$work/bin" "$work/lib"
measuring=
leave_no_trace() {
  local status=$?
  trap - EXIT
  trap '' INT TERM HUP
  # Its namespace of processes ends with it.
  if [ -n "$measuring" ]; then
    kill -KILL "$measuring" 2>/dev/null || true
    wait "$measuring" 2>/dev/null || true
  fi
  rm -rf "$work"
  exit "$status"
}
trap leave_no_trace EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

cp build/release/bin/tolvane build/bench/bin/{interleaved_load,paired_ratios} \
  build/bench/bin/{many_connections_server,publishing_workers} "$work/bin"
cp build/release/lib/libtolvane.so "$work/lib"

machine() {
  . /etc/os-release
  echo "$(date -u '+%F %H:%M UTC'), $PRETTY_NAME, Linux $(uname -r) $(uname -m)"
  echo "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1)," \
    "$(nproc) cores, $(awk '/MemTotal/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo) GB"
}
load_average() { cut -d' ' -f1-3 /proc/loadavg; }

# Figures become one block of lines per section, a line per row: its values by
# unit, each with its interval where it has one.
table() {
  awk -F'|' '
    /^@/ {
      section = substr($1, 2)
      if (!(section in columns)) sections[++section_count] = section
      if (!((section, $2) in rows)) { rows[section, $2]; row_names[section, ++row_count[section]] = $2 }
      if (!((section, $3) in units)) { units[section, $3]; unit_names[section, ++columns[section]] = $3 }
      cells[section, $2, $3] = $4 ($5 == $6 ? "" : " [" $5 " " $6 "]")
    }
    END {
      for (s = 1; s <= section_count; ++s) {
        section = sections[s]
        printf "\n%s", section
        for (c = 1; c <= columns[section]; ++c) printf "|%s", unit_names[section, c]
        print ""
        for (r = 1; r <= row_count[section]; ++r) {
          printf "  %s", row_names[section, r]
          for (c = 1; c <= columns[section]; ++c) {
            cell = cells[section, row_names[section, r], unit_names[section, c]]
            printf "|%s", cell == "" ? "-" : cell
          }
          print ""
        }
      }
    }' "$1" | align
}

# Each block of lines has columns of its own.
align() {
  local line block=()
  while IFS= read -r line; do
    if [ -n "$line" ]; then
      block+=("$line")
      continue
    fi
    [ ${#block[@]} -eq 0 ] || printf '%s\n' "${block[@]}" | column -t -s'|'
    block=()
    echo
  done
  [ ${#block[@]} -eq 0 ] || printf '%s\n' "${block[@]}" | column -t -s'|'
}

before=$(load_average)
unshare --mount --ipc --net --pid --fork --kill-child --mount-proc \
  bench/server/measure.sh "$work" $length "${sections[@]}" >"$work/figures" &
measuring=$!
wait $measuring
measuring=
{
  machine
  echo "load average before $before, after $(load_average); $length run"
  table "$work/figures"
} >"$work/table"
cp "$work/table" build/bench-table.txt
cat "$work/table"
