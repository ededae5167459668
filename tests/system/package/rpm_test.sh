#!/usr/bin/env bash
# rpm_test.sh PACKAGE DEB: looks at the RPM, compares it with the Debian package, and
# installs, upgrades and removes it in a copy of the machine with a database of its own.
set -euo pipefail
if [ "${1-}" != inside ]; then exec unshare --mount --propagation private "$0" inside "$@"; fi
shift
package=$(realpath "$1") deb=$(realpath "$2")
. "$(dirname "$0")/checks.sh"
unit=tolvane-collector.service
work=$(mktemp -d)
trap 'umount -l "$work"; rmdir "$work"' EXIT
mount -t tmpfs tmpfs "$work"
root=$work/root database=/run/rpm
mkdir "$work"/{upper,work,root,other}

say "What the RPM holds"
rpm -qp --qf '[%{FILEMODES:perms} %{FILEUSERNAME}/%{FILEGROUPNAME} %{FILENAMES} %{FILELINKTOS}\n]' "$package" |
  sed 's/ *$//' | grep -v '^d' | LC_ALL=C sort -k3 >"$work/listed"
check "the files of the Debian package, but Debian's own" diff \
  <(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $1, $2, substr($6, 2) ($8 ? " " $8 : "") }' |
    grep -vE 'lintian|/doc/tolvane/(copyright|changelog\.Debian\.gz)$' |
    sed '$a-rw-r--r-- root/root /usr/share/licenses/tolvane/LICENSE' | LC_ALL=C sort -k3) "$work/listed"
check "no directory of the system" diff - <(
  rpm -qp --qf '[%{FILEMODES:perms} %{FILENAMES}\n]' "$package" | sed -n 's/^d[^ ]* //p' |
    grep -v '/tolvane\(/\|$\)') </dev/null
check "the operator's file is kept" diff - <(rpm -qpc "$package") <<<"/etc/default/tolvane-collector"
# shellcheck disable=SC2034 # used in eval
requires=$(rpm -qp --requires "$package")
check "needs what the programs are linked with, and no 32-bit library" eval '
  grep -q "^libmicrohttpd\.so\..*(64bit)$" <<<"$requires" && grep -q "^libc\.so\.6.*(64bit)$" <<<"$requires" &&
  ! grep "\.so" <<<"$requires" | grep -v "(64bit)$"'
check "libraries for both word sizes, as \$LIB is on such systems" eval '
  cd "$work/other" && rpm2cpio "$package" | cpio -id --quiet &&
  file -L usr/lib/tolvane/lib64/libtolvane.so | grep -q "ELF 64-bit" &&
  file -L usr/lib/tolvane/lib/libtolvane.so | grep -q "ELF 32-bit"'

mount -t overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" overlay "$root" 2>/dev/null ||
  { echo "SKIPPED: no overlay file system here"; exit 77; }
for place in opt run; do mount -t tmpfs -o mode=755 tmpfs "$root/$place"; done
mount -t tmpfs tmpfs "$root/etc/systemd/system"
# A systemctl that says how it was called.
mkdir "$root/run/systemd" "$root/run/systemd/system"
rm -f "$root/usr/bin/systemctl"
printf '#!/bin/sh\necho "$@" >>/run/called\n' >"$root/usr/bin/systemctl"
chmod 755 "$root/usr/bin/systemctl"
in_copy() { rpm --root "$root" --dbpath $database --nodeps "$@"; }
mkdir "$root$database"
called() { diff - "$root/run/called" && rm -f "$root/run/called"; }

say "Installing, upgrading, removing it"
check "install" in_copy -i "$package"
check "directories" diff <(cd "$root/opt/tolvane/agent" && stat -c '%n %a %U' -- *) <(
  printf '%s root\n' 'config 755' 'data 755' 'logs 1777')
check "the unit is neither enabled nor started" called <<<"daemon-reload"
check "every file is as packed" in_copy -V tolvane
check "the tool runs" chroot "$root" tolvane check /usr/share/doc/tolvane/examples/sites.toml
echo 'TOLVANE_SERVE_OPTIONS="--interval 2"' >"$root/etc/default/tolvane-collector"
mkdir "$root/etc/systemd/system/httpd.service.d"
cp "$root/usr/share/doc/tolvane/examples/httpd.service.d/tolvane.conf" "$root/etc/systemd/system/httpd.service.d/"
echo totals >"$root/opt/tolvane/agent/data/totals"
check "upgrade" in_copy -U --replacepkgs "$package"
check "the collector is restarted if it runs" called <<LINES
daemon-reload
try-restart $unit
daemon-reload
LINES
check "the operator's options are kept" grep -q 'interval 2' "$root/etc/default/tolvane-collector"
in_copy -e tolvane >"$work/removed" 2>&1 || failed=1
check "removed, it names the file that starts a server" grep -q httpd.service.d/tolvane.conf "$work/removed"
check "the collector is stopped and disabled" called <<LINES
disable --now $unit
daemon-reload
LINES
check "nothing is left but the totals and the operator's files" diff - <(
  find "$root"/{usr,etc,opt,var/lib} -xdev -iname '*tolvane*' | sed "s|^$root||" | LC_ALL=C sort) <<LIST
/etc/default/tolvane-collector.rpmsave
/opt/tolvane
LIST
check "the totals are kept" grep -q totals "$root/opt/tolvane/agent/data/totals"
exit $failed
