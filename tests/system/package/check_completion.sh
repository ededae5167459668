#!/usr/bin/env bash
# check_completion.sh ROOT: what bash offers with the completion of the package
# unpacked there.
set -euo pipefail
. "$(dirname "$0")/checks.sh"
PATH=$1/usr/bin:$PATH
. "$1/usr/share/bash-completion/completions/tolvane"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p 'some sites' bin
touch sites.toml 'some sites/a.toml'
# The list of a live server that does not exist.
cat >bin/listing <<'JSON'
[
  {
    "listen": [
      "*:8081",
      "10.0.0.1:443"
    ],
    "segment": 5,
    "process": 4711,
    "processes_attached": 3
  }
]
JSON
cat >bin/tolvane <<TOOL
#!/bin/sh
[ "\$1 \$2" != "list --json" ] || exec cat "$work/bin/listing"
exec "$1/usr/bin/tolvane" "\$@"
TOOL
chmod +x bin/tolvane
PATH=$work/bin:$PATH

# offered LINE: what is offered at its end.
offered() {
  COMP_LINE=$1 COMP_POINT=${#1}
  _tolvane
  printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort -u | paste -sd' '
}
while IFS='|' read -r line expected; do
  check "'$line'" test "$(offered "$line")" = "$expected"
done <<'TABLE'
tolvane c|check clean configure
tolvane --v|--version
tolvane serve --|--allow-host --config --help --interval --listen --state
tolvane run --type |apache netscape
tolvane run --type n|netscape
tolvane run --semaphores |
tolvane run -q --re|--request-interval
tolvane top --sort s|sent sent/s site
tolvane show --server |*:8081 10.0.0.1:443 4711
tolvane show --server 47|4711
tolvane show --server 10.0.0.1:4|443
tolvane check s|sites.toml some sites
tolvane configure --reset s|sites.toml some sites
tolvane serve --state s|some sites
tolvane run -- tolvan|tolvane
tolvane run -- apache2 -f sites|sites.toml
TABLE
exit $failed
