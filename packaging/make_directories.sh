# shellcheck shell=sh
# Not part of the package's content, so its removal does not remove them while measured
# servers run. Existing directories are not changed.
make_directory() {
  [ -d "$2" ] || install -d -m "$1" "$2"
}
for directory in /opt/tolvane /opt/tolvane/agent /opt/tolvane/agent/config /opt/tolvane/agent/data; do
  make_directory 755 "$directory"
done
make_directory 1777 /opt/tolvane/agent/logs
