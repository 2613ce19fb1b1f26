#!/usr/bin/env bash
# Endpoints at a server in the place of captures: cluster_test.sh QUOPA MAKE_CAPTURE RECORDER EXAMPLES BUS
set -uo pipefail
. "$(dirname "$0")/expect.sh"
command -v nats-server >/dev/null || { echo 'there is no nats-server (Debian: nats-server)'; exit 77; }
quopa=("$1") make_capture=$2 examples=$4 bus=$5
ln -s "$3" recorder.so  # the loader takes a blank for the end of a name
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
cat >conf <<END
listen: 127.0.0.1:-1
http: 127.0.0.1:-1
ports_file_dir: $work
max_payload: 17MB
jetstream { store_dir: $work }
authorization { users: [{user: u, password: p}, {user: tap, password: p, permissions: {publish: {deny: ">"}, subscribe: "drix.*.m.>"}}] }
END
nats-server -c conf 2>/dev/null &
until compgen -G '*.ports' >/dev/null; do sleep 0.01; done
at=$(jq -r '.nats[0]' ./*.ports)
stream=${at/nats:/nats-stream:}/routes
echo $'user=u\npassword=p' >settings
echo $'user=tap\npassword=p' >tap_settings
echo $'user=u\npassword=x' >wrong
export KELVODRIX_NATS=settings
# Small calls may share a frame, and are one call then.
json() { sed -E 's/"capture":.*"process":[0-9]+,//; s/"(handle|thread|index|count)":[0-9]+,//g'; }
same() { cmp "$1" "$2" || complain "$1: $(diff "$1" "$2" | head -n 4)"; }

# What a stream keeps is what was sent, however often it is read, and what types leave out of it at the server.
"$make_capture" 2000 good little | "${quopa[@]}" trace - --sent -w sent.pcapng
"${quopa[@]}" replay sent.pcapng --to "$stream" --speed max --bus "$bus" >replayed || complain "replay: $(cat replayed)"
"${quopa[@]}" trace sent.pcapng --json | json >wanted
for _ in 1 2; do
  "${quopa[@]}" trace "$stream" --json --bus "$bus" | json >said; same said wanted
done
for types in T=fib6Sync.tlv "T=fib6Sync.ipv6Fwd*" "T=*Msg" "T=fib6Sync.tlv T=*.*Key"; do
  # shellcheck disable=SC2086
  set -- ${types//T=/--type }
  "${quopa[@]}" stats sent.pcapng --json "$@" >wanted
  "${quopa[@]}" stats "$stream" --json --bus "$bus" "$@" >said; same said wanted
done
"${quopa[@]}" compare sent.pcapng "$stream" --bus "$bus" >said || complain "compare: $(tail -n 2 said)"
later=$("${quopa[@]}" trace "$stream" --json --bus "$bus" | sed -n '900s/.*"time_ns":"\([0-9]*\).*/\1/p')
"${quopa[@]}" trace "$stream" --bus "$bus" --json | jq -c 'select(.time_ns >= "'"$later"'").record' >wanted
"${quopa[@]}" trace "$stream" --bus "$bus" --bare --from "$later" | jq -c . >said; same said wanted

# Taps need no rights but to listen, and end where they are told to; what was sent has come.
"$examples/route_sender" --endpoint "${stream%/*}/fib" --file "$project/examples/data/ipv6_route.sample" --batch 4 >sent || complain "the sender: $(cat sent)"
"${quopa[@]}" trace "${stream%/*}/fib" -w fib.pcapng --bus "$bus"
messages=$("${quopa[@]}" trace fib.pcapng --bare | wc -l)
tap() { KELVODRIX_NATS=tap_settings exec "${quopa[@]}" "$@" --bus "$bus"; }
monitor=$(jq -r '.monitoring[0]' ./*.ports)
listening() { # listening N: until the server has so many subscriptions of taps
  until exec 3<>"/dev/tcp/127.0.0.1/${monitor##*:}" && printf 'GET /subsz?subs=1 HTTP/1.0\r\n\r\n' >&3 && [ "$(grep -c '"subject": "drix\.' <&3)" = "$1" ]; do sleep 0.05; done
}
(tap trace "$at/*" --bare --count "$messages") >tapped 2>&1 &
tracing=$!
tap compare "$at/card" received >compared 2>&1 &
comparing=$!
tap stats "$at/card" --json --type fib6Sync.ipv6FwdUpdateMsg >counted 2>&1 &
counting=$!
listening 4
mkdir received
LD_PRELOAD=$work/recorder.so QUOPA_TRACE_DIR=$work/received "$examples/route_receiver" --endpoint "$at/card" --quiet >receiver 2>&1 &
receiver=$!
"${quopa[@]}" replay fib.pcapng --to "$at/card" --speed max --bus "$bus" >replayed || complain "replay: $(cat replayed)"
wait $receiver || complain "the receiver: $(cat receiver)"
wait $tracing || complain "a tap: $(cat tapped)"
kill -INT $comparing $counting
wait $comparing || complain "compare with a tap: $(cat compared)"
wait $counting || complain "a tap that counts: $(cat counted)"
"${quopa[@]}" trace fib.pcapng --bare >wanted; same tapped wanted
"${quopa[@]}" stats fib.pcapng --json --type fib6Sync.ipv6FwdUpdateMsg >wanted; same counted wanted

# Live, a stream goes on.
("${quopa[@]}" trace "$stream" -f --bare --count 1010 --bus "$bus") >followed &
following=$!
"${quopa[@]}" trace sent.pcapng --count 10 -w few.pcapng
"${quopa[@]}" replay few.pcapng --to "$stream" --speed max --bus "$bus" >replayed || complain "replay: $(cat replayed)"
wait $following
"${quopa[@]}" trace sent.pcapng few.pcapng --bare | wc -l | cmp - <(wc -l <followed) || complain 'not all is followed'

# What is wrong has its words.
while IFS='|' read -r status settings words arguments; do
  export KELVODRIX_NATS=$settings
  arguments=${arguments//@/$at}
  # shellcheck disable=SC2086
  expect "$status" '' "^quopa: ${words//@/$at}" '' ${arguments//SERVER/${at#*//}} --bus "$bus"
done <<'END'
1|wrong|.*/x: the server refuses the credentials|trace @/x
1|none|.*/x: the file that KELVODRIX_NATS names|stats @/x
1|settings|.*/x: no server answers|stats nats://127.0.0.1:1/x
1|settings|.*/x: .*unknown host|compare nats://no..host:1/x .
1|settings|.*/none: the server keeps no such stream|trace nats-stream://SERVER/none
1|tap_settings|.*/routes: the server refuses the credentials|trace nats-stream://SERVER/routes
2|settings|@/x has no end|trace @/x few.pcapng
2|settings|no type matches|trace @/x --type fib6Sync.x
2|settings|-f goes with endpoints|stats few.pcapng -f
END

exit $((failures > 0))
