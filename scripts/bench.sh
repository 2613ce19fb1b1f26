#!/usr/bin/env bash
# Installs what is missing, builds with g++ at -O2 and -O3 and with clang at -O2, and measures in CPU time: the library's
# operations beside a plain serializer, Protocol Buffers, Cap'n Proto and memcpy, on one core, then the exchange of
# records between two processes. Prints Markdown tables, each ratio beside its aim, draws their main rows as
# build/bench/bars-*.svg, and leaves the results of every repetition in build/bench/*.json. Wants a quiet machine with two
# cores, for about a quarter of an hour.
#
# Usage: scripts/bench.sh [--quick] [--rows REGEX]
#   --quick         g++ at -O2 only, few repetitions, no second process: a minute once built
#   --rows REGEX    only the rows whose names (table/row/) match
# For example: scripts/bench.sh --quick --rows '^vectors/64 '
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

builds=(g++-O2 g++-O3 clang-O2)
rounds=2 # of all builds in turn, so that a spell of noise does not fall on one of them alone
repetitions=5
seconds=0.01 # of CPU time, a repetition
rows=
batches=(1 16 256 4096)
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help)
      show_help
      exit
      ;;
    --quick) builds=(g++-O2) rounds=1 repetitions=3 seconds=0.005 batches=() ;;
    --rows)
      [ $# -gt 1 ] || wrong_usage "--rows needs a regular expression"
      rows=$2 batches=()
      shift
      ;;
    *) wrong_usage "unknown argument $1" ;;
  esac
  shift
done

require_packages "${BUILD_PACKAGES[@]}" "${TOOLS_PACKAGES[@]}" clang-14 libbenchmark-dev protobuf-compiler \
  libprotobuf-dev capnproto libcapnp-dev libzmq3-dev python3 python3-matplotlib util-linux

# build NAME: of the form COMPILER-OPTIMISATION.
build() {
  local folder=build/bench/$1 flags="-${1##*-} -DNDEBUG" preset=release targets=(drix_bench drix_bench_startup)
  if [[ $1 = clang-* ]]; then preset=clang; fi
  if [ "$1" = "${builds[0]}" ] && [ ${#batches[@]} -gt 0 ]; then targets+=(all); fi
  echo "building in $folder"
  : >"$folder.log"
  logged "$folder.log" cmake --preset "$preset" -B "$folder" -DDRIX_BUILD_BENCH=ON -DDRIX_BUILD_TESTS=OFF \
    "-DCMAKE_C_FLAGS_RELEASE=$flags" "-DCMAKE_CXX_FLAGS_RELEASE=$flags"
  logged "$folder.log" cmake --build "$folder" --target "${targets[@]}"
}
mkdir -p build/bench
for name in "${builds[@]}"; do build "$name"; done

core=$(($(nproc) - 1))
# measure NAME PROGRAM PART OPTION...: appends the file of results to results[NAME].
declare -A results
measure() {
  local out=build/bench/$1-$2-$3.json
  logged build/bench/run.log taskset -c "$core" "build/bench/$1/bench/$2" "${@:4}" \
    --benchmark_repetitions="$repetitions" --benchmark_enable_random_interleaving=true --benchmark_out="$out"
  results[$1]+=${results[$1]:+,}$out
}
rm -f build/bench/*.json
# Each row in a process of its own: what one leaves behind in the processor's guesses about which loads wait for which
# stores can slow down the memcpy of another four times, for as long as the process lives.
each_row=$("build/bench/${builds[0]}/bench/drix_bench" "$seconds" "$rows" --benchmark_list_tests |
  cut -d / -f 1,2 | uniq) || fail "no row matches $rows"
for ((round = 1; round <= rounds; round++)); do
  echo "measuring, round $round of $rounds"
  number=0
  while read -r row; do
    number=$((number + 1))
    for name in "${builds[@]}"; do measure "$name" drix_bench "$round-$number" "$seconds" "^$row/"; done
  done <<<"$each_row"
done
if [ -z "$rows" ]; then measure "${builds[0]}" drix_bench_startup 1; fi

printf '\n%s, %s\n\n' "$(date -I)" "$(lscpu | sed -n 's/^Model name: *//p')"
for name in "${builds[@]}"; do
  printf '%s: %s bytes of text\n' "$name" "$(size "build/bench/$name/libdrix_fib6.so" | awk 'NR == 2 { print $1 }')"
done
arguments=()
for name in "${builds[@]}"; do
  arguments+=("$name=${results[$name]}")
done
python3 bench/tables.py "${arguments[@]}" | tee build/bench/tables.md
if [ -z "$rows" ]; then bench/bars.py build/bench/tables.md build/bench; fi
[ ${#batches[@]} -gt 0 ] || exit 0

# Routes per second from one process to the other, checked and acknowledged, the same with the recorder in both, and what
# ZeroMQ does with as many bytes, in turn. The two processes wait for each other, so this is elapsed time.
exchange() { # BATCH TIMES, how often to send the sample
  scripts/demo.sh --binaries "build/bench/${builds[0]}/examples" --sample --quiet --repeat "$2" --batch "$1" \
    2>/dev/null | sed -n 's|^sent .* s: \([0-9]*\) routes/s, all acknowledged$|\1|p'
}
traced_exchange() (
  trace=$(mktemp -d -p /dev/shm) # in memory
  trap 'rm -r "$trace"' EXIT
  # The loader takes a blank in LD_PRELOAD, which the folder may have, for the end of a name.
  export QUOPA_TRACE_DIR=$trace LD_LIBRARY_PATH=$PWD/build/bench/${builds[0]}/trace LD_PRELOAD=libquopa_trace.so
  exchange "$@"
  [ "$(find "$trace" -type f | wc -l)" -eq 16 ] || fail "no room in $trace for the traces of two processes"
)
declare -A library traced zeromq
for batch in "${batches[@]}"; do
  # Seconds: the recorder's first turn of its ring, for which the kernel has to find the memory, takes some tenths.
  times=$((batch < 256 ? 20000 : 100000))
  for _ in 1 2 3; do
    library[$batch]+=$(exchange "$batch" $times)$'\n'
    traced[$batch]+=$(traced_exchange "$batch" $times)$'\n'
    zeromq[$batch]+=$("build/bench/${builds[0]}/bench/drix_bench_exchange" "$batch" $((times * 267)))$'\n'
  done
done
middle() { sort -n <<<"${1%$'\n'}" | sed -n 2p; }
{
  printf '\n| fib6Sync.ipv6FwdUpdateMsg between processes, records/s | the library over the stand-in bus | both sides traced '
  printf '| ZeroMQ | traced : untraced | library : ZeroMQ |\n|---|--:|--:|--:|--:|--:|\n'
  for batch in "${batches[@]}"; do
    ours=$(middle "${library[$batch]}") recorded=$(middle "${traced[$batch]}") theirs=$(middle "${zeromq[$batch]}")
    printf '| batch of %d | %d | %d | %d | %.2f | %.2f |\n' "$batch" "$ours" "$recorded" "$theirs" \
      "$(awk "BEGIN { print $recorded / $ours }")" "$(awk "BEGIN { print $ours / $theirs }")"
  done
} | tee -a build/bench/tables.md
