#!/usr/bin/env bash
# Installs the Debian packages in a bare Debian root, uses them as a new user does, upgrades them from an older version,
# puts a platform's bus in the place of the stand-in, and removes everything: nothing may be left. Needs root; the Debian
# root comes from the network once and is kept in build/.
#
# Usage: scripts/test-packages.sh [--packages DIR] [--mirror URL]
#   --packages DIR  test these (default: what scripts/packages.sh makes)
#   --mirror URL    where Debian comes from (default: where this machine's apt has it from)
set -euo pipefail
start=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

packages=
mirror=
while [ $# -gt 0 ]; do
  case $1 in
    --packages | --mirror) [ $# -gt 1 ] || wrong_usage "$1 needs a value" ;;&
    -h | --help)
      show_help
      exit
      ;;
    --packages) packages=$(cd "$start" && realpath -- "$2") && shift ;;
    --mirror) mirror=$2 && shift ;;
    *) wrong_usage "unknown option $1" ;;
  esac
  shift
done
[ "$(id -u)" -eq 0 ] || fail "needs root, for a root of its own"
if [ -z "$packages" ]; then
  scripts/packages.sh
  packages=build/packages
fi
require_packages debootstrap dpkg-dev
[ -n "$mirror" ] || mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' \
  'Codename: bookworm' 'Component: main' | sed -n 1p)
[ -n "$mirror" ] || fail "apt knows no Debian bookworm; --mirror names where it comes from, or apt-get update helps"
log=$PWD/build/test-packages.log
: >"$log"

# debootstrap takes no path with a blank, which a checkout's may have.
work=$(mktemp -d "${TMPDIR:-/var/tmp}/debian-root.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
base=build/debian-root.tar
if [ ! -e $base ]; then
  echo "making a Debian root, some minutes the first time"
  logged "$log" debootstrap --variant=minbase bookworm "$root" "$mirror"
  logged "$log" chroot "$root" apt-get install -y --no-install-recommends gcc libc6-dev cmake make pkg-config
  logged "$log" chroot "$root" apt-get clean
  tar -c -f $base.new -C "$root" .
  mv $base.new $base
else
  mkdir "$root"
  tar -x -f $base -C "$root"
fi

# inside COMMAND...: in that root, with nothing of this machine's environment.
inside() {
  logged "$log" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    chroot "$root" "$@"
}
# offer FOLDER_OF_PACKAGES: makes them all that apt can get besides Debian's.
offer() {
  rm -rf "$root/packages"
  mkdir "$root/packages"
  cp "$1"/*.deb "$root/packages"
  (cd "$root/packages" && dpkg-scanpackages --multiversion . >Packages 2>>"$log")
  echo 'deb [trusted=yes] file:/packages ./' >"$root/etc/apt/sources.list.d/packages.list"
  inside apt-get update
}
apt=(apt-get -y --no-install-recommends)
files() { (cd "$root" && find . -path ./var -prune -o -path ./tmp -prune -o -path ./packages -prune -o -print | LC_ALL=C sort); }
version_of() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$root" dpkg-query -W -f='${Version}' "$1"; }

# The packages of an older version: these, with another number.
now=$(dpkg-deb -f "$(ls "$packages"/quopa_*.deb)" Version)
mkdir "$work/old"
names=()
for package in "$packages"/*.deb; do
  case $package in *-dbgsym_*) continue ;; esac
  names+=("$(dpkg-deb -f "$package" Package)")
  dpkg-deb -R "$package" "$work/unpacked"
  sed -i "s/^Version: .*/Version: 0.9.0/; s/(= $now)/(= 0.9.0)/g" "$work/unpacked/DEBIAN/control"
  dpkg-deb --root-owner-group -b "$work/unpacked" "$work/old" >>"$log"
  rm -rf "$work/unpacked"
done

cp debian/tests/installed "$root/root/"
files >"$work/before"
offer "$packages"
inside "${apt[@]}" install quopa
inside sh -c 'quopa types >/dev/null && ! dpkg -s libdrix-fib6-1'
inside "${apt[@]}" autoremove --purge quopa
echo "quopa alone: works without the library"

offer "$work/old"
inside "${apt[@]}" install "${names[@]}"
inside env AUTOPKGTEST_TMP=/tmp sh /root/installed
[ "$(version_of libdrix-fib6-1)" = 0.9.0 ] || fail "the older version was not installed"
offer "$packages"
inside "${apt[@]}" upgrade
for name in "${names[@]}"; do
  [ "$(version_of "$name")" = "$now" ] || fail "$name was not upgraded"
done
inside sh -c '/tmp/my_process | grep received'
inside env AUTOPKGTEST_TMP=/tmp sh /root/installed
echo "installed, used, upgraded to $now, used: ${names[*]}"

# The platform's own bus, which is this one under another name.
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
mkdir -p "$work/platform/DEBIAN" "$work/platform/usr/lib/$multiarch"
cp "$root/usr/lib/$multiarch/libkelvodrix.so" "$work/platform/usr/lib/$multiarch/"
printf '%s\n' 'Package: platform-bus' 'Version: 1' "Architecture: $(dpkg --print-architecture)" 'Multi-Arch: same' \
  'Provides: libkelvodrix' 'Conflicts: libkelvodrix' 'Maintainer: nobody <nobody@example.org>' \
  'Depends: libstdc++6' 'Description: the bus of a platform' >"$work/platform/DEBIAN/control"
dpkg-deb --root-owner-group -b "$work/platform" "$root/packages/platform-bus.deb" >>"$log"
inside "${apt[@]}" install /packages/platform-bus.deb
inside sh -c '! dpkg -s libkelvodrix-standin && dpkg -s libdrix-fib6-1 && /tmp/my_process'
echo "the platform's bus takes the stand-in's place"

inside "${apt[@]}" purge "${names[@]}" platform-bus
inside "${apt[@]}" autoremove --purge
rm -f "$root/etc/apt/sources.list.d/packages.list"
files >"$work/after"
diff "$work/before" "$work/after" || fail "purging leaves traces"
! grep -rl drix "$root/var/lib/dpkg/info" || fail "dpkg still knows of it"
echo "purged: nothing is left"
