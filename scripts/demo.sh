#!/usr/bin/env bash
# demo.sh [prefork|worker|event]: measures a real Apache, from nothing.
#
# Installs what is missing on a Debian 12, builds, starts Apache under the shim
# with two sites and some categories, sends it mixed traffic, shows the live
# table, and ends with the shim's totals beside what the client counted. Leaves
# the machine as it was, but for installed packages and build/. Needs root or
# sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
module=${1:-prefork}
case $module in
  prefork | worker | event) ;;
  *)
    echo "usage: scripts/demo.sh [prefork|worker|event]" >&2
    exit 2
    ;;
esac
if [ "$(id -u)" -ne 0 ]; then exec sudo "$0" "$@"; fi

. scripts/packages.sh
say() { printf '\n== %s\n' "$*"; }

say "Installing what is missing, and building"
install_missing "${build_packages[@]}" "${tool_packages[@]}" apache2-bin
cmake --preset release -DTOLVANE_TOOL=ON >/dev/null
cmake --build --preset release --target tolvane tolvane-cli tolvane-demo-traffic
tolvane=$PWD/build/release/bin/tolvane

agent=/opt/tolvane/agent
work=$(mktemp -d /tmp/tolvane-demo.XXXXXX)
chmod 755 "$work"
# The prepared root is named after the main file and the pid file.
as_file_name() { local name=${1#/}; name=${name//-/+2D}; echo "${name//\//-}"; }
root_name=$agent/data/servers/$(as_file_name "$work/apache2.conf")@$(as_file_name "$work/apache2.pid")
# Directories above our files that have to go again, the deepest first.
new_directories=()
for directory in $agent/data/servers $agent/data $agent/config $agent/logs $agent /opt/tolvane; do
  [ -e "$directory" ] || new_directories+=("$directory")
done
log_size=$(stat -c %s $agent/logs/web_log 2>/dev/null || echo none)
others=$("$tolvane" list --json | grep -c handoff_file || true)
server=
traffic=

stop_server() {
  local i
  [ -n "$server" ] || return 0
  kill "$server" 2>/dev/null || true
  for i in $(seq 100); do
    kill -0 "$server" 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 "$server" 2>/dev/null; then
    # Its workers end with it; what it could not remove, clean does.
    kill -KILL "$server" $(cat /proc/"$server"/task/*/children 2>/dev/null) || true
    sleep 0.5
    [ "$others" -gt 0 ] || "$tolvane" clean >/dev/null || true
  fi
  wait "$server" 2>/dev/null || true
  server=
}

leave_no_trace() {
  local status=$? directory
  trap - EXIT
  trap '' INT TERM HUP
  [ -z "$traffic" ] || kill "$traffic" 2>/dev/null || true
  stop_server
  rm -rf "$work" "$root_name"
  if [ "$log_size" = none ]; then
    rm -f $agent/logs/web_log
  elif [ "$others" -eq 0 ]; then
    truncate -s "$log_size" $agent/logs/web_log
  fi
  for directory in "${new_directories[@]}"; do
    rmdir "$directory" 2>/dev/null || true
  done
  exit "$status"
}
trap leave_no_trace EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

is_free() { ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
port=18080
until is_free $port; do port=$((port + 1)); done

# The files lie as Debian's do: nothing of it is where the shim looks.
mkdir -p "$work"/{sites-enabled,htdocs/shop,htdocs/blog}
modules=/usr/lib/apache2/modules
cat >"$work/apache2.conf" <<CONF
ServerRoot $work
ServerName localhost
PidFile $work/apache2.pid
ErrorLog $work/error.log
User www-data
Group www-data
LoadModule mpm_${module}_module $modules/mod_mpm_$module.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule alias_module $modules/mod_alias.so
LoadModule dir_module $modules/mod_dir.so
LoadModule mime_module $modules/mod_mime.so
TypesConfig /dev/null
<IfModule mpm_prefork_module>
  StartServers 12
  MinSpareServers 12
  MaxSpareServers 12
  MaxRequestWorkers 12
</IfModule>
<IfModule !mpm_prefork_module>
  StartServers 2
  ThreadsPerChild 25
  MinSpareThreads 25
  MaxSpareThreads 50
  MaxRequestWorkers 50
</IfModule>
KeepAlive On
MaxKeepAliveRequests 0
KeepAliveTimeout 5
EnableSendfile On
IncludeOptional sites-enabled/*.conf
CONF
cat >"$work/sites-enabled/sites.conf" <<CONF
Listen 127.0.0.1:$port
<VirtualHost *:$port>
  ServerName shop.example
  ServerAlias www.shop.example
  DocumentRoot $work/htdocs/shop
  Redirect /old /index.html
</VirtualHost>
<VirtualHost *:$port>
  ServerName blog.example
  ServerAlias elsewhere.example
  DocumentRoot $work/htdocs/blog
</VirtualHost>
CONF
for page in shop/index shop/shop-1 blog/index blog/post-1 blog/post-2; do
  printf '<h1>%s</h1>\n' "$page" >"$work/htdocs/$page.html"
done
mkdir -p "$work/htdocs/shop/cart"
echo "in the cart" >"$work/htdocs/shop/cart/add"
head -c 300000 /dev/zero >"$work/htdocs/shop/photo.jpg"
cat >"$work/sites.toml" <<'TOML'
interval = 1

[[site]]
name = "shop.example"
hosts = ["www.shop.example"]

  [[site.category]]
  label = "pages"
  urls = ["/", "/index*"]

  [[site.category]]
  label = "cart"
  urls = ["/cart*", "/shop*.html"]

  [[site.category]]
  label = "images"
  urls = ["*.jpg"]

[[site]]
name = "blog.example"

  [[site.category]]
  label = "posts"
  urls = ["/post-*.html"]
TOML

say "tolvane run --request-interval 1 -- apache2 -d $work -f apache2.conf -D FOREGROUND"
# In a session of its own: a stopping Apache signals its whole process group.
setsid "$tolvane" run --request-interval 1 -- apache2 -d "$work" -f apache2.conf -D FOREGROUND &
server=$!
for _ in $(seq 100); do
  [ -e $agent/config/webadapter.$server ] && break
  kill -0 $server 2>/dev/null || { echo "Apache did not start:" >&2; cat "$work/error.log" >&2; exit 1; }
  sleep 0.1
done
sleep 0.5

say "tolvane configure sites.toml"
"$tolvane" configure "$work/sites.toml" --server $server
say "tolvane list"
"$tolvane" list

seconds=8
say "tolvane top, while a client sends requests for $seconds seconds"
build/release/bin/tolvane-demo-traffic $port 12 $seconds >"$work/client.txt" &
traffic=$!
"$tolvane" top --server $server --delay 2 --count 5
wait $traffic || { echo "the client failed" >&2; exit 1; }
traffic=
# Threaded servers publish every interval; two of them bring in everything.
sleep 3

say "tolvane show"
"$tolvane" show --server $server | tee "$work/shown.txt"

say "What the client counted, and what the shim did"
# Both files give, per name: requests, 4xx, 3xx, connections, bytes out, bytes in.
awk -v client="$work/client.txt" '
  BEGIN {
    title = "%-14s %9s %17s %13s %13s %13s %23s %19s\n"
    printf title, "", "", "REQUESTS", "4XX", "3XX", "CONNECTIONS", "BYTES TO CLIENT", "BYTES TO SERVER"
    FS = "|"
    while ((getline < client) > 0) if ($1 != "elsewhere.example") {
      for (i = 2; i <= 7; ++i) counted[$1, i] = $i
      names[$1] = 1
    }
    FS = "  +"
  }
  { category = $1 == ""; name = category ? $2 : $1 }
  !(name in names) { next }
  {
    delete names[name]
    if (category) split($3 "|-|-|-|-|-", shown, "|")
    else split($2 "|" $6 "|" $8 "|" $10 "|" $11 "|" $12, shown, "|")
    verdict = "equal"
    for (i = 1; i <= 6; ++i) {
      pair[i] = shown[i] == "-" ? "" : counted[name, i + 1] " / " shown[i]
      if (shown[i] != "-" && counted[name, i + 1] != shown[i]) verdict = "DIFFERS"
    }
    if (verdict != "equal") bad = 1
    printf title, name, verdict, pair[1], pair[2], pair[3], pair[4], pair[5], pair[6]
  }
  END {
    for (name in names) { print name ": not in the table"; bad = 1 }
    exit bad
  }' "$work/shown.txt" || failed=1

say "Stopping the server; nothing stays behind"
stop_server
"$tolvane" list || true
exit ${failed:-0}
