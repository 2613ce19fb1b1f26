#!/usr/bin/env bash
# Checks the code style with clang-format and looks for likely mistakes with clang-tidy, after installing what is
# missing. For developers; the rest of the checks is in scripts/test.sh.
# Usage: scripts/lint.sh
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
. scripts/lib/format.sh

require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" clang-tidy-14
mkdir -p build
cmake --preset clang >build/lint.log 2>&1 || { cat build/lint.log >&2; exit 1; }
failed=0
check_format || failed=1
# Headers are looked at through the sources that include them.
find runtime bus packages platform examples tools -name '*.c' -print0 -o -name '*.cpp' -print0 |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p build/clang --quiet || failed=1
exit "$failed"
