#!/usr/bin/env bash
# Checks all sources (lint.sh), installs what is missing on a Debian 12, builds the
# 64-bit and the 32-bit library and the tool, and runs all tests. Needs root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/lint.sh
. scripts/packages.sh
install_missing "${build_packages[@]}" "${tool_packages[@]}" googletest node-llhttp libnghttp2-dev apache2-bin \
  procps curl haproxy nginx nghttp2-client lighttpd lighttpd-mod-openssl openssl \
  prometheus python3 chromium chromium-driver python3-selenium dpkg-dev lintian mandoc systemd

# build PRESET [-DVARIABLE=VALUE...] [--target TARGET]
build() {
  local preset=$1 configure=() build=()
  shift
  for argument in "$@"; do
    if [[ $argument == -D* ]]; then configure+=("$argument"); else build+=("$argument"); fi
  done
  cmake --preset "$preset" "${configure[@]}" >/dev/null
  cmake --build --preset "$preset" "${build[@]}"
}

build release --target tolvane
build release32
for class in 64 32; do
  preset=build/release${class#64}
  scripts/check_library.sh "$preset/lib/libtolvane.so" "ELF$class" "$preset/shim/CMakeFiles/tolvane.dir"
done

# The end-to-end tests preload exactly what is shipped.
build test "-DTOLVANE_LIBRARY=$PWD/build/release/lib/libtolvane.so"
build test32 "-DTOLVANE_LIBRARY=$PWD/build/release32/lib/libtolvane.so"
as_root ctest --preset test
as_root ctest --preset test32

for sanitizers in asan tsan; do
  build $sanitizers
  as_root ctest --preset $sanitizers
done
