# Sourced after apache.sh: the instructions that Apache makes per request
# outside the system's calls, counted under callgrind. The figure repeats to a
# few in ten thousand, whatever else the machine does.

# serve_counted MODULE VARIANT PORT REQUESTS: prints the instructions of one
# process (-X) from its start to its end.
serve_counted() {
  local directory config=${2#shim } measured=() line
  directory=$(directory_of "$2")-$3
  mkdir -p "$directory"
  apache_configuration "$1" "$2" "$3" "$directory" >"$directory/apache2.conf"
  if [ "$config" != "$2" ]; then
    "$work/bin/tolvane" prepare -d "$directory" -f apache2.conf -- /usr/sbin/apache2 >"$directory/variables"
    while read -r line; do
      case $line in '#'*) ;; *) measured+=("$line") ;; esac
    done <"$directory/variables"
    measured+=("LD_PRELOAD=$work/lib/libtolvane.so")
  fi
  setsid env "${measured[@]}" valgrind --tool=callgrind --vgdb=no --callgrind-out-file=/dev/null \
    /usr/sbin/apache2 -d "$directory" -f apache2.conf -X </dev/null >"$directory/output" 2>&1 &
  server=$!
  servers=("$server")
  wait_for listens "$3"
  [ ${#measured[@]} -eq 0 ] || configure "$server" "$config"
  "$work/bin/interleaved_load" requests="$work/requests" connections=1 in-flight=1 warm-up=0 \
    rounds=1 turn="$4" "server=one:$3:$server" >/dev/null
  stop_servers
  sed -n 's/.*Collected : //p' "$directory/output"
}

# count_instructions MODULE VARIANT: per request, from what 480 more of them take.
count_instructions() {
  local fewer
  serve_counted "$@" $first_port 192 >"$work/fewer" &
  fewer=$!
  serve_counted "$@" $((first_port + 1)) 672 >"$work/more"
  wait $fewer
  echo $((($(cat "$work/more") - $(cat "$work/fewer")) / 480))
}
