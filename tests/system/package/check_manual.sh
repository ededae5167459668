#!/usr/bin/env bash
# check_manual.sh ROOT: the manual pages of the package unpacked there are
# well-formed, and tell of the same commands and options as the program.
set -euo pipefail
. "$(dirname "$0")/checks.sh"
man=$1/usr/share/man tolvane=$1/usr/bin/tolvane

for page in "$man"/man*/*.gz; do
  check "lint of $(basename "$page")" mandoc -Tlint -Wwarning <(zcat "$page")
done

# The options in the tags of a page's part, as mdoc writes them, or of its help.
tags() { sed -n 's/^\.It \(Fl .*\)/\1/p' | grep -oE 'Fl -?[A-Za-z][-a-z]*' | sed 's/^Fl /-/' | LC_ALL=C sort -u; }
shown() {
  "$tolvane" "$@" --help | sed -n '/^Options:/,/^$/s/^  \(-[^ ]*\).*/\1/p' | tr ',' '\n' |
    grep -vxE -- '-h|--help' | LC_ALL=C sort -u
}
part() { zcat "$man/man1/tolvane.1.gz" | awk -v name="$1" '/^\.S[sh] /{inside = $2 == name} inside'; }

commands=$("$tolvane" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
check "the manual has every command" diff <(echo "$commands" | sort) \
  <(zcat "$man/man1/tolvane.1.gz" | sed -n 's/^\.Ss \([a-z]*\).*/\1/p' | sort)
for command in $commands; do
  if [ "$command" = serve ]; then
    check "options of $command" diff <(shown serve) <(zcat "$man/man1/tolvane-serve.1.gz" | tags)
  else
    check "options of $command" diff <(shown "$command") <(part "$command" | tags)
  fi
done
exit $failed
