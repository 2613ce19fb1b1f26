#!/usr/bin/env bash
# Tests the decoders, and quopa's walk, on every single change to good images of all message types, 33 million decodings:
# in a release build in front of a guard page, on x86 once more for each way in which lesser processors read vectors'
# elements, and without the quick readers (four minutes each on one core), then under AddressSanitizer and
# UndefinedBehaviorSanitizer one change in ten (as long again). Prints the numbers of each; fails at a difference.
#
# Usage: scripts/campaign.sh [--quick | --whole]
#   --quick  one change in 100
#   --whole  every change also under the sanitizers, which takes an hour
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

options=() sanitized=(--sample 10)
case ${1:-} in
  --quick) options=(--sample 100) sanitized=(--sample 100) && shift ;;
  --whole) sanitized=() && shift ;;
esac
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
if [ "$(uname -m)" = x86_64 ]; then
  for way in each shuffles; do
    echo "== release, elements by $way"
    logged build/campaign-release.log cmake --build build/release --target "drix_fib6_by_$way"
    LD_LIBRARY_PATH=$PWD/build/release/by/$way:$PWD/build/release/platform \
      build/release/tests/campaign/campaign "${options[@]}"
  done
fi
campaign release-without-quick-readers release -DDRIX_QUICK_READERS=OFF
options=("${sanitized[@]}" --heap) # blocks that the sanitizer watches at both ends
campaign asan asan
