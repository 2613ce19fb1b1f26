#!/usr/bin/env bash
# The live part of scripts/demo.sh, in a network namespace of its own, which goes with it: live.sh one BINARIES, or
# live.sh many BINARIES ROUTES ROUNDS [ip].
#
# one: a route is added and taken away again.
# many: a routing daemon learns ROUTES routes from a neighbour, a second one in a further namespace, and installs them.
# With a fifth argument, ip, there is no daemon, and the sender has little room for the kernel's events.
# Three receivers mirror them, of which one is killed and started again in the middle, one is paused; the sender is
# killed and started again, or paused, too. That many rounds, of which each ends with all tables compared with the
# kernel's.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
. scripts/lib/script.sh
script=demo.sh
export LC_ALL=C

mode=$1 binaries=$2
command -v ip >/dev/null || { echo "live: not shown, as there is no ip (Debian: iproute2)"; exit; }
buffer=65536
if [ -z "${DRIX_LIVE_INSIDE:-}" ]; then
  enter=(unshare -n)
  [ "$(id -u)" -eq 0 ] || enter=(unshare -rn)
  "${enter[@]}" true 2>/dev/null || { echo "live: not shown, as this user may make no network namespace"; exit 0; }
  DRIX_LIVE_INSIDE=yes exec "${enter[@]}" "$0" "$@"
fi

. scripts/lib/processes.sh
chmod 755 "$work"
mkdir "$work/bus"

# start NAME COMMAND...: in the background, with its output in a file of that name.
start() {
  echo started >>"$work/$1"
  "${@:2}" >>"$work/$1" 2>>"$work/errors" &
  process[$1]=$!
}
start_sender() {
  start sender "$binaries/route_sender" --follow --requests "ipc://$work/bus/requests" --status --buffer "$buffer"
}
# start_receiver NAME [OPTION]...
start_receiver() {
  start "$1" "$binaries/route_receiver" --keep --endpoint "ipc://$work/bus/$1" --requests "ipc://$work/bus/requests" \
    --status --quiet --check "${@:2}"
}

# seconds FROM [TO]: between two times of EPOCHREALTIME.
seconds() { awk -v from="$1" -v to="${2:-$EPOCHREALTIME}" 'BEGIN { printf "%.3f", to - from }'; }

# until_true SECONDS WHAT COMMAND...: waits for the command to succeed.
until_true() {
  local end=$((SECONDS + $1))
  until "${@:3}"; do
    [ $SECONDS -lt $end ] || {
      tail -n 3 "$work"/sender "$work"/receiver* "$work/errors" >&2 || true
      fail "no $2 after $1 s"
    }
    sleep 0.02
  done
}

# state NAME: the last one that a process printed, the same for all that agree.
state() { tail -n 1000 "$work/$1" 2>/dev/null | grep -o '^generation=[^ ]* count=[^ ]* checksum=[^ ]*' | tail -n 1; }
# counter NAME WORD: of all processes of that name.
counter() {
  awk -v word="$2=" '/^started$/ { total += last; last = 0 }
    /^generation=/ { for (i = 1; i <= NF; ++i) if (index($i, word) == 1) last = substr($i, length(word) + 1) }
    END { print total + last }' "$work/$1"
}
count() { state sender | grep -oP 'count=\K[0-9]+'; }

# agree COUNT RECEIVER...: whether the receivers and the sender say the same, with that many routes.
agree() {
  local expected each
  expected=$(state sender)
  [[ $expected = *" count=$1 "* ]] || return 1
  for each in "${@:2}"; do [ "$(state "$each")" = "$expected" ] || return 1; done
}
says_or_ended() { says "$@" || ! kill -0 "${process[sender]}" 2>/dev/null; }
says() { grep -qe "$2" "$work/$1" 2>/dev/null; }

ip link set lo up

if [ "$mode" = one ]; then
  start_sender
  start_receiver receiver --changes
  until_true 30 table says_or_ended receiver '^generation'
  if says errors 'no libmnl'; then echo "live: not shown, as this build has no libmnl (Debian: libmnl-dev)"; exit; fi
  routes=$(count)
  for change in add:+ del:-; do
    begin=$EPOCHREALTIME
    ip -6 route "${change%:*}" 2001:db8:cafe::/48 dev lo
    until_true 30 change says receiver "^[0-9.]* ${change#*:} 2001:db8:cafe::/48"
    line=$(grep -e "${change#*:} 2001:db8:cafe::/48" "$work/receiver")
    echo "live: ip -6 route ${change%:*} 2001:db8:cafe::/48: with the receiver after $(seconds "$begin" "${line%% *}") s"
  done
  until_true 30 agreement agree "$routes" receiver
  echo "live: sender and receiver agree: $(state receiver)"
  exit
fi

routes=$3 rounds=$4
receivers=(receiver1 receiver2 receiver3)

unshare -n sleep infinity &
process[neighbour]=$!
there=(nsenter -t "${process[neighbour]}" -n) # no function: what is started there in the background is to be killed
apart() { [ "$(readlink "/proc/$$/ns/net")" != "$(readlink "/proc/${process[neighbour]}/ns/net")" ]; }
until_true 5 namespace apart
ip link add name uplink type veth peer name downlink netns "${process[neighbour]}"
ip link set uplink up && ip -6 addr add 2001:db8::1/64 dev uplink nodad
"${there[@]}" ip link set lo up
"${there[@]}" ip link set downlink up && "${there[@]}" ip -6 addr add 2001:db8::2/64 dev downlink nodad

# configure SIDE AS ADDRESS NEIGHBOUR_AS NEIGHBOUR EXTRA
configure() {
  mkdir "$work/$1"
  : >"$work/$1/zebra.conf"
  cat >"$work/$1/bgpd.conf" <<-CONFIGURATION
	router bgp $2
	 bgp router-id 192.0.2.${3##*:}
	 no bgp ebgp-requires-policy
	 neighbor $5 remote-as $4
	 neighbor $5 timers connect 1
	 neighbor $5 advertisement-interval 0
	 address-family ipv6 unicast
	  neighbor $5 activate
	  $6
	 exit-address-family
	CONFIGURATION
  chown -R frr:frr "$work/$1"
}
# daemon SIDE NAME [COMMAND]...: with all its files and sockets in the side's folder, started by the command.
daemon() {
  local room=()
  [ "$2" != zebra ] || room=(-s 90000000) # bytes for the kernel's events, which it does not miss when they are lost
  start "$1-$2" "${@:3}" "/usr/lib/frr/$2" -f "$work/$1/$2.conf" -A ::1 -P 0 -z "$work/$1/zserv.api" \
    --vty_socket "$work/$1" -i "$work/$1/$2.pid" "${room[@]}"
}

# route_list INTERFACE: 2001:1::/48, 2001:1:1::/48 and so on; every fifth has two of the sixteen next hops.
route_list() {
  awk -v routes="$routes" -v interface="$1" 'BEGIN {
    for (i = 0; i < routes; ++i) {
      hop = sprintf("via 2001:db8::%x dev %s", 16 + i % 16, interface)
      if (i % 5 == 0) hop = sprintf("nexthop %s nexthop via 2001:db8::f dev %s weight 2", hop, interface)
      printf "2001:%x:%x::/48 proto static %s\n", 1 + i / 65536, i % 65536, hop
    }
  }'
}

if [ "${5:-}" = ip ]; then
  buffer=64 all_entries=$((routes + (routes + 4) / 5))
  route_list uplink >"$work/routes"
  change_routes() { ip -6 -batch "$1"; }
else
  all_entries=$routes
  route_list downlink >"$work/routes"
  change_routes() { "${there[@]}" ip -6 -batch "$1"; }
  configure here 64512 2001:db8::1 64513 2001:db8::2 ''
  configure there 64513 2001:db8::2 64512 2001:db8::1 'redistribute kernel'
  daemon here zebra && daemon there zebra "${there[@]}"
  until_true 10 zebra test -S "$work/here/zserv.api"
  until_true 10 zebra test -S "$work/there/zserv.api"
  daemon here bgpd && daemon there bgpd "${there[@]}"
fi
sed 's/^/route add /' "$work/routes" >"$work/announce"
sed 's/^/route del /' "$work/routes" >"$work/withdraw"
# What the kernel counts: listing its routes again and again would be most of the work.
entries() { local all; read -ra all </proc/net/rt6_stats; echo $((16#${all[3]})); }
is_link_ready() { ip -6 addr show dev uplink scope link -tentative | grep -q inet6; }
has_routes() { ip -6 route show "$1" | grep -q .; }
has_no_routes() { ! has_routes "$1"; }
has_entries() { [ "$(entries)" -eq "$1" ]; }
some_installed() { [ "$(entries)" -gt $((own_entries + routes / 3)) ]; }

# changed WHAT ROUTES BEGIN: waits until the kernel has so many routes besides its own, and then the receivers.
changed() {
  until_true 120 "$2 routes in the kernel" has_entries $((own_entries + ($2 > 0 ? all_entries : 0)))
  local kernel=$EPOCHREALTIME
  until_true 60 agreement agree $((others + $2)) "${receivers[@]}"
  echo "live: $1: $2 routes in the kernel after $(seconds "$3" "$kernel") s, all receivers agree $(seconds "$kernel") s later"
}

# compared: has each receiver compare its table with the kernel's.
compared() {
  local each
  for each in "${receivers[@]}"; do
    local before
    before=$(grep -c '^compared' "$work/$each" || true)
    kill -USR1 "${process[$each]}"
    until_true 30 comparison more_comparisons "$each" "$before"
    grep '^compared' "$work/$each" | tail -n 1 | grep -q ' 0 missing, 0 different, 0 surplus' || {
      grep -E '^(missing|different|surplus|compared)' "$work/$each" | tail -n 10 >&2
      fail "the table of $each is not the kernel's"
    }
  done
}
more_comparisons() { [ "$(grep -c '^compared' "$work/$1")" -gt "$2" ]; }

# disturb ROUND: while routes come or go. The sender is killed in every other round, and paused in the others.
disturb() {
  killed receiver2
  kill -STOP "${process[receiver3]}"
  sleep 0.2
  start_receiver receiver2
  if [ $(($1 % 2)) -eq 1 ]; then
    killed sender
    start_sender
  else
    kill -STOP "${process[sender]}"
  fi
  sleep 1.3
  kill -CONT "${process[receiver3]}" "${process[sender]}"
}

# delays COUNT: how long changes of the kernel's take to the first receiver.
delays() {
  local i sign prefix
  mkfifo "$work/probe"
  start ip ip -6 -batch "$work/probe"
  exec 4>"$work/probe"
  for sign in + -; do
    for ((i = 1; i <= $1 / 2; ++i)); do
      prefix=$(printf '2001:db8:ffff:%x::/64' "$i")
      echo "$EPOCHREALTIME $sign $prefix" >>"$work/probes"
      echo "route $([ $sign = + ] && echo add || echo del) $prefix dev lo" >&4
      sleep 0.003
    done
  done
  exec 4>&-
  until_true 10 "last change" says receiver1 "- $prefix"
  awk 'NR == FNR { begin[$2 $3] = $1; next } ($2 $3) in begin { printf "%.3f\n", 1000 * ($1 - begin[$2 $3]) }' \
    "$work/probes" "$work/receiver1" | sort -n >"$work/delays"
  echo "live: $(wc -l <"$work/delays") single changes with the receiver after $(sed -n "$(($1 / 2))p" "$work/delays") ms" \
    "(p50), $(sed -n "$(($1 * 99 / 100))p" "$work/delays") ms (p99)"
}

start_sender
start_receiver receiver1 --changes
start_receiver receiver2
start_receiver receiver3
# The first route shows that the neighbours have met.
head -n 1 "$work/announce" >"$work/first"
change_routes "$work/first"
until_true 60 "session of the routing daemons" has_routes 2001:1::/48
sed 's/add/del/' "$work/first" >"$work/last"
change_routes "$work/last"
until_true 60 withdrawal has_no_routes 2001:1::/48
until_true 10 "address of the link's own" is_link_ready
sleep 0.5 # for the sender to say what there is now
others=$(count) own_entries=$(entries)

begin=$EPOCHREALTIME
change_routes "$work/announce"
changed announced "$routes" "$begin"
compared
delays $((routes < 5000 ? 200 : 1000))
begin=$EPOCHREALTIME
change_routes "$work/withdraw"
changed withdrawn 0 "$begin"

for ((round = 1; round <= rounds; ++round)); do
  begin=$EPOCHREALTIME
  start announcer change_routes "$work/announce"
  until_true 60 "first third" some_installed
  disturb "$round"
  changed "round $round, disturbed" "$routes" "$begin"
  compared
  begin=$EPOCHREALTIME
  change_routes "$work/withdraw"
  disturb $((round + 1))
  changed "round $round, withdrawn" 0 "$begin"
  compared
done

for each in "${receivers[@]}"; do
  kill "${process[$each]}"
  wait "${process[$each]}" || fail "$each: $(tail -n 1 "$work/errors")"
  echo "live: $each: $(counter "$each" messages) messages, $(counter "$each" tables) whole tables," \
    "$(counter "$each" gaps) gaps, $(counter "$each" differences) differences, $(counter "$each" silences) silences"
done
echo "live: the sender: $(counter sender events) events from the kernel, $(counter sender losses) losses of events," \
  "$(counter sender dumps) readings of the whole table, $(counter sender tables) whole tables sent"
echo "live: all tables equal to the kernel's, by checksum and route by route, after $rounds rounds"
