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
printf '\n== %s\n' "Installing what is missing, and building"
install_missing "${build_packages[@]}" "${tool_packages[@]}" apache2-bin python3 openssl
cmake --preset release -DTOLVANE_TOOL=ON >/dev/null
cmake --build --preset release --target tolvane tolvane-cli tolvane-demo-traffic
exec unshare --mount --ipc --net /usr/bin/python3 -B scripts/demo.py "$module" "${https[@]}"
