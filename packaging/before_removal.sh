# shellcheck shell=sh
# Segments and semaphores of servers that have ended can only be removed while the
# tool is installed.
tolvane clean >/dev/null 2>&1 || true

servers=$(tolvane list 2>/dev/null) && cat <<EOT
These servers run with the library loaded. They continue to serve and to count
until they are restarted:
$servers
EOT
units=$(grep -ls 'tolvane run' /etc/systemd/system/*.d/*.conf || true)
[ -z "$units" ] || cat <<EOT
These files start servers with 'tolvane run'. A unit without a fallback will fail
to start. Remove the files, then run 'systemctl daemon-reload':
$units
EOT
