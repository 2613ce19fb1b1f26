#!/usr/bin/env bash
# Judges the decoders on every single change to good images of all message types, 25 million decodings: in a release
# build in front of a guard page (half a minute), then whole under AddressSanitizer and UndefinedBehaviorSanitizer (six
# minutes on one core). Prints the numbers of each; fails at a difference.
# Usage: scripts/campaign.sh [--quick]   (--quick: one change in 100)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

options=()
[ "${1:-}" != --quick ] || options=(--sample 100)

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
export ASAN_OPTIONS=abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:abort_on_error=1
mkdir -p build
for preset in release asan; do
  echo "== $preset"
  { cmake --preset "$preset" && cmake --build --preset "$preset" --target campaign; } >"build/campaign-$preset.log" 2>&1 ||
    { cat "build/campaign-$preset.log" >&2; exit 1; }
  [ "$preset" = release ] || options+=(--heap) # blocks that the sanitizer watches at both ends
  "build/$preset/tests/campaign/campaign" "${options[@]}"
done
