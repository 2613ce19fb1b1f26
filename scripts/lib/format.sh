# shellcheck shell=bash
# The committed code style. To be sourced.

# check_format: fails, and shows where, unless all C and C++ files of the project are as clang-format leaves them.
check_format() {
  find . -type d \( -name 'build*' -o -name .git \) -prune -o -type f -name '*.[ch]' -print0 -o -type f -name '*.cpp' -print0 |
    xargs -0 clang-format-14 --dry-run -Werror
}
