#!/usr/bin/env bash
# Judges the tests: plants the small faults of a list one at a time in a copy of the project, builds and runs the tests of
# the release preset that judge the library, and prints which faults survive. Fails when one survives that the list gives
# no reason for, when one with a reason is caught after all, when one does not build, and when the text of one does not
# stand exactly once in its file.
#
# Usage: scripts/mutate.sh [--only WORD] [--jobs N] [--resume] [--check]
#   --only WORD  only the faults whose file, text or replacement contains the word
#   --jobs N     so many faults at a time, each in a copy of its own (default: 2)
#   --resume     keep what a former run found, as long as project and fault are the same
#   --check      only check that the text of every fault stands exactly once in its file
#
# The list, tests/mutation/faults, says how a fault is written down.
set -euo pipefail
cd "$(dirname "$0")/.."

list=tests/mutation/faults
work=$PWD/build/mutation
# Those that judge the library alike every time, and no others: what scribbles or sends through the bus is left out.
targets=(drix_fib6 test_codec test_send test_binding campaign fuzz_round_trip)
tests='^(Codec|Images|Send|Binding|campaign\.sample|fuzz\.(seeds|replay_round_trip)|abi\.shared)'
only='' jobs=2 resume='' check=''

fail() {
  echo "mutate: $*" >&2
  exit 1
}

while [ $# -gt 0 ]; do
  case $1 in
    -h | --help) sed -n '2,/^set/s/^# \{0,1\}//p' "$0" && exit ;;
    --only) only=${2:?--only needs a word} && shift ;;
    --jobs) jobs=${2:?--jobs needs a number} && shift ;;
    --resume) resume=yes ;;
    --check) check=yes ;;
    *) fail "unknown option $1" ;;
  esac
  shift
done

# The faults side by side: file, text, replacement, expected result, reason.
files=() texts=() replacements=() results=() reasons=()
read_list() {
  local line number=0 open='' what
  while IFS= read -r line || [ -n "$line" ]; do
    number=$((number + 1))
    what=${line:0:2}
    case $what in
      '#'*) ;;
      '')
        open=''
        ;;
      '- ' | '+ ' | '? ')
        [ -n "$open" ] || fail "$list:$number: no file before this line"
        line=${line:2}
        case $what in
          '- ') texts[-1]+=${texts[-1]:+$'\n'}$line ;;
          '+ ') replacements[-1]+=${replacements[-1]:+$'\n'}$line ;;
          *)
            results[-1]=${line%%: *} reasons[-1]=${line#*: }
            [ "${results[-1]}" = survives ] || [ "${results[-1]}" = refused ] || fail "$list:$number: ${results[-1]}?"
            ;;
        esac
        ;;
      *)
        [ -f "$line" ] || fail "$list:$number: no such file: $line"
        open=yes
        files+=("$line") texts+=('') replacements+=('') results+=(caught) reasons+=('')
        ;;
    esac
  done <"$list"
}

# Prints a file with a fault in it; fails unless its text stands there exactly once.
planted() { # FAULT
  local content text=${texts[$1]}
  content=$(cat "${files[$1]}" && echo .)
  content=${content%.}
  local before=${content%%"$text"*} after=${content#*"$text"}
  if [ -z "$text" ] || [ "$before" = "$content" ] || [ "${after#*"$text"}" != "$after" ]; then
    fail "not exactly once in ${files[$1]}: $text"
  fi
  printf '%s' "$before${replacements[$1]}$after"
}

key_of() { printf '%s\n' "${files[$1]}" "${texts[$1]}" "${replacements[$1]}" | sha1sum | cut -c 1-16; }

run() {
  "$@" >"$copy/log" 2>&1
}

build() { run ninja -C "$copy/build" -j "$1" "${targets[@]}"; }

run_tests() {
  run ctest --test-dir "$copy/build" -R "$tests" --stop-on-failure --timeout 60 --output-on-failure
}

# What becomes of a fault in the copy of this job.
judge() { # FAULT
  planted "$1" >"$copy/tree/${files[$1]}"
  if ! build 1; then
    # A crash while tests are listed is a test that fails.
    if grep -q 'error:\|undefined reference' "$copy/log"; then echo refused; else echo caught; fi
  elif run_tests; then
    echo survives
  else
    echo caught
  fi
  cp -p "${files[$1]}" "$copy/tree/${files[$1]}"
  touch "$copy/tree/${files[$1]}"
}

prepare() {
  rm -rf "$copy/tree"
  mkdir -p "$copy/tree"
  git ls-files -z | xargs -0 cp -p --parents -t "$copy/tree"
  # What a former run built last had a fault in it, whatever the file's time says.
  (cd "$copy/tree" && touch "${files[@]}")
  (cd "$copy/tree" && run cmake --preset release -B "$copy/build" -DDRIX_BUILD_EXAMPLES=OFF \
    -DDRIX_WARNINGS_AS_ERRORS=OFF -DCMAKE_LINK_DEPENDS_NO_SHARED=ON) ||
    fail "does not configure, see $copy/log"
  build 1 || fail "does not build, see $copy/log"
  run_tests || fail "the tests fail without a fault, see $copy/log"
}

work_off() { # every jobs-th fault from this job's on
  local copy=$work/$job i result start
  prepare
  for ((i = job; i < ${#chosen[@]}; i += jobs)); do
    local fault=${chosen[i]}
    grep -q "^$(key_of "$fault") " "$work/results" && continue
    start=$SECONDS
    result=$(judge "$fault")
    printf '%s %s\n' "$(key_of "$fault")" "$result" >>"$work/results"
    printf '%3d/%d %4d s  %-8s %s: %s -> %s\n' "$((i + 1))" "${#chosen[@]}" "$((SECONDS - start))" "$result" \
      "${files[$fault]}" "$(one_line "${texts[$fault]}")" "$(one_line "${replacements[$fault]}")"
  done
}

one_line() {
  local text=${1//$'\n'/ }
  read -r text <<<"$text" || true
  printf '%s' "${text:0:100}"
}

read_list
chosen=()
for ((fault = 0; fault < ${#files[@]}; ++fault)); do
  [[ ${files[fault]}${texts[fault]}${replacements[fault]} == *"$only"* ]] || continue
  planted "$fault" >/dev/null
  chosen+=("$fault")
done
[ ${#chosen[@]} -gt 0 ] || fail "no fault contains $only"
echo "mutate: ${#chosen[@]} faults"
[ -z "$check" ] || exit 0

mkdir -p "$work"
project=$(git ls-files -z -- . ':!tests/mutation' | xargs -0 sha1sum | sha1sum)
if [ -z "$resume" ] || [ "$(cat "$work/project" 2>/dev/null)" != "$project" ]; then
  : >"$work/results"
  echo "$project" >"$work/project"
fi
trap 'jobs -pr | xargs -r kill 2>/dev/null || true' EXIT
for ((job = 0; job < jobs; ++job)); do
  work_off &
done
for pid in $(jobs -p); do wait "$pid" || fail "a job failed"; done

survivors=0 wrong=0
for fault in "${chosen[@]}"; do
  result=$(sed -n "s/^$(key_of "$fault") //p" "$work/results")
  [ "$result" != survives ] || survivors=$((survivors + 1))
  if [ "$result" != "${results[fault]}" ]; then
    wrong=$((wrong + 1))
    echo "mutate: $result, not ${results[fault]}: ${files[fault]}: ${texts[fault]} -> ${replacements[fault]}"
  elif [ "$result" = survives ]; then
    echo "survives: ${files[fault]}: $(one_line "${texts[fault]}"): ${reasons[fault]}"
  fi
done
echo "mutate: ${#chosen[@]} faults, $survivors survive, $wrong not as the list says"
[ "$wrong" -eq 0 ]
