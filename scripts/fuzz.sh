#!/usr/bin/env bash
# Fuzzes decoders and encoders of all packages and what quopa reads with libFuzzer under AddressSanitizer and
# UndefinedBehaviorSanitizer, starting from good images and the regressions. Corpora are kept and findings put under
# build/fuzz/. Prints executions, coverage (edges of library and reference together) and findings of each target; fails
# if there are findings.
#
# Usage: scripts/fuzz.sh [SECONDS]   (default 60, shared evenly by the targets)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

targets=(decode_fib6_cfg decode_korBrokerFib6 decode_fib6Sync round_trip quopa_text quopa_capture)
total=60
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
  total=$1
  shift
fi
no_arguments "$@"
seconds=$((10#$total / ${#targets[@]}))
[ "$seconds" -gt 0 ] || wrong_usage "SECONDS is at least ${#targets[@]}"
build=build/fuzz

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
mkdir -p "$build/findings"
: >"$build.log"
echo "building in $build"
logged "$build.log" cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DDRIX_BUILD_TESTS=ON -DDRIX_BUILD_TOOLS=ON -DDRIX_BUILD_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DDRIX_SANITIZE=fuzzer-no-link,address,undefined
logged "$build.log" cmake --build "$build" --target campaign "${targets[@]/#/fuzz_}"
"$build/tests/campaign/campaign" --seeds "$build/seeds"

findings=0
for target in "${targets[@]}"; do
  corpus=$build/corpus/$target
  mkdir -p "$corpus"
  seeds=$build/seeds/${target#decode_}
  [ -d "$seeds" ] || seeds=$build/seeds
  status=0
  echo "$target: $seconds s"
  "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$target-" "$corpus" "$seeds" "fuzz/regressions/$target" \
    >"$build/$target.log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$target.log")
  coverage=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$build/$target.log" | tail -n 1)
  echo "$target: ${executions:-0} executions, coverage ${coverage:-0}, $([ "$status" = 0 ] && echo no || echo 1) finding"
  [ "$status" = 0 ] || { findings=1; tail -n 30 "$build/$target.log"; }
done
[ "$findings" = 0 ] || fail "findings are in $build/findings"
