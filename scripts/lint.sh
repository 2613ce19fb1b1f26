#!/usr/bin/env bash
# Checks the code style with clang-format, that each source compiles alone, and looks for likely mistakes with
# clang-tidy, after installing what is missing. Names what it finds, and at the end how many files have findings. For
# developers; the rest of the checks is in scripts/test.sh.
#
# Usage: scripts/lint.sh [FILE]...   (default: the sources of the library, the stand-ins, the examples and the tools)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh
. scripts/lib/format.sh

files=("$@")
for file in "$@"; do
  [ -f "$file" ] || no_arguments "$file"
done
# Headers are looked at through the sources that include them. Of the packages one: every check walks through all that
# their templates make of each type, which takes minutes in the large ones and finds nothing that the small one does not.
[ $# -gt 0 ] || mapfile -d '' files < <(find runtime bus packages/fib6_cfg platform examples tools \
  \( -name '*.c' -o -name '*.cpp' \) -print0)

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" clang-tidy-14
mkdir -p build
: >build/lint.log
logged build/lint.log cmake --preset clang -B build/lint -DDRIX_BUILD_NATS=ON -DDRIX_JOIN_SOURCES=OFF
[ $# -gt 0 ] || logged build/lint.log cmake --build build/lint
style=good
check_format || style="not as clang-format-14 leaves it"

# check FILE: prints the findings if there are any.
check() {
  local started=$SECONDS findings status=0
  findings=$(clang-tidy-14 -p build/lint --quiet "$1" 2>&1) || status=$?
  echo "$1: $([ $status = 0 ] && echo nothing || echo FINDINGS), $((SECONDS - started)) s"
  [ $status = 0 ] || grep -vE '^[0-9]+ warnings? (generated|treated as error)|^$' <<<"$findings"
  return $status
}
export -f check
bad=$(printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" bash -c 'check "$1"' check | tee /dev/stderr |
  grep -c ': FINDINGS, ') || true
echo "lint.sh: $bad of ${#files[@]} files have findings, the code style is $style"
[ "$bad" = 0 ] && [ "$style" = good ] || exit 1
