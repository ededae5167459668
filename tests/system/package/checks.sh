# shellcheck shell=bash disable=SC2034
# Sourced by the package tests, which end with what `failed` says.
failed=0

say() { printf '== %s\n' "$*"; }

# check WHAT COMMAND...: one line, and the command's output when it fails.
check() {
  local what=$1 output
  shift
  if output=$("$@" 2>&1); then
    echo "ok: $what"
  else
    printf 'FAILED: %s\n%s\n' "$what" "$output"
    failed=1
  fi
}
