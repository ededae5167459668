# shellcheck shell=bash disable=SC2034
# Sourced by the other scripts, which use the lists: installs Debian packages that are missing.

# Runs a command as root, with sudo where that is needed.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# install_missing PACKAGE...
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "Installing ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}

# What building needs, in both word sizes; libc6-dev-i386 and the like come
# with g++-multilib.
build_packages=(g++ g++-multilib cmake ninja-build binutils)

# What the command-line tool is built on.
tool_packages=(libcli11-dev libfmt-dev libtomlplusplus-dev nlohmann-json3-dev libmicrohttpd-dev
  libsqlite3-dev libsqlitecpp-dev libutf8proc-dev)
