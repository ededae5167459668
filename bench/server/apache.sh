# Sourced: Apache under load, with and without the shim and what people would
# use instead. Needs $work (a directory of ours that every user can enter), with
# our programs in $work/bin and the shim in $work/lib, in namespaces of our own.

. bench/server/configurations.sh

variants=(bare "bare again" "shim small" "shim unmatched" "shim matched" mod_status "access log")
first_port=8001
server_core=0
client_core=1

directory_of() { echo "$work/${1// /-}"; }

# file_of SIZE PATH
file_of() {
  mkdir -p "$(dirname "$2")"
  head -c "$1" /dev/zero | tr '\0' 'x' >"$2"
}

make_documents() {
  local shop=$work/documents/shop blog=$work/documents/blog
  file_of 14000 "$shop/index.html"
  file_of 22000 "$shop/shop/coats/wool-coat-4711.html"
  file_of 9000 "$shop/css/site.css"
  file_of 34000 "$shop/js/site.js"
  file_of 2500 "$shop/img/logo.svg"
  file_of 48000 "$shop/img/coat-4711-large.jpg"
  file_of 1100 "$shop/favicon.ico"
  file_of 11000 "$blog/index.html"
  file_of 17000 "$blog/2026/11/how-we-measure.html"
  request_mix >"$work/requests"
  small_configuration >"$work/small.toml"
  fullest_configuration unmatched >"$work/unmatched.toml"
  fullest_configuration matched >"$work/matched.toml"
}

# apache_configuration MODULE VARIANT PORT DIRECTORY: the modules of Debian's
# default but for compression; processes enough that none has to be started or
# ended.
apache_configuration() {
  local module modules=/usr/lib/apache2/modules
  cat <<CONF
ServerRoot $4
ServerName localhost
PidFile $4/apache2.pid
ErrorLog $4/error.log
User www-data
Group www-data
Listen 127.0.0.1:$3
CONF
  for module in "mpm_$1" access_compat alias auth_basic authn_core authn_file authz_core \
    authz_host authz_user autoindex dir env filter mime negotiation reqtimeout setenvif; do
    echo "LoadModule ${module}_module $modules/mod_$module.so"
  done
  case $1 in
    prefork) printf '%s\n' 'StartServers 16' 'MinSpareServers 1' 'MaxSpareServers 24' ;;
    *) printf '%s\n' 'StartServers 2' 'ThreadsPerChild 25' 'MinSpareThreads 25' 'MaxSpareThreads 75' ;;
  esac
  case $2 in
    mod_status)
      echo "LoadModule status_module $modules/mod_status.so"
      echo 'ExtendedStatus On'
      printf '<Location /server-status>\nSetHandler server-status\nRequire local\n</Location>\n'
      ;;
    "access log")
      echo "LogFormat \"%h %l %u %t \\\"%r\\\" %>s %b \\\"%{Referer}i\\\" \\\"%{User-agent}i\\\" %D\" timed"
      echo "CustomLog $4/access.log timed"
      ;;
  esac
  cat <<CONF
MaxRequestWorkers 150
KeepAlive On
MaxKeepAliveRequests 100
KeepAliveTimeout 30
HostnameLookups Off
TypesConfig /etc/mime.types
<Directory />
  AllowOverride None
  Require all denied
</Directory>
<Directory $work/documents>
  Options FollowSymLinks
  AllowOverride None
  Require all granted
</Directory>
<VirtualHost *:$3>
  ServerName www.shop.example
  ServerAlias shop.example
  DocumentRoot $work/documents/shop
  Redirect /cart /shop/coats/wool-coat-4711.html
</VirtualHost>
<VirtualHost *:$3>
  ServerName static.shop.example
  DocumentRoot $work/documents/shop
</VirtualHost>
<VirtualHost *:$3>
  ServerName blog.example
  DocumentRoot $work/documents/blog
</VirtualHost>
CONF
}

wait_for() {
  local try
  for try in $(seq 200); do
    if "$@" 2>/dev/null; then return 0; fi
    sleep 0.05
  done
  echo "waited in vain for: $*" >&2
  return 1
}
# Without a connection, which a threaded process would start its work with.
listens() { grep -q "$(printf ':%04X 00000000:0000 0A' "$1")" /proc/net/tcp; }
has_segment() { grep -q '^Shmid=' "/opt/tolvane/agent/config/webadapter.$1"; }
is_gone() { ! kill -0 "$1"; }

# configure SERVER CONFIGURATION
configure() {
  wait_for has_segment "$1"
  "$work/bin/tolvane" configure "$work/$2.toml" --server "$1" >/dev/null
}

# start_apache MODULE VARIANT PORT; sets $server to its process. A measured one
# gets its configuration before any connection, so that threaded processes have
# it from the start.
start_apache() {
  local directory run=() config=${2#shim }
  directory=$(directory_of "$2")
  mkdir -p "$directory"
  apache_configuration "$@" "$directory" >"$directory/apache2.conf"
  [ "$config" = "$2" ] || run=("$work/bin/tolvane" run --)
  # In a session of its own: a stopping Apache signals its whole process group.
  taskset -c $server_core setsid "${run[@]}" /usr/sbin/apache2 -d "$directory" -f apache2.conf \
    -D FOREGROUND </dev/null >"$directory/output" 2>&1 &
  server=$!
  servers+=("$server")
  wait_for listens "$3"
  [ ${#run[@]} -eq 0 ] || configure "$server" "$config"
}

stop_servers() {
  local pid
  for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${servers[@]}"; do wait_for is_gone "$pid"; wait "$pid" || true; done
  servers=()
}

# has_counted SERVER REQUESTS: whether the shim has published so many.
has_counted() {
  "$work/bin/tolvane" show --json --server "$1" |
    awk -F'[:,]' -v least="$2" '/"requests":/ && $2 > most { most = $2 } END { exit most + 0 < least }'
}

# load KEEP-ALIVE ROUNDS: all variants in turn; the first of them listens on
# $first_port and is process ${servers[0]}.
load() {
  local arguments=() i
  for i in "${!variants[@]}"; do
    arguments+=("server=${variants[i]}:$((first_port + i)):${servers[i]}")
  done
  taskset -c $client_core "$work/bin/interleaved_load" requests="$work/requests" \
    rounds="$2" turn=480 per-connection="$1" "${arguments[@]}"
}

# measure_apache MODULE STARTS ROUNDS: the servers are started STARTS times, since
# where a process happens to lie in memory moves its speed by a percent. Leaves
# the rows in $work/rows-MODULE and $work/rows-MODULE-close.
measure_apache() {
  local start i
  : >"$work/rows-$1"
  : >"$work/rows-$1-close"
  for start in $(seq "$2"); do
    for i in "${!variants[@]}"; do start_apache "$1" "${variants[i]}" $((first_port + i)); done
    load 48 "$3" | awk -F'\t' -v OFS='\t' -v s="$start" '{ $3 = s "." $3; print }' >>"$work/rows-$1"
    load 1 $((($3 + 3) / 4)) | awk -F'\t' -v OFS='\t' -v s="$start" '{ $3 = s "." $3; print }' \
      >>"$work/rows-$1-close"
    for i in "${!variants[@]}"; do
      case ${variants[i]} in shim*) wait_for has_counted "${servers[i]}" $(($3 * 480)) ;; esac
    done
    stop_servers
  done
}
