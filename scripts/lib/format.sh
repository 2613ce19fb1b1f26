# shellcheck shell=bash
# The committed code style. To be sourced.

# check_format: fails, and shows where, unless all C and C++ files of the project are as clang-format leaves them.
check_format() {
  local files
  # What git knows or would add, so that build folders of any name are left alone; all of a copy without git's folder.
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    mapfile -d '' files < <(git ls-files -z --cached --others --exclude-standard --deduplicate '*.c' '*.h' '*.cpp' '*.hpp')
  else
    mapfile -d '' files < <(find . -type d -name 'build*' -prune -o -name '*.[ch]' -print0 -o -name '*.[ch]pp' -print0)
  fi
  mapfile -d '' files < <(for file in "${files[@]}"; do [ ! -e "$file" ] || printf '%s\0' "$file"; done)
  clang-format-14 --dry-run -Werror "${files[@]}"
}
