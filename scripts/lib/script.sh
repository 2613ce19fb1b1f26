# shellcheck shell=bash
# What the project's scripts do alike: their help, errors in one line, logs that are shown only when something failed.
# To be sourced first, after set -euo pipefail and with the project's root as working directory.

script=$(basename "$0")

# No script ends without a word: what is not reported by other means is named here.
set -E
trap 'echo "$script: failed in line $LINENO: $BASH_COMMAND" >&2' ERR

fail() {
  echo "$script: $*" >&2
  exit 1
}

# wrong_usage TEXT: for options that the script does not have.
wrong_usage() {
  echo "$script: $* (see $script --help)" >&2
  exit 2
}

# show_help: the comment at the script's top.
show_help() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "scripts/$script"; }

# no_arguments "$@": for scripts that have no option but --help.
no_arguments() {
  case ${1:-} in
    '') ;;
    -h | --help)
      show_help
      exit
      ;;
    *) wrong_usage "unknown argument $1" ;;
  esac
}

# logged LOG COMMAND...: adds the command's output to the log; shows it, and ends the script, only when it fails. How far
# a build is can be seen all the while: in place on a terminal, else by a line from time to time.
logged() {
  local log=$1 output status=0
  shift
  output=$(mktemp)
  "$@" 2>&1 | tee -a "$log" "$output" | show_progress || status=$?
  if [ $status -ne 0 ]; then
    tail -n 200 "$output" >&2
    rm -f "$output"
    fail "failed: $* (the whole log: $log)"
  fi
  rm -f "$output"
}

# show_progress: the newest [3/40] of standard input.
show_progress() {
  local line next=$((SECONDS + 20))
  while IFS= read -r line; do
    [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
    if [ -t 1 ]; then
      printf '\r  %d of %d steps ' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"
    elif [ $SECONDS -ge $next ]; then
      printf '  %d of %d steps\n' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"
      next=$((SECONDS + 20))
    fi
  done
  [ ! -t 1 ] || printf '\r\033[K'
}
