# Sourced: turns rows of the measurements of whole servers into figures:
#
#   @SECTION|ROW|UNIT|VALUE|LOW|HIGH
#
# LOW to HIGH is the 95 % interval of a median, or VALUE itself where there is
# none to give.

# What the functions below are written in: one row of paired_ratios at a time.
figure_functions='
  BEGIN { FS = "\t" }
  function figure(row, unit, form, value, low, high) {
    printf "@%s|%s|%s|" form "|" form "|" form "\n", section, row, unit, value, low, high
  }
  function single(row, unit, form, value) { figure(row, unit, form, value, value, value) }
  function added(row, unit, form, per) { figure(row, unit, form, $4 / per, $5 / per, $6 / per) }
  function change(row, unit) { figure(row, unit, "%+.1f", 100 * $7 - 100, 100 * $8 - 100, 100 * $9 - 100) }
'

# figures SECTION BASE FILE PROGRAM: the rows of FILE against the variant BASE.
figures() {
  "$work/bin/paired_ratios" "$2" <"$3" | awk -v section="$1" "$figure_functions $4"
}

# apache_figures SECTION FILE
apache_figures() {
  figures "$1" bare "$2" '
    $1 == "cpu" { single($2, "CPU us/request", "%.1f", $3 / 1000) }
    $2 == "bare" { next }
    $1 == "cpu" { change($2, "CPU %") }
    $1 == "rate" { change($2, "throughput %") }
    $1 == "p99" { change($2, "p99 %") }
    $1 == "dirty" { single($2, "KB/process", "%+.0f", $4) }'
}

# instruction_figures SECTION FILE: of lines of variant and count, tab between.
instruction_figures() {
  awk -v section="$1" "$figure_functions"'
    $1 == "bare" { bare = $2 }
    { single($1, "instructions", "%d", $2) }
    $1 != "bare" { single($1, "instructions %", "%+.1f", 100 * ($2 / bare - 1)) }' "$2"
}

# connection_figures COUNT
connection_figures() {
  figures "Open connections of a threaded server" bare "$work/rows-connections-$1" '
    BEGIN { count = '"$1"' }
    $1 == "cpu" && $2 == "bare" { single(count, "bare, CPU us/request", "%.1f", $3 / 1000) }
    $2 == "bare" { next }
    $1 == "cpu" { added(count, "CPU ns/request", "%+.0f", 1) }
    $1 == "rate" { change(count, "throughput %") }
    $1 == "dirty" { single(count, "MB", "%+.1f", $4 / 1024) }
    $1 == "dirty" { single(count, "KB/connection", "%+.1f", $4 / count) }'
}

# publication_figures WORKERS
publication_figures() {
  local rows=$work/rows-publication-$1
  figures "Publishing workers" 0 "$rows-back-to-back" '
    $2 == 0 { next }
    { row = '"$1"' " workers into " $2 " shared" }
    $1 == "cpu" { added(row, "CPU ns/publication, back to back", "%.0f", 1) }'
  figures "Publishing workers" 0 "$rows-at-work" '
    $2 == 0 { next }
    { row = '"$1"' " workers into " $2 " shared" }
    $1 == "cpu" { change(row, "CPU %, at work") }
    $1 == "rate" { change(row, "throughput %, at work") }'
}
