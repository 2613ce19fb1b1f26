#!/usr/bin/env bash
# The part of scripts/demo.sh beyond one machine: cluster.sh BINARIES RECEIVERS LOSS OPTION_OF_route_sender...
#
# Three servers with TLS and a user for each process keep the stream of a table, each on a host of its own when packets
# are to be lost between them (LOSS in percent, else empty). While the routes of the file are on their way to so many
# receivers, the first of these is killed and started again, the last one comes late, and the server that leads the
# stream is killed and started again.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
. scripts/lib/script.sh
. scripts/lib/processes.sh
. scripts/lib/servers.sh
script=demo.sh

binaries=$1 receivers=$2 loss=$3
sender_options=("${@:4}")
about=200000 # routes in all, for there to be a middle
command -v nats-server >/dev/null || fail "--cluster needs nats-server (Debian: nats-server)"
command -v openssl >/dev/null || fail "--cluster needs openssl"

# on HOST COMMAND...: in place of this shell, so that the process that the shell has started is the command's own.
on() {
  [ -z "$loss" ] || exec nsenter --net="/proc/${process[host$1]}/ns/net" "${@:2}"
  exec "${@:2}"
}
random_word() { openssl rand -hex 16; }

# in_namespaces: three hosts, each a network namespace, with a switch between them, a further one, which loses packets.
in_namespaces() {
  local i name
  [ "$(id -u)" -eq 0 ] || fail "--loss is for root, who may make hosts of network namespaces"
  for name in switch host1 host2 host3; do
    unshare -n sleep infinity &
    process[$name]=$!
  done
  for name in switch host1 host2 host3; do until_true 5 "network namespace" errors apart "$name"; done
  inside() { nsenter --net="/proc/${process[$1]}/ns/net" "${@:2}" 2>>"$work/errors"; }
  inside switch ip link add bridge type bridge || fail "--loss: this kernel has no bridge: $(tail -n 1 "$work/errors")"
  inside switch ip link set bridge up
  for i in 1 2 3; do
    inside switch ip link add name "port$i" type veth peer name uplink netns "${process[host$i]}"
    # Else the kernel makes one packet of many.
    inside switch ip link set "port$i" master bridge gso_max_segs 1 up
    inside "host$i" ip link set uplink gso_max_segs 1 up
    inside "host$i" ip link set lo up
    inside "host$i" ip addr add "10.77.0.$i/24" dev uplink
    if inside switch tc qdisc add dev "port$i" root netem loss "$loss%"; then
      means="the kernel's netem"
    else
      inside "host$i" nft -f - <<-RULES || fail "--loss: the kernel has neither netem nor nftables: $(tail -n 1 "$work/errors")"
	table inet loss {
	  chain input {
	    type filter hook input priority 0;
	    iifname uplink numgen random mod 100 < $loss drop
	  }
	}
	RULES
      means="the packet filter, as the kernel has no netem"
    fi
  done
  echo "cluster: three hosts in network namespaces; $loss of 100 packets to each are lost, by $means"
}
apart() { [ "$(readlink "/proc/${process[$1]}/ns/net")" != "$(readlink /proc/self/ns/net)" ]; }

certificates() {
  local made=(openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1)
  "${made[@]}" -subj "/CN=demo" -keyout "$work/ca.key" -out "$work/ca.pem"
  "${made[@]}" -subj "/CN=server" -keyout "$work/server.key" -out "$work/server.pem" -CA "$work/ca.pem" \
    -CAkey "$work/ca.key" -addext "subjectAltName=$(printf 'IP:%s,' 127.0.0.1 10.77.0.{1,2,3} | sed 's/,$//')"
}

# user NAME RIGHTS_TO_PUBLISH [SUBJECT]: a user of the servers, who may subscribe to the subject and to an inbox, and the
# file that its process takes the password from.
user() {
  local password
  password=$(random_word)
  printf '%s\n' "user=$1" "password=$password" "inbox=_INBOX.$1" "ca=$work/ca.pem" >"$work/$1.settings"
  echo "  {user: $1, password: \"$password\", permissions: {publish: [$2]," \
    "subscribe: [\"_INBOX.$1.>\"${3:+, \"$3\"}]}}" >>"$work/users"
}
# For each process the rights of docs/cluster.md.
users() {
  local api=\$JS.API i name streams=
  for name in drix-routes KV_drix-routes; do
    streams+="\"$api.STREAM.INFO.$name\", \"$api.STREAM.CREATE.$name\", \"$api.STREAM.MSG.GET.$name\",
    \"$api.STREAM.LEADER.STEPDOWN.$name\", "
  done
  user sender "$streams \"$api.STREAM.PURGE.drix-routes\", \"drix-stream.routes.>\", \"\$KV.drix-routes.writer.current\""
  for ((i = 1; i <= receivers; ++i)); do
    name=drix-receiver.routes.card$i
    user "card$i" "$streams \"$api.CONSUMER.CREATE.drix-routes\", \"\$JS.FC.drix-routes.>\", \"$name\",
    \"\$KV.drix-routes.card$i\"" "$name"
  done
}

servers() {
  local i routes_password all='' address=(- 127.0.0.1 127.0.0.1 127.0.0.1)
  routes_password=$(random_word)
  choose_ports 3
  [ -z "$loss" ] || address=(- 10.77.0.{1,2,3})
  for i in 1 2 3; do
    all+="\"nats-route://routes:$routes_password@${address[$i]}:${cluster_port[$i]}\", "
    endpoint+=${endpoint:+,}${address[$i]}:${port[$i]}
  done
  endpoint=tls-stream://$endpoint/routes
  local tls="cert_file: \"$work/server.pem\", key_file: \"$work/server.key\", ca_file: \"$work/ca.pem\""
  for i in 1 2 3; do
    cat >"$work/server$i.conf" <<-CONFIGURATION
	server_name: server$i
	listen: "${address[$i]}:${port[$i]}"
	max_payload: 17MB
	tls { $tls }
	jetstream { store_dir: "$work/store$i", max_file_store: 1GB }
	authorization { users: [
	$(cat "$work/users")
	] }
	cluster {
	  name: demo
	  listen: "${address[$i]}:${cluster_port[$i]}"
	  authorization { user: routes, password: "$routes_password" }
	  routes: [ $all ]
	  tls { $tls }
	}
	CONFIGURATION
  done
  for i in 1 2 3; do start_server $i on $i; done
  # They vote for who leads them all before they keep anything.
  until_true 30 "cluster" server1 is_led
}

start_receiver() {
  KELVODRIX_NATS=$work/card$1.settings start "card$1" on $((1 + $1 % 3)) "$binaries/route_receiver" --quiet \
    --endpoint "$endpoint/card$1" --account "$work/card$1.account" --timeout 60
}
# taken RECEIVER: how many routes, each counted once.
taken() { od -A n -t u8 -N 8 "$work/card$1.account" 2>/dev/null | grep -o '[0-9]*' || echo 0; }
has() { [ "$(taken "$1")" -ge "$2" ] || sender_failed || ! running "card$1"; }
sender_failed() { ! running sender && ! grep -q 'all acknowledged' "$work/sender"; }
running() { kill -0 "${process[$1]}" 2>/dev/null; }
# middle RECEIVER ROUTES: returns when the receiver has so many, and the sender and it are at work.
middle() {
  until_true 120 "routes at receiver $1" "card$1" has "$1" "$2"
  ! sender_failed || ended sender
  running "card$1" && return
  ended "card$1"
  fail "all has arrived before anything was killed; --repeat sends more"
}
# ended NAME: goes on when the process has ended as it should.
ended() {
  local status=0
  wait "${process[$1]}" || status=$?
  [ $status -ne 0 ] || return 0
  cat "$work/$1" >&2
  fail "the ${1/card/receiver } failed"
}
is_kept() { [ -n "$(leader drix-routes)" ]; }

if [ -n "$loss" ]; then in_namespaces; fi
umask 077
repeat=
for ((i = 0; i < ${#sender_options[@]}; i += 2)); do
  case ${sender_options[i]} in
    --repeat) repeat=${sender_options[i + 1]} ;;
    --file) cat "${sender_options[i + 1]}" >"$work/routes" ;; # the kernel has others in another namespace
  esac
done
count=$(wc -l <"$work/routes")
[ -n "$repeat" ] || repeat=$(((about + count - 1) / count))
total=$((count * repeat))
certificates 2>>"$work/errors" || fail "openssl makes no certificates: $(tail -n 1 "$work/errors")"
users
servers
echo "cluster: three servers, with TLS and a user for each process"

for ((i = 1; i < receivers || i == 1; ++i)); do start_receiver "$i"; done
until_true 60 "stream" card1 is_kept
KELVODRIX_NATS=$work/sender.settings start sender on 1 "$binaries/route_sender" --endpoint "$endpoint" \
  --batch 16 --timeout 60 "${sender_options[@]}" --file "$work/routes" --repeat "$repeat"
echo "cluster: $count routes, $repeat times over, are on their way from one sender to $receivers receivers"

middle 1 $((total / 8))
killed card1
echo "cluster: receiver 1 killed when it had $(taken 1) routes"
if [ "$receivers" -gt 1 ]; then
  start_receiver "$receivers"
  echo "cluster: receiver $receivers comes only now"
fi
sleep 0.2
start_receiver 1
middle 1 $((total / 4))
first=$(leader drix-routes)
begin=$EPOCHREALTIME before=$(taken 1)
killed "server$first"
echo "cluster: server $first killed, which leads the stream, when receiver 1 had $before routes"
until_true 60 "new leader" errors another_leads drix-routes "$first"
echo "cluster: server $(leader drix-routes) leads after $(seconds "$begin") s"
start_server "$first" on "$first"

left=(sender)
for ((i = 1; i <= receivers; ++i)); do left+=("card$i"); done
while [ ${#left[@]} -gt 0 ]; do
  for i in "${!left[@]}"; do
    running "${left[i]}" || { ended "${left[i]}" && unset "left[i]"; }
  done
  sleep 0.05
done
sed 's/^/cluster: the sender: /' "$work/sender"
for ((i = 1; i <= receivers; ++i)); do
  sed -nE "s/^([0-9]+ missing), ([0-9]+) repeated, ([0-9]+ differing).*/\1, \3, \2 messages came twice/p" "$work/card$i" |
    sed "s/^/cluster: receiver $i: $(taken "$i") routes, /"
done
echo "demo: every receiver has every route"
