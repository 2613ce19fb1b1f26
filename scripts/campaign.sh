#!/usr/bin/env bash
# Judges the decoders on every single change to good images of all message types, 25 million decodings: in a release
# build in front of a guard page, the same without the quick readers (half a minute each), then under AddressSanitizer and
# UndefinedBehaviorSanitizer (six minutes on one core). Prints the numbers of each; fails at a difference.
# Usage: scripts/campaign.sh [--quick]   (--quick: one change in 100)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

options=()
[ "${1:-}" != --quick ] || options=(--sample 100)

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
export ASAN_OPTIONS=abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:abort_on_error=1
mkdir -p build

# campaign NAME PRESET CMAKE_OPTION...
campaign() {
  local build=build/$1
  echo "== $1"
  { cmake --preset "$2" -B "$build" "${@:3}" && cmake --build "$build" --target campaign; } \
    >"build/campaign-$1.log" 2>&1 || { cat "build/campaign-$1.log" >&2; exit 1; }
  "$build/tests/campaign/campaign" "${options[@]}"
}

campaign release release
campaign release-without-quick-readers release -DDRIX_QUICK_READERS=OFF
options+=(--heap) # blocks that the sanitizer watches at both ends
campaign asan asan
