#!/usr/bin/env bash
# Checks all sources (lint.sh), installs what is missing on a Debian 12, builds the
# 64-bit and the 32-bit library and the tool, and runs all tests. Needs root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

# Ends with a line that says what ran, or what failed.
step="the checks of the sources"
passed=
log=$(mktemp)
closing() {
  local status=$? minutes=$(((SECONDS + 30) / 60))
  rm -f "$log"
  if [ $status -eq 0 ]; then
    echo "All passed:${passed%,}, $minutes min"
  else
    echo "Failed: $step, after $minutes min"
  fi
}
trap closing EXIT

scripts/lint.sh
step="the installation of packages"
install_missing "${build_packages[@]}" "${tool_packages[@]}" googletest node-llhttp libnghttp2-dev apache2-bin \
  procps curl haproxy nginx nghttp2-client lighttpd lighttpd-mod-openssl openssl \
  prometheus python3 chromium chromium-driver python3-selenium dpkg-dev lintian rpm cpio file mandoc systemd

# build PRESET [-DVARIABLE=VALUE...] [--target TARGET]
build() {
  local preset=$1 configure=() build=()
  step="the build of $preset"
  shift
  for argument in "$@"; do
    if [[ $argument == -D* ]]; then configure+=("$argument"); else build+=("$argument"); fi
  done
  cmake --preset "$preset" "${configure[@]}" >/dev/null
  cmake --build --preset "$preset" "${build[@]}"
}

# run_tests PRESET WORDS
run_tests() {
  step="the tests $2"
  as_root ctest --preset "$1" | tee "$log"
  local count skipped
  count=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1/p' "$log")
  skipped=$(grep -c '\*\*\*Skipped' "$log" || true)
  passed+=" $((count - skipped))$([ -n "$passed" ] || echo " tests") $2$(
    [ "$skipped" -eq 0 ] || echo " ($skipped skipped)"),"
}

build release --target tolvane
build release32
for class in 64 32; do
  preset=build/release${class#64}
  step="the check of the library in $class bits"
  scripts/check_library.sh "$preset/lib/libtolvane.so" "ELF$class" "$preset/shim/CMakeFiles/tolvane.dir"
done

# The end-to-end tests preload exactly what is shipped.
build test "-DTOLVANE_LIBRARY=$PWD/build/release/lib/libtolvane.so"
build test32 "-DTOLVANE_LIBRARY=$PWD/build/release32/lib/libtolvane.so"
run_tests test "in 64 bits"
run_tests test32 "in 32 bits"

for sanitizers in asan tsan; do
  build $sanitizers
  run_tests $sanitizers "with $sanitizers"
done
