#!/usr/bin/env bash
# parsing.sh BUILD: how the shim's parsing and matching compare with llhttp,
# Hyperscan and RE2::Set, measured with the program of a 64-bit build directory
# (preset bench). Prints figures in the format of measured.sh: per row the times
# of both, their ratio, and instructions. Takes about a minute. Needs valgrind.
set -euo pipefail
. "$(dirname "$0")/measured.sh"
for group in requests urls; do measure "$1/bin/parsing" $group; done
