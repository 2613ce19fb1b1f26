#!/usr/bin/env bash
# Installs what is missing, builds and passes all tests: release with g++ and clang, 32 bits, sanitizers. Checks the code
# style at the end.
#
# Usage: scripts/test.sh [--emulate] [PRESET...]   (default: release clang ilp32 asan ilp32-asan tsan)
#   --emulate  run 32-bit programs in the emulator, as is done anyway where the kernel runs none
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh
. scripts/lib/format.sh
. scripts/lib/ilp32.sh

emulate=
presets=()
for argument in "$@"; do
  case $argument in
    -h | --help)
      show_help
      exit
      ;;
    --emulate) emulate=yes ;;
    *)
      grep -q "\"name\": \"$argument\", \"configurePreset\"" CMakePresets.json || wrong_usage "no preset is called $argument"
      presets+=("$argument")
      ;;
  esac
done
[ ${#presets[@]} -gt 0 ] || presets=(release clang ilp32 asan ilp32-asan tsan)

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
mkdir -p build

emulator=
case " ${presets[*]} " in
  *" ilp32"*)
    if [ -n "$emulate" ]; then
      emulator=qemu-i386
      echo "32 bits: in the emulator, as asked for"
    elif ! runs_32_bit_programs; then
      emulator=qemu-i386
      echo "32 bits: this kernel runs no such programs, so they run in the emulator"
    fi
    [ -z "$emulator" ] || require_packages qemu-user
    ;;
esac

# A preset's tests run while the next one builds: many wait more than they work. They are the last job and have a group of
# their own, so that nothing of them outlives the script.
tests=
tested=$(mktemp)
trap '[ -z "$tests" ] || { kill -KILL -- "-$tests" && wait "$tests"; } 2>/dev/null; rm -f "$tested"' EXIT

# start_tests LOG OPTION...: of ctest.
start_tests() {
  set -m
  {
    log=$1 started=$SECONDS
    shift
    logged "$log" ctest "$@" -j "$((2 * $(nproc)))" --timeout 300
    grep -E '^(.*tests passed)' "$log" | tail -n 1
    echo "   tested in $((SECONDS - started)) s"
  } >"$tested" 2>&1 </dev/null &
  tests=$!
  set +m
}

# finish_tests: of the preset before, if there is one.
finish_tests() {
  [ -n "$tests" ] || return 0
  local status=0
  wait "$tests" || status=$?
  tests=
  echo "== $testing: tests"
  cat "$tested"
  [ $status -eq 0 ] || exit 1
  passed=$((passed + 1))
}

passed=0
for preset in "${presets[@]}"; do
  options=()
  case $preset in
    ilp32-asan)
      if [ -n "$emulator" ]; then
        echo "== $preset: left out, AddressSanitizer does not run in the emulator"
        continue
      fi
      ;;&
    ilp32*) options=("-DCMAKE_CROSSCOMPILING_EMULATOR=$emulator") ;;
  esac
  echo "== $preset"
  log=build/$preset.log
  build=(--preset "$preset") select=(--preset "$preset")
  if [ "$preset" = ilp32 ] && [ -n "$emulator" ]; then
    # There is no ilp32-asan then: this one judges all.
    build=("build/$preset") select=(--test-dir "build/$preset" --output-on-failure --no-tests=error)
  fi
  : >"$log"
  started=$SECONDS
  logged "$log" cmake --preset "$preset" "${options[@]}"
  logged "$log" nice cmake --build "${build[@]}" --parallel "$(nproc)"
  echo "   built in $((SECONDS - started)) s"
  finish_tests
  testing=$preset
  start_tests "$log" "${select[@]}"
done
finish_tests
[ $passed -gt 0 ] || fail "no preset was tested"

check_format || fail "not formatted with clang-format-14"
echo "passed: $passed configurations and the code style, in $SECONDS s"
