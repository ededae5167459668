# Sourced by per_call.sh and parsing.sh: runs a measuring program and prints its
# figures.
#
# A figure is a line of six parts that begins with an at sign:
#
#   @SECTION|ROW|UNIT|VALUE|LOW|HIGH
#
# VALUE is the median of the runs, or of the differences or ratios of pairs of
# them; half of them lie between LOW and HIGH. Instruction counts repeat exactly
# and have the three alike. Lines with any other beginning are for the reader.

# measure COMMAND...: the times that the program prints, then its instructions.
# What $preload names is preloaded into it.
measure() {
  local directory dump with=(env ${preload:+LD_PRELOAD="$preload"})
  directory=$(mktemp -d)
  "${with[@]}" "$@" | tee "$directory/times"
  "${with[@]}" valgrind --tool=callgrind --callgrind-out-file="$directory/dump" "$@" --instructions \
    >/dev/null 2>"$directory/messages" || { cat "$directory/messages" >&2; return 1; }
  # A dump names what it counted, "row|side|turns", and its total.
  find "$directory" -name 'dump.*' | sort -V | while read -r dump; do
    sed -n 's/^desc: Trigger: Client Request: //p; s/^summary: //p' "$dump" | paste -d'|' - -
  done | awk -F'|' -v section="$(sed -n 's/^@\([^|]*\).*/\1/p' "$directory/times" | head -1)" '
    NF < 4 { next }
    $2 == "ours" { ours = $4 / $3; shown = 0; next }
    $2 == "baseline" { figure("instructions", ours - $4 / $3); next }
    !shown++ { figure("instructions, shim", ours) }
    { figure("instructions, " $2, $4 / $3) }
    function figure(unit, value) {
      value = sprintf(value < 100 ? "%.1f" : "%.0f", value)
      printf "@%s|%s|%s|%s|%s|%s\n", section, $1, unit, value, value, value
    }'
  rm -r "$directory"
}
