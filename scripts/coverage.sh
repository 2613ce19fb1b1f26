#!/usr/bin/env bash
# Measures what the tests run of runtime/, bus/ and packages/: lines, branches (each way of each condition) and functions
# (each instantiation of a template counts). A line or branch counts as run when any instantiation ran it. What only the
# compiler evaluates is counted apart. Names all that is left; fails if anything is left without a reason.
#
# Usage: scripts/coverage.sh
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh
no_arguments "$@"

build=build/coverage
# Counters that live in the profile files: they outlast processes that end by _exit or a signal. As processes share
# them, only atomic ones add up.
flags="-fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic -mllvm -runtime-counter-relocation"

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" llvm-14 jq
rm -rf "$build/profiles" # those of former builds
mkdir -p "$build"
: >"$build.log"
run() { logged "$build.log" "$@"; }
echo "building in $build"
run cmake -S . -B "$build" -G Ninja -DDRIX_BUILD_EXAMPLES=ON -DDRIX_BUILD_TESTS=ON -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags"
run cmake --build "$build"
echo "testing"
# The shared object exports and needs what the profiler must.
LLVM_PROFILE_FILE=$PWD/$build/profiles/%c%m.profraw run ctest --test-dir "$build" -j "$(nproc)" --timeout 300 \
  --output-on-failure --exclude-regex '^abi.shared_object$'
run llvm-profdata-14 merge -sparse "$build"/profiles/*.profraw -o "$build/all.profdata"

# The library, and its core as the tests' own package uses it.
objects=("$build/libdrix_fib6.so" "$build"/tests/{codec/test_codec,send/test_send,binding/test_binding})
export_coverage() { # FORMAT
  llvm-cov-14 export -format="$1" -instr-profile "$build/all.profdata" "${objects[0]}" "${objects[@]/#/-object=}" \
    runtime bus packages 2>>"$build.log"
}
nm --defined-only "${objects[@]}" | awk 'NF == 3 { print "symbol\t" $3 }' >"$build/symbols"
export_coverage lcov | awk -F '[:,]' -v root="$PWD/" '
  /^SF:/ { file = substr($2, length(root) + 1) }
  /^DA:/ { print "line\t" file "\t" $2 "\t" $3 }' >"$build/lines"
export_coverage text | jq -r --arg root "$PWD/" '
  .data[0].functions[] | (.filenames | map(ltrimstr($root))) as $files
  | select($files[0] | test("^(runtime|bus|packages)/"))
  | ["function", $files[0], .regions[0][0], .regions[0][2], .count, (.name | sub("^[^:]*:"; ""))],
    (.branches[] | ["branch", $files[.[6]], .[0], .[1], .[4], .[5]]) | @tsv' >"$build/functions"

awk -F '\t' -f scripts/lib/coverage.awk "$build/symbols" "$build/lines" "$build/functions" ||
  fail "not all is run, or there is no reason why not"
