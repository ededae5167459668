#!/usr/bin/env bash
# package.sh [TREE64 TREE32 DIRECTORY]: makes the Debian package and prints its
# path. Without arguments it installs what is missing on a Debian 12, builds
# build/release and build/release32, and the package goes to build/; with them
# it packs two trees that are built.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -eq 0 ]; then
  . scripts/packages.sh
  install_missing "${build_packages[@]}" "${tool_packages[@]}" dpkg-dev >&2
  for preset in release release32; do
    cmake --preset $preset >&2 && cmake --build --preset $preset >&2
  done
  set -- build/release build/release32 build
fi
tree64=$(realpath "$1") tree32=$(realpath "$2") directory=$(realpath -m "$3")
[ -x "$tree64/bin/tolvane" ] || { echo "$tree64 has no tool" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# What the 64-bit programs need. The 32-bit library needs nothing but the C
# library, which every 32-bit server has brought along.
mkdir "$work/debian"
echo 'Source: tolvane' >"$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O "$tree64/bin/tolvane" "$tree64/lib/libtolvane.so" 2>"$work/errors") ||
  { cat "$work/errors" >&2; exit 1; }

(umask 022 && cpack --config "$tree64/CPackConfig.cmake" -B "$work/pack" \
  -D "CPACK_INSTALL_CMAKE_PROJECTS=$tree64;tolvane;tolvane;/;$tree32;tolvane;tolvane;/" \
  -D "CPACK_DEBIAN_PACKAGE_DEPENDS=${depends#shlibs:Depends=}") >"$work/log" 2>&1 ||
  { cat "$work/log" >&2; exit 1; }
package=("$work"/pack/*.deb)
mkdir -p "$directory"
cp "${package[0]}" "$directory/"
echo "$directory/${package[0]##*/}"
