#!/usr/bin/env bash
# unpacked_packages.sh DIRECTORY: downloads and unpacks what the measurements need
# but a 64-bit Debian cannot have installed without a foreign architecture or a
# copy of Node.js. Nothing of the system is changed.
set -euo pipefail
directory=$1
[ ! -e "$directory/complete" ] || exit 0
mkdir -p "$directory"/apt/{lists,archives}/partial "$directory/root"
: >"$directory/apt/status"
cd "$directory"

i386=(-o APT::Architecture=i386 -o APT::Architectures::=i386
  -o "Dir::State::Lists=$PWD/apt/lists" -o "Dir::Cache=$PWD/apt" -o "Dir::State::status=$PWD/apt/status")
everywhere=(-o APT::Sandbox::User=root -o Acquire::Languages=none)

# The sources of llhttp, and Google Benchmark for 32-bit programs.
apt-get "${everywhere[@]}" download -q node-llhttp
# One archive that cannot be reached does not matter if the package is in another.
apt-get "${everywhere[@]}" "${i386[@]}" update -q ||
  echo "Some package lists of i386 could not be fetched" >&2
apt-get "${everywhere[@]}" "${i386[@]}" download -q libbenchmark-dev:i386 libbenchmark1debian:i386
for package in *.deb; do dpkg-deb -x "$package" root; done
rm -r ./*.deb apt
touch complete
