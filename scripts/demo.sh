#!/usr/bin/env bash
# Sends routes from one process to another over the bus and prints what arrived: the kernel's IPv6 routes, or those of
# a sample when the kernel has none. Fails when a route is missing or differs. With --soak it sends one record of every
# message type with random content instead, again and again, and fails when any member of any record differs.
# Without options it also mirrors a table that changes, in a network namespace of its own; with --live one that a routing
# daemon fills there and empties, to three receivers, while processes are killed and paused (docs/live-table.md).
# Installs what is missing and builds in build/demo.
#
# Usage: scripts/demo.sh [--sample | --file FILE] [--quiet] [--binaries DIR] [OPTION OF route_sender]...
#        scripts/demo.sh --soak SECONDS [--binaries DIR] [OPTION OF soak_sender]...
#        scripts/demo.sh --live N [--rounds N] [--binaries DIR]
#        scripts/demo.sh --cluster [N] [--loss PERCENT] [--sample | --file FILE] [--binaries DIR]
#                        [OPTION OF route_sender]...
#   --sample        send the sample's routes anyway
#   --file FILE     send the routes of a file in the format of /proc/net/ipv6_route
#   --quiet         print the summary only, as --soak always does
#   --soak SECONDS  send random records of all message types for so long
#   --live N        mirror so many routes of a routing daemon; for root, with Debian's frr
#   --rounds N      so often, with everybody killed or paused meanwhile (default: 1)
#   --cluster [N]   send the routes to N receivers (default: 3) through a stream of three NATS servers, with TLS and
#                   passwords, and kill and start again one receiver and the server that leads the stream meanwhile
#   --loss PERCENT  have packets lost between the servers, which stand in network namespaces then; as root
#   --binaries DIR  use the programs in DIR instead of installing packages and building
# Options of both senders: --batch N (routes only), --repeat N (routes only), --seed N (soak only), --timeout SECONDS
# For example: scripts/demo.sh --repeat 100000
set -euo pipefail
start=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

routes=/proc/net/ipv6_route
chosen=
binaries=
soak=
live=
rounds=1
receiver_options=()
sender_options=()
needs_soak=
needs_routes=
needs_live=
quiet=
cluster=
loss=

# in_start PATH: the path as meant in the folder where the script was started.
in_start() { case $1 in /*) echo "$1" ;; *) echo "$start/$1" ;; esac; }

while [ $# -gt 0 ]; do
  case $1 in
    --file | --soak | --live | --rounds | --loss | --binaries | --batch | --repeat | --seed | --timeout)
      [ $# -gt 1 ] || wrong_usage "$1 needs a value"
      ;;&
    --soak | --live | --rounds | --loss | --batch | --repeat | --seed | --timeout)
      [[ $2 =~ ^[0-9]+$ ]] || wrong_usage "$1 needs a number, not $2"
      ;;&
    --sample | --file | --quiet | --batch | --repeat) needs_routes=$1 ;;&
    --rounds) needs_live=$1 ;;&
    --seed) needs_soak=$1 ;;&
    -h | --help)
      show_help
      exit
      ;;
    --sample) chosen=examples/data/ipv6_route.sample ;;
    --file) chosen=$(in_start "$2") && shift ;;
    --quiet) quiet=--quiet receiver_options+=(--quiet) ;;
    --soak) soak=$2 && shift ;;
    --live) live=$2 && shift ;;
    --rounds) rounds=$2 && shift ;;
    --cluster)
      cluster=3
      if [[ ${2:-} =~ ^[0-9]+$ ]]; then cluster=$2 && shift; fi
      [ "$cluster" -gt 0 ] || wrong_usage "--cluster needs a receiver"
      ;;
    --loss) loss=$2 && shift ;;
    --binaries) binaries=$(in_start "$2") && shift ;;
    --batch | --repeat | --seed | --timeout) sender_options+=("$1" "$2") && shift ;;
    *) wrong_usage "unknown option $1" ;;
  esac
  shift
done
[ -z "$loss" ] || [ -n "$cluster" ] || wrong_usage "--loss is for --cluster"
[ -z "$cluster" ] || [ -z "$soak$quiet" ] || wrong_usage "${quiet:---soak} is not for --cluster"
[ -n "$live" ] || [ -z "$needs_live" ] || wrong_usage "$needs_live is for --live"
if [ -n "$live" ]; then
  [ -z "$needs_routes$soak$needs_soak$cluster" ] || wrong_usage "--live goes with --rounds and --binaries only"
  [ ${#sender_options[@]} -eq 0 ] || wrong_usage "${sender_options[0]} is not for --live"
  [ "$(id -u)" -eq 0 ] || fail "--live is for root: the routing daemon has to be told apart from the host's"
  programs=route folder=examples
elif [ -n "$soak" ]; then
  [ -z "$needs_routes" ] || wrong_usage "$needs_routes is for routes, --soak sends random records"
  programs=soak folder=tools/soak records=record
  sender_options+=(--seconds "$soak")
else
  [ -z "$needs_soak" ] || wrong_usage "$needs_soak is for --soak"
  programs=route folder=examples records=route
  if [ -n "$chosen" ]; then
    routes=$chosen
  elif ! grep -q . "$routes" 2>/dev/null; then
    echo "demo: the kernel has no IPv6 routes; these are the sample's"
    routes=examples/data/ipv6_route.sample
  fi
  sender_options+=(--file "$routes")
fi

if [ -z "$binaries" ]; then
  require_packages "${BUILD_PACKAGES[@]}" ${cluster:+nats-server libnats-dev openssl} ${loss:+iproute2 nftables}
  log=build/demo.log
  mkdir -p build
  : >"$log"
  [ -e build/demo/build.ninja ] || echo "building in build/demo, a minute or two the first time"
  # Without the tests, and so without what only they need.
  logged "$log" cmake --preset release -B build/demo -DDRIX_BUILD_TESTS=OFF -DDRIX_BUILD_TOOLS=OFF
  logged "$log" cmake --build build/demo --target "${programs}_sender" "${programs}_receiver"
  binaries=build/demo/$folder
fi
for program in "${programs}_receiver" "${programs}_sender"; do
  [ -x "$binaries/$program" ] || fail "$binaries has no $program"
done
if [ -n "$cluster" ]; then exec scripts/lib/cluster.sh "$binaries" "$cluster" "$loss" "${sender_options[@]}"; fi

if [ -n "$live" ]; then
  require_packages frr iproute2
  exec scripts/lib/live.sh many "$binaries" "$live" "$rounds"
fi

. scripts/lib/processes.sh

endpoint=ipc://$work/demo.ipc
"$binaries/${programs}_receiver" --endpoint "$endpoint" "${receiver_options[@]}" &
receiver=$!
# What it sums up comes after the table; the soak's first line has to be there even if a record brings the sender down.
if [ -n "$soak" ]; then exec 3>&1; else exec 3>"$work/sent"; fi
"$binaries/${programs}_sender" --endpoint "$endpoint" "${sender_options[@]}" >&3 2>"$work/errors" &
sender=$!

# ended PROCESS STATUS: goes on when the process did what it should.
ended() {
  [ "$2" -ne 0 ] || return 0
  [ "$2" -ne 141 ] || exit 141 # nobody reads the output any more
  if [ "$1" = sender ]; then
    # When a receiver is about to end, that is why the sender failed.
    ! grep -q undelivered "$work/errors" || timeout 5 tail --pid="$receiver" -s 0.1 -f /dev/null || true
    if ! kill -0 "$receiver" 2>/dev/null; then
      local status=0
      wait "$receiver" || status=$?
      ended receiver $status
    fi
    cat "$work/errors" >&2
  fi
  [ "$2" -lt 128 ] || fail "the $1 was ended by signal $(($2 - 128))"
  exit 1 # it has said why
}
status=0
wait -n -p first "$receiver" "$sender" || status=$?
if [ "$first" = "$receiver" ]; then
  ended receiver $status
  other=sender
else
  ended sender $status
  # It succeeds once everything is acknowledged, so the receiver has seen the end of the stream by now.
  timeout 5 tail --pid="$receiver" -s 0.02 -f /dev/null >/dev/null || {
    kill "$receiver" 2>/dev/null && wait "$receiver" || true # it sums up what it saw
    fail "the receiver did not see the end of the stream"
  }
  other=receiver
fi
status=0
wait "${!other}" || status=$?
ended $other $status
[ -n "$soak" ] || cat "$work/sent"
echo "demo: every $records arrived unchanged"
[ -n "$soak$needs_routes" ] || scripts/lib/live.sh one "$binaries"
