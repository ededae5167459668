#!/usr/bin/env bash
# package_test.sh SOURCE BUILD: packs the tree built in BUILD, looks at the
# package, and uses it in a copy of this machine: the root under an overlay that
# goes with the test, with systemd in namespaces of its own.
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2")
here=$source/tests/system/package
work=$build/package
skip() {
  echo "SKIPPED: $*"
  exit 77
}
[ "$(id -u)" -eq 0 ] || skip "it takes root to install a package"
for tool in dpkg-deb dpkg-shlibdeps lintian mandoc apt-get rpmbuild cpio unshare /lib/systemd/systemd; do
  command -v $tool >/dev/null || skip "$tool is missing"
done
. "$here/checks.sh"

mkdir -p "$work"
cmake -S "$source" -B "$work/release32" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 -DTOLVANE_TOOL=OFF >/dev/null
cmake --build "$work/release32" >/dev/null
package=$("$source/scripts/package.sh" "$build" "$work/release32" "$work")
rm -rf "$work"/{content,staged}
dpkg-deb -x "$package" "$work/content"

say "What the package holds"
dpkg-deb -c "$package" | awk '$1 !~ /^d/ { print $1, $2, substr($6, 2), $7 $8 }' | sed 's/ *$//' |
  LC_ALL=C sort -k3 >"$work/listed"
check "files, modes and owners" diff - "$work/listed" <<'LIST'
-rw-r--r-- root/root /etc/default/tolvane-collector
-rwxr-xr-x root/root /usr/bin/tolvane
-rw-r--r-- root/root /usr/include/tolvane/configuration_bounds.h
-rw-r--r-- root/root /usr/include/tolvane/counters.h
-rw-r--r-- root/root /usr/include/tolvane/entry_points.h
-rw-r--r-- root/root /usr/include/tolvane/limits.h
-rw-r--r-- root/root /usr/include/tolvane/paths.h
-rw-r--r-- root/root /usr/include/tolvane/segment_format.h
-rw-r--r-- root/root /usr/lib/systemd/system/tolvane-collector.service
-rw-r--r-- root/root /usr/lib/tolvane/lib/i386-linux-gnu/libtolvane.so
lrwxrwxrwx root/root /usr/lib/tolvane/lib/libtolvane.so ->i386-linux-gnu/libtolvane.so
-rw-r--r-- root/root /usr/lib/tolvane/lib/x86_64-linux-gnu/libtolvane.so
lrwxrwxrwx root/root /usr/lib/tolvane/lib32 ->lib/i386-linux-gnu
lrwxrwxrwx root/root /usr/lib/tolvane/lib64 ->lib/x86_64-linux-gnu
-rw-r--r-- root/root /usr/share/bash-completion/completions/tolvane
-rw-r--r-- root/root /usr/share/doc/tolvane/changelog.Debian.gz
-rw-r--r-- root/root /usr/share/doc/tolvane/copyright
-rw-r--r-- root/root /usr/share/doc/tolvane/examples/apache2.service.d/tolvane.conf
-rw-r--r-- root/root /usr/share/doc/tolvane/examples/httpd.service.d/tolvane.conf
-rw-r--r-- root/root /usr/share/doc/tolvane/examples/sites.toml
-rw-r--r-- root/root /usr/share/lintian/overrides/tolvane
-rw-r--r-- root/root /usr/share/man/man1/tolvane-serve.1.gz
-rw-r--r-- root/root /usr/share/man/man1/tolvane.1.gz
-rw-r--r-- root/root /usr/share/man/man5/tolvane-sites.5.gz
-rw-r--r-- root/root /usr/share/man/man7/libtolvane.7.gz
-rw-r--r-- root/root /usr/share/tolvane/monitoring/grafana-dashboard.json
-rw-r--r-- root/root /usr/share/tolvane/monitoring/prometheus.example.yml
-rw-r--r-- root/root /usr/share/tolvane/monitoring/tolvane.alerts.yml
-rw-r--r-- root/root /usr/share/tolvane/monitoring/tolvane.rules.yml
LIST
check "libraries fit for both word sizes" eval '
  "$source/scripts/check_library.sh" "$work"/content/usr/lib/tolvane/lib64/libtolvane.so ELF64 &&
  "$source/scripts/check_library.sh" "$work"/content/usr/lib/tolvane/lib32/libtolvane.so ELF32'
depends=$(dpkg-deb -f "$package" Depends)
check "needs what the tool is linked with: $depends" \
  eval '[[ $depends == *libc6* && $depends == *libmicrohttpd* && $depends == *libsqlite3* && $depends != *i386* ]]'
check "version of the changelog" test "$(zcat "$work/content/usr/share/doc/tolvane/changelog.Debian.gz" |
  sed -n '1s/.*(\(.*\)).*/\1/p')" = "$(dpkg-deb -f "$package" Version)"
check "lintian" lintian --allow-root --display-info --fail-on error,warning,info "$package"
# Without pipes into grep -q, which ends before readelf does.
hardened() {
  local header
  header=$(readelf -hdlW --dyn-syms "$1")
  grep -q 'FLAGS_1).*NOW.*PIE' <<<"$header" && grep -q GNU_RELRO <<<"$header" && grep -q __memcpy_chk <<<"$header"
}
check "the tool is hardened" hardened "$work/content/usr/bin/tolvane"

rpm=$("$source/scripts/package.sh" rpm "$build" "$work/release32" "$work")
"$here/rpm_test.sh" "$rpm" "$package" || failed=1

say "cmake --install, with a prefix and DESTDIR"
for tree in "$build" "$work/release32"; do
  DESTDIR=$work/staged cmake --install "$tree" --prefix /usr/local >/dev/null
done
check "the same files as in the package, but Debian's own" diff \
  <(cd "$work/staged/usr/local" && find . ! -type d | LC_ALL=C sort) \
  <(cd "$work/content/usr" && find . ! -type d | grep -vE 'lintian|/(copyright|changelog\.Debian\.gz)$' |
    sed '/share\/man/s/\.gz$//' | LC_ALL=C sort)
check "the unit starts the tool of the prefix" grep -q '^ExecStart=/usr/local/bin/tolvane serve' \
  "$work/staged/usr/local/lib/systemd/system/tolvane-collector.service"
check "modes of the directories" diff <(cd "$work/staged/opt/tolvane/agent" && stat -c '%n %a' -- *) - <<'LIST'
config 755
data 755
logs 1777
LIST

say "Manual pages and completion"
"$here/check_manual.sh" "$work/content"
"$here/check_completion.sh" "$work/content"

say "In a copy of the machine"
for bits in 32 64; do gcc -m$bits -o "$work/maps$bits" "$here/maps.c"; done
"$here/boot_copy.sh" "$package" "$work"/maps{32,64} "$here"/{checks,installed_test}.sh && status=0 || status=$?
[ "$status" -eq 0 ] || [ "$status" -eq 77 ] || failed=1
[ "$failed" -eq 0 ] || exit 1
exit "$status"
