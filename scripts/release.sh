#!/usr/bin/env bash
# Makes the source archive of a release in build/archive, after checking that it is one: nothing uncommitted; version,
# changelogs, names and tag agree; the binary interface is that of the release before, or has a new number; the archive
# builds, and passes the tests on all processors. Says what the release changes on the wire. Installs what is missing.
#
# Usage: scripts/release.sh [--previous COMMIT] [--no-tests]
#   --previous COMMIT  the release before (default: the last tag v*; there may be none)
#   --no-tests         leave out the tests, which take an hour
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

previous=
tests=yes
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help)
      show_help
      exit
      ;;
    --previous)
      [ $# -gt 1 ] || wrong_usage "$1 needs a value"
      previous=$2 && shift
      ;;
    --no-tests) tests= ;;
    *) wrong_usage "unknown option $1" ;;
  esac
  shift
done
require_packages "${BUILD_PACKAGES[@]}" "${TOOLS_PACKAGES[@]}" abigail-tools dpkg-dev
mkdir -p build/archive
log=$PWD/build/archive.log
: >"$log"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

version=$(sed -n 's/^project(drix_fib6 VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
number=${version%%.*}
tag=v$version
wrong=0
check() { # WHAT COMMAND...
  "${@:2}" && return
  echo "release.sh: $1" >&2
  wrong=1
}
first_entry=$(grep -m 1 '^## ' CHANGELOG.md)
check "uncommitted changes" test -z "$(git status --porcelain)"
check "CHANGELOG.md starts with \"$first_entry\", not with \"## $version, \" and a day like 2026-11-25" \
  grep -qE "^## ${version//./\\.}, [0-9]{4}-[0-9]{2}-[0-9]{2}$" <<<"$first_entry"
packaged=$(dpkg-parsechangelog -S Version)
check "debian/changelog is at $packaged, not at $version" test "$packaged" = "$version"
check "debian/control has no package libdrix-fib6-$number" grep -qx "Package: libdrix-fib6-$number" debian/control
check "packages/drix_fib6.map has no version DRIX_FIB6_$number" grep -q "^DRIX_FIB6_$number {" packages/drix_fib6.map
if git rev-parse -q --verify "refs/tags/$tag" >/dev/null; then
  check "the tag $tag is at another commit" test "$(git rev-parse "$tag^{commit}")" = "$(git rev-parse HEAD)"
  tagged=yes
fi
[ $wrong -eq 0 ] || fail "this is no release yet"

# build_library COMMIT FOLDER: with debug information, as that commit builds it.
build_library() {
  mkdir -p "$2/source"
  git archive "$1" | tar -x -C "$2/source"
  logged "$log" cmake -G Ninja -S "$2/source" -B "$2/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${@:3}"
  logged "$log" cmake --build "$2/build" --target drix_fib6
}
[ -n "$previous" ] || previous=$(git describe --tags --abbrev=0 --match 'v*' --exclude "$tag" 2>/dev/null) || previous=
if [ -z "$previous" ]; then
  echo "interface: there is no release before this one"
else
  build_library "$previous" "$work/before"
  build_library HEAD "$work/now" -DDRIX_BUILD_TOOLS=ON
  old=$(sed -n 's/^project(drix_fib6 VERSION \([0-9.]*\).*/\1/p' "$work/before/source/CMakeLists.txt")
  # differs OPTION...: whether abidiff finds anything, of which the bits 1 and 2 of its status would say that it does not know.
  differs() {
    local status=0
    abidiff "$@" "$work/before/build/libdrix_fib6.so" "$work/now/build/libdrix_fib6.so" >"$work/differences" 2>&1 || status=$?
    [ $((status & 3)) -eq 0 ] || { cat "$work/differences" >&2 && fail "abidiff failed"; }
    [ $status -ne 0 ]
  }
  # show_differences: the types and functions themselves, not all that these are part of.
  show_differences() { abidiff --leaf-changes-only "$work/before/build/libdrix_fib6.so" "$work/now/build/libdrix_fib6.so" || true; }
  if [ "${old%%.*}" != "$number" ]; then
    echo "interface: number $number after ${old%%.*} of $old"
  elif differs --no-added-syms; then
    show_differences
    fail "the binary interface differs from that of $previous: raise the first number (docs/compatibility.md)"
  elif differs && [ "${old%.*}" = "${version%.*}" ]; then
    show_differences
    fail "functions were added since $previous: raise the second number (docs/compatibility.md)"
  else
    echo "interface: as in $old"
  fi
  logged "$log" cmake --build "$work/now/build" --target quopa
  echo "wire, compared with $old:"
  "$work/now/build/tools/quopa/quopa" types --check "$work/before/source/describe/baseline.schema" || true
fi

archive=build/archive/drix_fib6-$version.tar.gz
git archive --prefix="drix_fib6-$version/" HEAD | gzip -n -9 >"$archive"
tar -x -f "$archive" -C "$work"
if [ -n "$tests" ]; then
  "$work/drix_fib6-$version/scripts/test-matrix.sh"
else
  echo "left out: the tests"
fi
(cd build/archive && sha256sum "${archive##*/}" | tee "${archive##*/}.sha256")
[ -n "${tagged:-}" ] || echo "to tag it: git tag -a $tag -m 'libdrix_fib6 $version'"
