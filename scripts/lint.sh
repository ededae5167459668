#!/usr/bin/env bash
# lint.sh: checks the form of all sources and scripts, and looks for mistakes in
# them: clang-format, shellcheck, pyflakes, clang-tidy. Every finding is an error.
#
# Installs what is missing on a Debian 12; packages need root or sudo. Compiles
# nothing. .clang-tidy says what is checked in C++ and why.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
install_missing "${build_packages[@]}" "${tool_packages[@]}" googletest libnghttp2-dev libbenchmark-dev \
  clang-format clang-tidy shellcheck pyflakes3 python3

# files PATTERN...: the project's files with such names.
files() {
  local pattern names=()
  for pattern in "$@"; do names+=(-o -name "$pattern"); done
  find . -type d \( -name build -o -name .git \) -prune -o -type f \( "${names[@]:1}" \) -print0
}
# A shell script is known by its name or its first line.
shell_scripts() {
  files '*.sh'
  find .ci packaging -type f -exec grep -lZ '^#!.*sh$' {} +
}

failed=0
files '*.cpp' '*.h' '*.c' | xargs -0 clang-format --dry-run --Werror || failed=1
shell_scripts | xargs -0 shellcheck || failed=1
files '*.py' | xargs -0 pyflakes3 || failed=1
cmake --preset lint >/dev/null
# The tests are left out: their sources cannot share a pass, and take twice as long as all others.
scripts/clang_tidy.py build/lint shim agent http_client bench || failed=1
exit $failed
