# Sourced after apache.sh: a threaded server with 10 to 10,000 open connections,
# bare and with the shim. As few as there are cores suffice for its threads;
# what is asked is what a connection costs that is one of many.

# start_many VARIANT PORT; sets $server. To the shim it is an Apache with
# threads, whose root is laid out by hand.
start_many() {
  local directory measured=()
  directory=$(directory_of "$1")-$2
  mkdir -p "$directory/conf" "$directory/logs"
  printf 'Listen %s\n' "$2" >"$directory/conf/httpd.conf"
  echo worker >"$directory/logs/.tolvane_info"
  [ "$1" = bare ] || measured=("LD_PRELOAD=$work/lib/libtolvane.so" WEB_SERVER=apache
    "WEB_SERVER_ROOT=$directory")
  taskset -c $server_core env "${measured[@]}" "$work/bin/many_connections_server" "$2" 4 &
  server=$!
  servers+=("$server")
  echo "$server" >"$directory/logs/httpd.pid"
  wait_for listens "$2"
  [ ${#measured[@]} -eq 0 ] || configure "$server" matched
}

# most_connections COUNT: as many of them as one client can have to both servers.
most_connections() {
  ulimit -n 32768 2>/dev/null || true
  local limit=$((($(ulimit -n) - 200) / 2))
  echo $(($1 < limit ? $1 : limit))
}

# measure_connections COUNT STARTS ROUNDS: rows in $work/rows-connections-COUNT.
measure_connections() {
  local start in_flight=$(($1 < 16 ? $1 : 16))
  : >"$work/rows-connections-$1"
  for start in $(seq "$2"); do
    start_many bare $first_port
    start_many shim $((first_port + 1))
    taskset -c $client_core "$work/bin/interleaved_load" requests="$work/requests" \
      connections="$1" in-flight="$in_flight" per-connection=1000000 warm-up=$((2 * $1 + 2000)) \
      rounds="$3" turn=1920 "server=bare:$first_port:${servers[0]}" \
      "server=shim:$((first_port + 1)):${servers[1]}" |
      awk -F'\t' -v OFS='\t' -v s="$start" '{ $3 = s "." $3; print }' >>"$work/rows-connections-$1"
    wait_for has_counted "${servers[1]}" $((1920 * $3))
    stop_servers
  done
}
