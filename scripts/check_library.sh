#!/usr/bin/env bash
# check_library.sh LIBRARY CLASS [OBJECTS]: whether a built libtolvane.so is fit to
# be loaded into other programs' processes. CLASS is ELF64 or ELF32. OBJECTS is the
# directory of its object files, to check the dependencies of its folders.
set -euo pipefail
library=$1 class=$2
failed=0
complain() {
  echo "$library: $1" >&2
  failed=1
}

readelf -h "$library" | grep -q "Class: *$class" || complain "is not $class"

needed=$(readelf -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
  grep -vxE 'libc\.so\.6|ld-linux.*|libpthread\.so\.0|libdl\.so\.2' || true)
[ -z "$needed" ] || complain "needs more than the C library: $needed"

! readelf -dW "$library" | grep -q TEXTREL || complain "has text relocations"

# One entry is the compiler's own, one looks the real calls up; any more would do
# something else at load.
entries=$(readelf -dW "$library" | sed -n 's/.*(INIT_ARRAYSZ) *\([0-9]*\).*/\1/p')
[ "$entries" -le "$([ "$class" = ELF64 ] && echo 16 || echo 8)" ] || complain "runs constructors"

# Names without a version are in exports.list; names with one, and the versions
# themselves, in exports.map. The last version is the default one.
shim=$(dirname "$0")/../shim
versioned=$(sed 's/#.*//' "$shim/exports.map" | tr -s '{};:[:space:]' '\n' | awk '
  /^OPENSSL_/ { version = $0; print; next }
  /^(global|local)$/ { global = $0 == "global"; next }
  /./ && global { print $0 (version == "OPENSSL_3.0.0" ? "@@" : "@") version }')
expected=$( (echo "$versioned"
  if [ "$class" = ELF32 ]; then cat "$shim/exports.list"
  else grep -vE '^__(recv|send)msg64$' "$shim/exports.list"; fi) | LC_ALL=C sort)
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | LC_ALL=C sort)
[ "$exported" = "$expected" ] ||
  complain "exports other names than exports.map and exports.list: $(diff <(echo "$expected") <(echo "$exported") | tr '\n' ' ')"

if [ $# -gt 2 ]; then
  "$(dirname "$0")/folder_dependencies.py" "$3" || complain "has folders that depend on each other"
fi

[ $failed -eq 0 ] && echo "$library: $class, C library only, no text relocations, $(echo "$exported" | wc -l) names"
exit $failed
