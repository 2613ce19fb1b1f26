# shellcheck shell=bash
# A script's folder $work and its processes, by name: when the script ends, so do they, and it goes. To be sourced after
# script.sh.

declare -A process
work=$(mktemp -d)
clean_up() {
  # At once and without a word: what is to be said about a failure has been said. One that is paused ends all the same.
  exec 2>/dev/null
  kill -CONT "${process[@]}" || true
  kill "${process[@]}" || true
  jobs -pr | xargs -r kill -KILL || true
  wait || true
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

killed() {
  kill -KILL "${process[$1]}"
  wait "${process[$1]}" 2>/dev/null || true
}
