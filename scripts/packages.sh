#!/usr/bin/env bash
# Makes the Debian packages in build/packages, in a clean copy and without network, and has lintian check them. Installs
# what is missing.
#
# Usage: scripts/packages.sh [--twice] [--output DIR]
#   --twice       build them a second time elsewhere, and compare the bytes
#   --output DIR  put them there instead; packages that are there go
set -euo pipefail
start=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

twice=
output=build/packages
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help)
      show_help
      exit
      ;;
    --twice) twice=yes ;;
    --output)
      [ $# -gt 1 ] || wrong_usage "$1 needs a value"
      output=$(cd "$start" && realpath -m -- "$2") && shift
      ;;
    *) wrong_usage "unknown option $1" ;;
  esac
  shift
done

mapfile -t build_depends < <(sed -n '/^Build-Depends:/,/^[^ ]/s/^ \([a-z0-9.+-]*\).*/\1/p' debian/control | sed s/-compat//)
require_packages build-essential lintian "${build_depends[@]}"

# Without network where the kernel allows it, be it only inside a user namespace.
offline=()
for attempt in 'unshare --net' 'unshare --map-root-user --net'; do
  read -ra offline <<<"$attempt"
  ! "${offline[@]}" true 2>/dev/null || break
  offline=()
done
[ ${#offline[@]} -gt 0 ] || echo "packages.sh: this machine does not let the build be cut off from the network"

mkdir -p build
log=$PWD/build/packages.log
: >"$log"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# build FOLDER: from what git knows or would add, or from all of a copy without git's folder.
build() {
  mkdir -p "$1/drix-fib6"
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard --deduplicate | while IFS= read -r -d '' file; do
      [ ! -e "$file" ] || printf '%s\0' "$file"
    done | tar -c --null -T - | tar -x -C "$1/drix-fib6"
  else
    tar -c --exclude='./build*' . | tar -x -C "$1/drix-fib6"
  fi
  (cd "$1/drix-fib6" && logged "$log" "${offline[@]}" dpkg-buildpackage --no-sign --build=binary)
}

build "$work/first"
mkdir -p "$output"
rm -f "$output"/*.deb "$output"/*.changes "$output"/*.buildinfo
cp "$work"/first/*.deb "$work"/first/*.changes "$work"/first/*.buildinfo "$output"/
logged "$log" lintian --allow-root --fail-on error,warning --info "$output"/*.changes
if [ -n "$twice" ]; then
  # Elsewhere, at another place of the world, with other rights.
  (umask 077 && export TZ=Asia/Kolkata LC_ALL=C && build "$work/second/elsewhere/deeper")
  for package in "$work"/first/*.deb; do
    cmp "$package" "$work/second/elsewhere/deeper/${package##*/}" || fail "not reproducible: ${package##*/}"
  done
  echo "the same bytes twice"
fi
for package in "$output"/*.deb; do
  echo "$(dpkg-deb -f "$package" Package Version Architecture | sed 's/.*: //' | paste -sd ' '), $(($(stat -c %s "$package") / 1024)) KiB"
done
echo "packages: in $output, in $SECONDS s"
