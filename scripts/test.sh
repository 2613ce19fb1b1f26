#!/usr/bin/env bash
# Installs what is missing, checks the code style, builds and passes all tests: release with g++ and clang, 32-bit,
# sanitizers.
# Usage: scripts/test.sh [PRESET...]   (default: all of them)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
. scripts/lib/format.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(clang asan ilp32 ilp32-asan tsan release)

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
check_format || { echo "test.sh: not formatted with clang-format-14" >&2; exit 1; }

# run LOG COMMAND...: shows the whole log only when the command fails.
run() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 || { cat "$log" >&2; echo "test.sh: failed: $*" >&2; exit 1; }
}

mkdir -p build
for preset in "${presets[@]}"; do
  echo "== $preset"
  run "build/$preset.log" cmake --preset "$preset"
  run "build/$preset.log" cmake --build --preset "$preset"
  run "build/$preset.log" ctest --preset "$preset" -j "$(nproc)" --timeout 300
  grep -E '^(.*tests passed|Total Test time)' "build/$preset.log"
done
