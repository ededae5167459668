#!/usr/bin/env bash
# package.sh [deb|rpm] [TREE64 TREE32 DIRECTORY]: makes the Debian package, or the
# RPM, and prints its path. Without trees it installs what is missing on a Debian
# 12, builds build/release and build/release32, and the package goes to build/;
# with them it packs two trees that are built.
set -euo pipefail
cd "$(dirname "$0")/.."
kind=deb
if [[ ${1-} =~ ^(deb|rpm)$ ]]; then
  kind=$1
  shift
fi
case $# in
  0 | 3) ;;
  *)
    echo "usage: scripts/package.sh [deb|rpm] [TREE64 TREE32 DIRECTORY]" >&2
    exit 2
    ;;
esac
if [ $# -eq 0 ]; then
  . scripts/packages.sh
  install_missing "${build_packages[@]}" "${tool_packages[@]}" dpkg-dev rpm >&2
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
programs=("$tree64/bin/tolvane" "$tree64/lib/libtolvane.so")
if [ "$kind" = deb ]; then
  mkdir "$work/debian"
  echo 'Source: tolvane' >"$work/debian/control"
  depends=$(cd "$work" && dpkg-shlibdeps -O "${programs[@]}" 2>"$work/errors") ||
    { cat "$work/errors" >&2; exit 1; }
  depends=CPACK_DEBIAN_PACKAGE_DEPENDS=${depends#shlibs:Depends=}
else
  depends=$(printf '%s\n' "${programs[@]}" | /usr/lib/rpm/find-requires | LC_ALL=C sort -u | paste -sd, -)
  depends=CPACK_RPM_PACKAGE_REQUIRES=$depends
  # The programs are stripped, so no debugger looks for such links.
  echo '%_build_id_links none' >"$work/.rpmmacros"
fi

(umask 022 && HOME=$work cpack --config "$tree64/CPackConfig.cmake" -G "${kind^^}" -B "$work/pack" \
  -D "CPACK_INSTALL_CMAKE_PROJECTS=$tree64;tolvane;tolvane;/;$tree32;tolvane;tolvane;/" \
  -D "$depends") >"$work/log" 2>&1 ||
  { cat "$work/log" >&2; exit 1; }
package=("$work"/pack/*."$kind")
mkdir -p "$directory"
cp "${package[0]}" "$directory/"
echo "$directory/${package[0]##*/}"
