#!/usr/bin/env bash
# Sends routes from one process to another over the bus and prints what arrived: the kernel's IPv6 routes, or those of
# a sample when the kernel has none. Fails when a route is missing or differs. With --soak it sends one record of every
# message type with random content instead, again and again, and fails when any member of any record differs.
#
# Usage: scripts/demo.sh [--sample] [--quiet] [--binaries DIR] [OPTION OF route_sender]...
#        scripts/demo.sh --soak SECONDS [--binaries DIR] [OPTION OF soak_sender]...
#   --sample        send the sample's routes anyway
#   --quiet         print the summary only, as --soak always does
#   --soak SECONDS  send random records of all message types for so long
#   --binaries DIR  use the programs in DIR instead of installing packages and building
# For example: scripts/demo.sh --repeat 100000
set -euo pipefail

fail() {
  echo "demo: $*" >&2
  exit 1
}

project=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
sample=$project/examples/data/ipv6_route.sample
routes=/proc/net/ipv6_route
binaries=
soak=
receiver_options=()
sender_options=()
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help)
      sed -n '2,/^set/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
      exit
      ;;
    --sample) routes=$sample ;;
    --quiet) receiver_options+=(--quiet) ;;
    --soak)
      soak=${2:?--soak needs a number of seconds}
      shift
      ;;
    --binaries)
      binaries=$(realpath -e "${2:?--binaries needs a folder}")
      shift
      ;;
    *) sender_options+=("$1") ;;
  esac
  shift
done
if [ -n "$soak" ]; then
  programs=soak folder=tools/soak records=record
  receiver_options=()
  sender_options+=(--seconds "$soak")
else
  programs=route folder=examples records=route
  if ! grep -q . "$routes" 2>/dev/null; then
    echo "demo: the kernel has no IPv6 routes; these are the sample's"
    routes=$sample
  fi
  sender_options+=(--file "$routes")
fi

cd "$project"
if [ -z "$binaries" ]; then
  # shellcheck source=scripts/lib/packages.sh
  . scripts/lib/packages.sh
  require_packages "${BUILD_PACKAGES[@]}"
  # In a folder of its own: without the tests, and so without what only they need.
  cmake --preset release -B build/demo -DDRIX_BUILD_TESTS=OFF
  cmake --build build/demo
  binaries=$project/build/demo/$folder
fi

work=$(mktemp -d)
clean_up() {
  jobs -pr | xargs -r kill 2>/dev/null || true
  wait
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

endpoint=ipc://$work/demo.ipc
"$binaries/${programs}_receiver" --endpoint "$endpoint" "${receiver_options[@]}" &
receiver=$!
"$binaries/${programs}_sender" --endpoint "$endpoint" "${sender_options[@]}" &
sender=$!

wait "$sender" || fail "the sender failed"
# It succeeds once everything is acknowledged, so the receiver has seen the end of the stream by now.
timeout 5 tail --pid="$receiver" -f /dev/null || fail "the receiver did not see the end of the stream"
wait "$receiver" || fail "the receiver failed"
echo "demo: every $records arrived unchanged"
