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
  build=(--preset "$preset") tests=(--preset "$preset")
  if [ "$preset" = ilp32 ] && [ -n "$emulator" ]; then
    # There is no ilp32-asan then: this one judges all.
    build=("build/$preset") tests=(--test-dir "build/$preset" --output-on-failure --no-tests=error)
  fi
  : >"$log"
  started=$SECONDS
  logged "$log" cmake --preset "$preset" "${options[@]}"
  logged "$log" cmake --build "${build[@]}"
  built=$SECONDS
  # Many tests wait more than they work.
  logged "$log" ctest "${tests[@]}" -j "$((2 * $(nproc)))" --timeout 300
  grep -E '^(.*tests passed)' "$log" | tail -n 1
  echo "   built in $((built - started)) s, tested in $((SECONDS - built)) s"
  passed=$((passed + 1))
done
[ $passed -gt 0 ] || fail "no preset was tested"

check_format || fail "not formatted with clang-format-14"
echo "passed: $passed configurations and the code style, in $SECONDS s"
