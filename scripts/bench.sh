#!/usr/bin/env bash
# Installs what is missing, builds and measures: the library's operations on one core, and the exchange of records
# between two processes. Prints tables of medians and writes them to build/bench/*.json. Wants a quiet machine.
#
# Usage: scripts/bench.sh [--benchmark_OPTION]...   (Google Benchmark's, for example --benchmark_filter=fib6Sync)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

for argument in "$@"; do
  case $argument in
    --benchmark_?*) ;;
    *) no_arguments "$argument" ;;
  esac
done

repetitions=11
batches=(1 16 256 4096)
runs=3
routes=2670000 # 10,000 times the sample

require_packages "${BUILD_PACKAGES[@]}" libbenchmark-dev util-linux
build=build/bench
mkdir -p "$build"
: >"$build.log"
echo "building in $build"
logged "$build.log" cmake --preset release -B "$build" -DDRIX_BUILD_BENCH=ON -DDRIX_BUILD_TESTS=OFF -DDRIX_BUILD_TOOLS=OFF
logged "$build.log" cmake --build "$build"

core=$(($(nproc) - 1))
grep -m 1 'model name' /proc/cpuinfo || true
size "$build/libdrix_fib6.so"
taskset -c "$core" "$build/bench/drix_bench" --benchmark_repetitions="$repetitions" \
  --benchmark_enable_random_interleaving=true --benchmark_min_time=0.05 --benchmark_out="$build/codec.json" "$@"

# exchange BATCH: routes per second from one process to the other, acknowledged.
exchange() {
  scripts/demo.sh --binaries "$build/examples" --sample --quiet --repeat $((routes / 267)) --batch "$1" 2>/dev/null |
    sed -n 's|^sent .* s: \([0-9]*\) routes/s, all acknowledged$|\1|p'
}

printf '\n| records/s |'
printf ' batch of %s |' "${batches[@]}"
printf '\n|---|'
printf -- '--:|%.0s' "${batches[@]}"
printf '\n| fib6Sync.ipv6FwdUpdateMsg, between processes |'
json=
for batch in "${batches[@]}"; do
  median=$(for ((run = 0; run < runs; run++)); do exchange "$batch"; done | sort -n | sed -n "$(((runs + 1) / 2))p")
  printf ' %d |' "$median"
  json+="${json:+, }\"$batch\": $median"
done
printf '\n'
echo "{\"records_per_second_by_batch\": {$json}}" >"$build/exchange.json"
