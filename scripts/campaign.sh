#!/usr/bin/env bash
# campaign.sh [MINUTES] [--seed N] [--kinds K,...] [--sanitizers S,...] [--faults F,...]
#             [--round SECONDS] [--rounds N] [--keep-going]
#
# Rounds of faults against real Apaches and threaded servers under the library, in private
# namespaces; see docs/testing.md. Installs what is missing and builds. Needs root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
install_missing "${build_packages[@]}" googletest libnghttp2-dev apache2-bin python3 libasan8 libubsan1 libtsan2

for preset in campaign campaign32 campaign-asan campaign-tsan; do
  targets=(tolvane)
  [[ $preset == *san ]] || targets+=(threaded_server campaign_vforking)
  cmake --preset $preset >/dev/null
  cmake --build --preset $preset --target "${targets[@]}"
done
as_root unshare --mount --net --ipc --pid --fork --kill-child --mount-proc \
  /usr/bin/python3 -B tests/campaign/campaign.py "$@"
