#!/usr/bin/env bash
# Judges the decoders on every single change to good images of all message types, 25 million decodings: in a release
# build in front of a guard page, the same without the quick readers (half a minute each), then under AddressSanitizer and
# UndefinedBehaviorSanitizer (six minutes on one core). Prints the numbers of each; fails at a difference.
#
# Usage: scripts/campaign.sh [--quick]
#   --quick  one change in 100
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

options=()
if [ "${1:-}" = --quick ]; then
  options=(--sample 100)
  shift
fi
no_arguments "$@"

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
export ASAN_OPTIONS=abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:abort_on_error=1
mkdir -p build

# campaign NAME PRESET CMAKE_OPTION...
campaign() {
  local build=build/$1 log=build/campaign-$1.log
  echo "== $1"
  : >"$log"
  logged "$log" cmake --preset "$2" -B "$build" "${@:3}"
  logged "$log" cmake --build "$build" --target campaign
  "$build/tests/campaign/campaign" "${options[@]}"
}

campaign release release
campaign release-without-quick-readers release -DDRIX_QUICK_READERS=OFF
options+=(--heap) # blocks that the sanitizer watches at both ends
campaign asan asan
