#!/usr/bin/env bash
# Installs what is missing, builds, and measures the bus between hosts on this one: records a second beside the local bus
# and beside as much traffic by the client library alone, with one receiver and with several, how long a single message
# takes, and how long sends stand still when the server dies that leads a stream. Prints Markdown tables. Wants a quiet
# machine with two cores, for about ten minutes.
#
# Usage: bench/cluster.sh [--smoke] [--binaries DIR]
#   --smoke         a few records of each only, to see that it works
#   --binaries DIR  use the program in DIR instead of installing packages and building
set -euo pipefail
start=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh
. scripts/lib/servers.sh

smoke=
binaries=
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help)
      show_help
      exit
      ;;
    --smoke) smoke=yes ;;
    --binaries)
      [ $# -gt 1 ] || wrong_usage "--binaries needs a value"
      binaries=$(cd "$start" && realpath -- "$2") && shift
      ;;
    *) wrong_usage "unknown argument $1" ;;
  esac
  shift
done
if [ -z "$binaries" ]; then
  require_packages "${BUILD_PACKAGES[@]}" nats-server libnats-dev
  log=build/bench-cluster.log
  mkdir -p build
  : >"$log"
  logged "$log" cmake --preset release -B build/bench-cluster -DDRIX_BUILD_TESTS=OFF -DDRIX_BUILD_TOOLS=OFF
  logged "$log" cmake --build build/bench-cluster --target drix_bench_cluster
  binaries=build/bench-cluster/bench/cluster
fi
command -v nats-server >/dev/null || { echo "left out: there is no nats-server (Debian: nats-server)"; exit 0; }

. scripts/lib/processes.sh
echo "max_bytes=8000000000" >"$work/settings"
export KELVODRIX_NATS=$work/settings

# fresh_servers COUNT: in place of those before, with nothing stored.
fresh_servers() {
  local i all='' name
  for name in "${!process[@]}"; do killed "$name"; done
  process=()
  rm -rf "$work"/store* "$work"/server*
  choose_ports "$1"
  for ((i = 1; i <= $1; ++i)); do all+="\"nats-route://127.0.0.1:${cluster_port[$i]}\", "; done
  for ((i = 1; i <= $1; ++i)); do
    {
      printf '%s\n' "server_name: server$i" "listen: \"127.0.0.1:${port[$i]}\"" "max_payload: 17MB" \
        "jetstream { store_dir: \"$work/store$i\", max_file_store: 20GB }"
      [ "$1" -eq 1 ] || printf '%s\n' \
        "cluster { name: bench, listen: \"127.0.0.1:${cluster_port[$i]}\", routes: [ $all ] }"
    } >"$work/server$i.conf"
  done
  for ((i = 1; i <= $1; ++i)); do start_server "$i"; done
  [ "$1" -eq 1 ] || until_true 30 "cluster" server1 is_led
}

# endpoint KIND: of the running server, or on this host.
endpoint() {
  if [ "$1" = ipc ]; then echo "ipc://$work/bus"; else echo "$1://127.0.0.1:${port[1]}"; fi
}
measure() { timeout 300 "$binaries/drix_bench_cluster" "$@"; }
middle() { sort -n | sed -n "$(((rounds + 1) / 2))p"; }

kinds=(ipc nats plain nats-stream plain-stream)
rounds=3 batches=(1 16 256 4096) several=256 messages=3000
# Records of a measurement, for about two seconds.
declare -A times=([ipc]=8 [nats]=4 [plain]=4 [nats-stream]=2 [plain-stream]=2)
declare -A thousands=([1]=100 [16]=500 [256]=1000 [4096]=1000)
if [ -n "$smoke" ]; then rounds=1 batches=(16) several=16 messages=10; fi

# rates BATCH RECEIVERS: measures all kinds in turn, and leaves the medians in rate[KIND].
declare -A rate
rates() {
  local round kind records
  for kind in "${kinds[@]}"; do : >"$work/$kind"; done
  for ((round = 1; round <= rounds; ++round)); do
    for kind in "${kinds[@]}"; do
      records=$((thousands[$1] * times[$kind] * 1000 / $2))
      [ -z "$smoke" ] || records=1000
      fresh_servers 1
      measure rate "$(endpoint "$kind")" "$1" "$records" "$2" >>"$work/$kind"
    done
  done
  for kind in "${kinds[@]}"; do rate[$kind]=$(middle <"$work/$kind"); done
}
share() { awk "BEGIN { printf \"%.2f\", $1 / $2 }"; }
# row FIRST_CELL
row() {
  printf '| %s | %d | %d | %d | %.2f | %d | %d | %.2f |\n' "$1" "${rate[ipc]}" "${rate[nats]}" "${rate[plain]}" \
    "$(share "${rate[nats]}" "${rate[plain]}")" "${rate[nats-stream]}" "${rate[plain-stream]}" \
    "$(share "${rate[nats-stream]}" "${rate[plain-stream]}")"
}

printf '%s, %s, nats-server %s, load %s\n\n' "$(date -I)" "$(lscpu | sed -n 's/^Model name: *//p')" \
  "$(nats-server --version | sed 's/.*v//')" "$(cut -d ' ' -f 1 /proc/loadavg)"
header="\`ipc://\` | \`nats://\` | plain libnats | ratio | \`nats-stream://\` | plain libnats, stream | ratio |"
printf '| batch | %s\n|--:|--:|--:|--:|--:|--:|--:|--:|\n' "$header"
for batch in "${batches[@]}"; do
  rates "$batch" 1
  row "$batch"
done
printf '\n| receivers, batch of %d | %s\n|--:|--:|--:|--:|--:|--:|--:|--:|\n' "$several" "$header"
for receivers in 1 4 8; do
  [ -z "$smoke" ] || [ $receivers -eq 4 ] || continue
  rates "$several" $receivers
  row $receivers
done
printf '\n| a single message, ms | p50 | p99 | longest |\n|---|--:|--:|--:|\n'
for kind in ipc nats nats-stream; do
  fresh_servers 1
  measure single "$(endpoint "$kind")" "$messages" >"$work/single"
  read -r half most longest <"$work/single"
  printf '| %s | %s | %s | %s |\n' "\`$kind://\`" "$half" "$most" "$longest"
done
[ -z "$smoke" ] || exit 0

# The parts of a plan for more receivers than one machine has room for.
printf '\n| receivers of a table of 230,000 routes | seconds | records/s in all | memory of the server, MiB |\n'
printf '|--:|--:|--:|--:|\n'
for receivers in 1 10 50; do
  fresh_servers 1
  each=$(measure rate "$(endpoint nats-stream)" 256 230000 $receivers)
  memory=$(awk '/^VmHWM:/ { print $2 }' "/proc/${process[server1]}/status")
  printf '| %d | %.1f | %d | %d |\n' $receivers "$(share 230000 "$each")" $((each * receivers)) $((memory / 1024))
done

printf '\n| the death of a leader, of three servers | a new leader after, s | longest send, s |\n|---|--:|--:|\n'
for ((kill = 1; kill <= 3; ++kill)); do
  fresh_servers 3
  all=127.0.0.1:${port[1]},127.0.0.1:${port[2]},127.0.0.1:${port[3]}
  measure stall "nats-stream://$all" 20 >"$work/stall" &
  sender=$!
  until_true 30 "sending" stall grep -q sending "$work/stall"
  sleep 1
  first=$(leader drix-bench)
  begin=$EPOCHREALTIME
  killed "server$first"
  until_true 60 "new leader" errors another_leads drix-bench "$first"
  elected=$(seconds "$begin")
  start_server "$first"
  wait "$sender"
  printf '| %d | %.1f | %.1f |\n' "$kill" "$elected" "$(tail -n 1 "$work/stall")"
done
