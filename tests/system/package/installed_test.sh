#!/usr/bin/env bash
# installed_test.sh PACKAGE: in a machine of its own with systemd and a stock
# Apache: installs the package, measures Apache, collects, removes the package
# while Apache runs, and purges it.
set -uo pipefail
cd "$(dirname "$0")" || exit
. ./checks.sh
package=$1
unit=tolvane-collector.service
examples=/usr/share/doc/tolvane/examples
counted=40

# get PORT PATH [HOST]: the response, headers and all. The request goes out in one
# piece, as a browser's does; bash's own printf would write line by line.
get() {
  exec 3<>"/dev/tcp/127.0.0.1/$1" || return
  cat <<<"GET $2 HTTP/1.1"$'\r\n'"Host: ${3-localhost}"$'\r\n'"Connection: close"$'\r\n\r' >&3
  timeout 10 cat <&3
  exec 3<&-
}
serves() { get 80 / | grep -q '^HTTP/1.1 200'; }
metric() { get 9931 /metrics | grep -v '^#' | grep "$1" | sed 's/.* //' | tr -d '\r'; }
# eventually WORDS...: whether the command succeeds within 15 seconds.
eventually() {
  local i
  for i in $(seq 75); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.2
  done
  "$@"
}
equals() { [ "$(metric "$1")" = "$2" ] || { metric "$1"; return 1; }; }
segments() { awk "FNR > 1" /proc/sysvipc/shm /proc/sysvipc/sem; }

say "Installing"
check "install" dpkg -i "$package"
check "directories" diff <(cd /opt/tolvane/agent && stat -c '%n %a %U' -- *) <(
  printf '%s root\n' 'config 755' 'data 755' 'logs 1777')
check "the collector is neither started nor enabled" eval \
  '! systemctl -q is-active $unit && [ "$(systemctl is-enabled $unit)" = disabled ]'
check "the unit is well-formed" systemd-analyze verify $unit

say "One preload for both word sizes"
preload='/usr/lib/tolvane/$LIB/libtolvane.so'
check "set by hand" diff <(for bits in 32 64; do LD_PRELOAD=$preload ./maps$bits; done 2>&1) - <<'LINES'
32 /usr/lib/tolvane/lib/i386-linux-gnu/libtolvane.so
64 /usr/lib/tolvane/lib/x86_64-linux-gnu/libtolvane.so
LINES
mkdir -p /srv/root/{conf,logs}
echo 'Listen 8080' >/srv/root/conf/httpd.conf
check "set by run, in what a server starts" diff <(
  tolvane run -q --root /srv/root -- /bin/sh -c './maps64; ./maps32; echo $LD_PRELOAD' 2>&1) - <<LINES
64 /usr/lib/tolvane/lib/x86_64-linux-gnu/libtolvane.so
32 /usr/lib/tolvane/lib/i386-linux-gnu/libtolvane.so
$preload
LINES

say "Measuring Apache, collecting"
sed 's/^interval = .*/interval = 1/' $examples/sites.toml >/etc/sites.toml
echo 'TOLVANE_SERVE_OPTIONS="--config /etc/sites.toml --interval 1"' >/etc/default/tolvane-collector
cp -r $examples/apache2.service.d /etc/systemd/system/
systemctl daemon-reload
check "the unit of Apache is well-formed" systemd-analyze verify apache2.service
check "start the collector" systemctl enable --now $unit
check "start Apache" systemctl start apache2
check "it is listed, with the configuration" eventually eval \
  'tolvane list --json | grep -q "\"configuration_version\": 1,\?$"'
for ((i = 0; i < counted; ++i)); do get 80 /cart shop.example >/dev/null; done
shows() { tolvane show --json | tr -d ' \n' | grep -q "\"name\":\"shop.example\",[^{}]*\"requests\":$counted,"; }
check "the tool shows the requests" eventually shows
sample="^tolvane_category_requests_total{.*category=\"checkout\""
check "so does the collector" eventually equals "$sample" $counted
check "it is healthy" eval 'get 9931 /health | grep -q "200 OK"'
check "its page is there" eval 'get 9931 / | grep -q "<html"'
check "it counts the server's processes" equals '^tolvane_server_attached_processes{' \
  "$(grep -lx apache2 /proc/[0-9]*/comm | wc -l)"
check "the doctor finds no problem" tolvane doctor
systemctl kill -s KILL $unit
check "killed, it comes again" eventually eval '[ "$(systemctl show -P NRestarts $unit)" = 1 ]'
check "and has lost nothing" eventually equals "$sample" $counted
check "install again, as an upgrade does" dpkg -i --force-confold "$package"
check "the collector runs on, enabled" eval 'systemctl -q is-active $unit && systemctl -q is-enabled $unit'
check "its totals are there" eventually equals "$sample" $counted

say "Removing it while Apache runs"
dpkg -r tolvane >removed 2>&1
check "it is said that Apache runs on, and which file starts it" eval \
  'grep -q "^live" removed && grep -q apache2.service.d/tolvane.conf removed'
check "no collector" eval '! systemctl -q is-active $unit'
check "Apache serves, and its files are there" eval 'serves && ls /opt/tolvane/agent/config/webadapter.*'
check "purge" dpkg -P tolvane
check "Apache serves" serves
check "nothing is left" test -z "$(find /usr /etc /opt /var/lib -xdev -iname '*tolvane*' \
  ! -path '/etc/systemd/system/apache2.service.d/*')"
check "Apache stops" systemctl stop apache2
check "nothing is left in memory" test -z "$(segments)"
check "Apache starts without the tool, from the same unit" eval 'systemctl start apache2 && serves'

[ $failed -eq 0 ] || journalctl --no-pager -u $unit -u apache2 -n 60
exit $failed
