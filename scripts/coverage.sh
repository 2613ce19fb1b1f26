#!/usr/bin/env bash
# Measures what the tests run of runtime/, bus/ and packages/: lines, branches (each way of each condition) and functions
# (each instantiation of a template counts). A line or branch counts as run when any instantiation ran it. What only the
# compiler evaluates is counted apart. Names all that is left; fails if anything is left without a reason.
# Usage: scripts/coverage.sh
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

build=build/coverage
# Counters that live in the profile files: they outlast processes that end by _exit or a signal. As processes share
# them, only atomic ones add up.
flags="-fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic -mllvm -runtime-counter-relocation"

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" llvm-14 jq
rm -rf "$build/profiles" # those of former builds
mkdir -p "$build"
run() {
  "$@" >"$build.log" 2>&1 || { cat "$build.log" >&2; echo "coverage.sh: failed: $*" >&2; exit 1; }
}
run cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang-14 \
  -DCMAKE_CXX_COMPILER=clang++-14 "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags"
run cmake --build "$build"
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

awk -F '\t' '
  function source(file, line,    text, n) {
    if (!((file, 1) in sources)) while ((getline text <file) > 0) sources[file, ++n] = text
    return sources[file, line]
  }
  function ratio(part, whole) { return part + 0 "/" whole + 0 }
  function left(place, what, reason) {
    missing[++all_missing] = place ": " what (reason == "" ? "" : " (" reason ")")
    if (reason == "") ++without_reason
  }
  function reason_for(file, line) {
    if (source(file, line) ~ /^ *}$/) return reason_for(file, line - 1)
    if (source(file, line) ~ /__builtin_bswap/) return "for big-endian hosts"
    if (source(file, line) ~ /^ *switch /) return "the enumeration has no other value"
  }
  $1 == "symbol" { has_code[$2] = 1 }
  $1 == "line" && $4 > 0 { ++run_lines[$2]; ++lines[$2] }
  $1 == "line" && $4 == 0 { ++lines[$2]; unrun[$2, $3] = 1 }
  $1 == "line" { files[$2] = 1 }
  $1 == "branch" { taken[$2, $3 ":" $4, "true"] += $5; taken[$2, $3 ":" $4, "false"] += $6 }
  $1 == "function" && ($6 in has_code) {
    ++functions[$2]
    if ($5 > 0) ++run_functions[$2]; else left($2 ":" $3, "never run: " $6)
  }
  # Bodies without code were evaluated by the compiler if they are constexpr, or stand inside one that is.
  $1 == "function" && !($6 in has_code) && $5 == 0 && !seen[$2, $3, $4]++ {
    if (source($2, $3) ~ /constexpr/) for (line = $3; line <= $4; ++line) compiled[$2, line] = 1
  }
  END {
    for (key in unrun) {
      split(key, at, SUBSEP)
      if (key in compiled) { ++compile_time[at[1]]; --lines[at[1]] } else
        left(at[1] ":" at[2], "line never run", reason_for(at[1], at[2]))
    }
    for (key in taken) {
      split(key, at, SUBSEP)
      split(at[2], place, ":")
      if (taken[key] == 0 && (at[1], place[1]) in compiled && (at[1], place[1]) in unrun) continue
      ++branches[at[1]]
      if (taken[key] > 0) ++run_branches[at[1]]; else left(at[1] ":" at[2], "never " at[3], reason_for(at[1], place[1]))
    }
    format = "%-42s %11s %9s %13s %13s\n"
    printf format, "", "lines", "branches", "functions", "compile time"
    fflush() # before sort writes
    for (file in files) {
      printf format, file, ratio(run_lines[file], lines[file]), ratio(run_branches[file], branches[file]),
        ratio(run_functions[file], functions[file]), compile_time[file] + 0 | "sort"
      all_lines += lines[file]; all_run_lines += run_lines[file]
      all_branches += branches[file]; all_run_branches += run_branches[file]
      all_functions += functions[file]; all_run_functions += run_functions[file]
      all_compile_time += compile_time[file]
    }
    close("sort")
    printf format, "all", ratio(all_run_lines, all_lines), ratio(all_run_branches, all_branches),
      ratio(all_run_functions, all_functions), all_compile_time
    fflush()
    for (i = 1; i <= all_missing; ++i) print missing[i] | "sort -V | c++filt"
    close("sort -V | c++filt")
    print all_missing + 0 " left, " without_reason + 0 " of them without a reason"
    exit without_reason > 0 || all_run_lines == 0
  }' "$build/symbols" "$build/lines" "$build/functions"
