# shellcheck shell=bash
# Runs quopa as a user does, a line a case. To be sourced; the caller says in the array quopa how it is started.
project=$(realpath "$(dirname "$0")/../..")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

complain() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# expect STATUS OUTPUT ERRORS INPUT ARGUMENT...: a line that matches in standard output and the only line of standard
# error, which never has anything that a terminal obeys; an empty pattern stands for no output at all, * for any. INPUT
# may have escapes as for printf.
expect() {
  local status=$1 output=$2 errors=$3 input=$4 got=0
  shift 4
  printf '%b' "$input" | timeout 60 "${quopa[@]}" "$@" >output 2>errors || got=$?
  if [ $got -ne "$status" ] || ! matches "$output" output || ! matches "$errors" errors ||
    LC_ALL=C grep -qa '[^ -~]' errors; then
    complain "quopa $* (status $got)"
    tail -n 5 output errors | cut -c 1-500 | cat -v
  fi
}
matches() {
  case $1 in
    '') [ ! -s "$2" ] ;;
    '*') true ;;
    *) grep -qE -- "$1" "$2" && { [ "$2" = output ] || grep -qvE '^quopa: ' "$2" || [ "$(wc -l <"$2")" -eq 1 ]; } ;;
  esac
}

