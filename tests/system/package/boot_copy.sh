#!/usr/bin/env bash
# boot_copy.sh PACKAGE FILE...: runs the last of the files as a service of
# systemd, booted in namespaces of its own over a copy of this machine with the
# apache2 package. Everything is in memory and goes at the end. Exit code 77:
# such a copy cannot be made here.
set -euo pipefail
skip() {
  echo "SKIPPED: $*"
  exit 77
}
if [ "${1-}" != inside ]; then
  unshare --mount true 2>/dev/null || skip "no mount namespaces here"
  exec unshare --mount --propagation private "$0" inside "$@"
fi
shift

base=$(mktemp -d)
inner=
leave() {
  [ -z "$inner" ] || { kill -KILL "$inner"; wait "$inner"; } 2>/dev/null || true
  umount -l "$base" || true
  rmdir "$base"
}
trap leave EXIT
mount -t tmpfs tmpfs "$base"
root=$base/root
mkdir "$base"/{upper,work,root}
mount -t overlay -o "lowerdir=/,upperdir=$base/upper,workdir=$base/work" overlay "$root" 2>/dev/null ||
  skip "no overlay file system here"
for place in tmp run opt; do mount -t tmpfs -o mode=755 tmpfs "$root/$place"; done
chmod 1777 "$root/tmp"
mkdir "$root/run/lock" "$root/test"
cp "$@" "$root/test/"
test=${*: -1:1}
mount -t tmpfs -o mode=755 tmpfs "$root/dev"
cp -a /dev/{null,zero,full,random,urandom,tty} "$root/dev/"
mkdir "$root/dev/pts" "$root/dev/shm"
ln -s pts/ptmx "$root/dev/ptmx"
# No index of manual pages: that takes longer than all the rest.
rm -f "$root/var/lib/man-db/auto-update"

# It may lead to where the copy has nothing.
cp --remove-destination -L /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
# What any machine with a stock Apache has; nothing of it starts here.
printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
chmod 755 "$root/usr/sbin/policy-rc.d"
install() {
  DEBIAN_FRONTEND=noninteractive chroot "$root" apt-get install -y -qq --no-install-recommends apache2
}
mount -t proc proc "$root/proc"
{ install || { chroot "$root" apt-get update && install; }; } >"$base/apt" 2>&1 ||
  { tail -n 5 "$base/apt"; skip "the apache2 package cannot be had"; }
umount "$root/proc"
rm "$root/usr/sbin/policy-rc.d"

cat >"$root/etc/systemd/system/package-test.service" <<UNIT
[Unit]
After=basic.target
Requires=basic.target
[Service]
Type=oneshot
ExecStart=/bin/bash -c '/test/${test##*/} /test/${1##*/}; echo \$? >/test/status'
StandardOutput=file:/test/output
StandardError=file:/test/output
UNIT

unshare --kill-child --fork --pid --ipc --uts --net --cgroup --mount bash -c '
  set -e
  mount -t proc proc "$1/proc"
  mount -t sysfs sysfs "$1/sys"
  mount -t cgroup2 cgroup2 "$1/sys/fs/cgroup"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$1/dev/pts"
  exec env -i container=unshare PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$1" \
    /lib/systemd/systemd --unit=package-test.service' - "$root" >"$base/boot" 2>&1 &
inner=$!
for i in $(seq 1200); do
  sleep 0.1
  [ ! -s "$root/test/status" ] || break
  # Within half a minute, systemd has started it or never will.
  [ "$i" -lt 300 ] || [ -e "$root/test/output" ] ||
    { cat "$base/boot"; skip "systemd does not boot in namespaces here"; }
done
cat "$root/test/output"
[ -s "$root/test/status" ] || { echo "FAILED: it takes longer than two minutes"; exit 1; }
exit "$(cat "$root/test/status")"
