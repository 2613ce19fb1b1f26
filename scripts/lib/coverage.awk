# The table of scripts/coverage.sh and all that no test runs, from tab-separated facts: "symbol" name; "line" file line
# count; "function" file first-line last-line count name; "branch" file line column times-true times-false. Fails when
# anything is left without a reason.
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
  if (source(file, line) ~ /read_elements != nullptr/) return "without the quick readers"
}
# Whether a line, or one that it stands inside of, begins what is constexpr.
function in_constexpr(file, line,    indent) {
  for (indent = 1000; line > 0 && indent > 0; --line) {
    match(source(file, line), /^ */)
    if (RLENGTH >= indent || source(file, line) !~ /[^ ]/) continue
    indent = RLENGTH
    if (source(file, line) ~ /constexpr/ && source(file, line) !~ /if constexpr/) return 1
  }
  return 0
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
  if (in_constexpr($2, $3)) for (line = $3; line <= $4; ++line) compiled[$2, line] = 1
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
}
