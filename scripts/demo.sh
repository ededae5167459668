#!/usr/bin/env bash
# demo.sh [prefork|worker|event] [--https]: measures a real Apache, from an empty machine.
#
# With --https its sites and the client use TLS, with a certificate made for the demo.
# Installs what is missing on a Debian 12, builds, and runs demo.py in private
# namespaces. Leaves the machine as it was, but for installed packages and build/.
# Needs root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
module=prefork
https=()
for argument; do
  case $argument in
    prefork | worker | event) module=$argument ;;
    --https) https=(--https) ;;
    *)
      echo "usage: scripts/demo.sh [prefork|worker|event] [--https]" >&2
      exit 2
      ;;
  esac
done
if [ "$(id -u)" -ne 0 ]; then exec sudo "$0" "$@"; fi

. scripts/packages.sh
# Shows the steps of ninja as a line that changes, on a terminal only.
progress() {
  local line
  while IFS= read -r line; do
    if [ -t 1 ] && [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
      printf '\rStep %s of %s ' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"
    fi
  done
  [ ! -t 1 ] || printf '\r%20s\r' ''
}

built=build/release/bin/tolvane
log=build/demo-build.log
[ -x $built ] && duration="15 seconds" || duration="4 minutes, because it builds first"
printf '\n== %s\n' "Installing what is missing, and building (output: $log). Takes about $duration"
install_missing "${build_packages[@]}" "${tool_packages[@]}" apache2-bin python3 openssl
mkdir -p build
{ cmake --preset release -DTOLVANE_TOOL=ON &&
  cmake --build --preset release --target tolvane tolvane-cli tolvane-demo-traffic; } 2>&1 |
  tee "$log" | progress || { tail -n 30 "$log" >&2; exit 1; }
unshare --mount --ipc --net /usr/bin/python3 -B scripts/demo.py "$module" "${https[@]}"
cat <<EOT

== To go on with a server of your own, as root
$built run -- apachectl start
$built serve --config packaging/examples/sites.toml     # a page on http://127.0.0.1:9931/
$built top
EOT
