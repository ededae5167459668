# Sourced: workers that publish into 1, 3 and 16 shared records. Needs $work as
# the others do.

# Five requests' worth of a server's work, in nanoseconds.
work_between=150000

# measure_publication WORKERS ROUNDS MILLISECONDS: rows in $work/rows-publication-*.
measure_publication() {
  "$work/bin/publishing_workers" "$1" 0 "$2" "$3" 0 1 3 16 >"$work/rows-publication-$1-back-to-back"
  "$work/bin/publishing_workers" "$1" $work_between "$2" "$3" 0 1 3 16 >"$work/rows-publication-$1-at-work"
}
