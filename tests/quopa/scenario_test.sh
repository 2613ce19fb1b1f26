#!/usr/bin/env bash
# Real processes, recorded at both ends, and what quopa makes of it: scenario_test.sh QUOPA RECORDER EXAMPLES BUS
set -uo pipefail
. "$(dirname "$0")/expect.sh"
quopa=$1 recorder=$2 examples=$3 bus=$4
routes=$project/examples/data/ipv6_route.sample
endpoint=ipc://$work/bus
export ASAN_OPTIONS=verify_asan_link_order=0:${ASAN_OPTIONS:-}

trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$work"' EXIT
# The loader takes a blank in the list of what it is to load first for the end of a name.
ln -s "$recorder" "$work/recorder.so"
recorder=$work/recorder.so

# recorded FOLDER COMMAND...: becomes the command.
recorded() {
  local folder=$1
  shift
  mkdir -p "$folder"
  QUOPA_TRACE_SIZE=128M QUOPA_TRACE_DIR=$folder LD_PRELOAD=$recorder exec "$@"
}
receive() { recorded "$1" "$examples/route_receiver" --endpoint "$endpoint" --quiet; }
send() { recorded sender "$examples/route_sender" --endpoint "$endpoint" --file "$routes" "$@"; }

# Nothing is missing; a follower sees what is read afterwards.
mkdir sender receiver
"$quopa" trace sender receiver -f --bare >followed &
follower=$!
receive receiver >received &
receiver=$!
(send --repeat 20 --timeout 60) >sent || complain "the sender: $(cat sent)"
wait $receiver || complain "the receiver: $(cat received)"
"$quopa" compare sender receiver >compared || complain "$(tail -n 3 compared)"
grep -qE '^([0-9]+) sent, \1 received: 0 not received, 0 received again, 0 received but not sent$' compared || complain "$(cat compared)"
"$quopa" trace sender receiver --bare | sort >followed.wanted
for ((i = 0; i < 600 && $(wc -l <followed) < $(wc -l <followed.wanted); i++)); do sleep 0.1; done
kill $follower
sort followed | cmp - followed.wanted || complain 'the follower saw something else'

# A route is found by its prefix, and by the file it came from.
grep -cE '^20010db800000002' "$routes" >found.wanted
"$quopa" trace sender --where f1.f3=2001:db8:0:2::/64 --where f1.f6=0 | wc -l >found
cmp found found.wanted || complain 'routes are not found by prefix'
"$quopa" stats receiver --where f1.f3=2001:db8:0:2::/64 --where f1.f6=0 | awk '$1 == "total" {print $2}' | cmp - found.wanted || complain 'nor counted'

# Sent again, another receiver gets the same in the same calls.
receive again >received &
receiver=$!
"$quopa" replay sender --to "$endpoint" --speed max --bus "$bus" >replayed || complain "replay: $(cat replayed)"
wait $receiver || complain "the receiver of a replay: $(cat received)"
calls=$("$quopa" trace sender --json | jq -c '[.time, .thread]' | sort -u | wc -l)
grep -q " in $calls calls, all acknowledged\$" replayed || complain "not $calls calls: $(cat replayed)"
"$quopa" trace receiver --bare >again.wanted
"$quopa" trace again --bare | cmp - again.wanted || complain 'a replay brings something else'

# The receiver is killed under load: every file can be read to its end, and what did not arrive is named.
rm -r sender receiver
receive receiver >received 2>&1 &
receiver=$!
until [ -S "$work/bus" ] || ! kill -0 $receiver; do sleep 0.02; done
send --repeat 100000 --batch 16 --timeout 2 >sent 2>&1 &
sender=$!
until grep -q . <("$quopa" trace receiver --bare 2>/dev/null); do sleep 0.02; done
kill -STOP $receiver
# The sender goes on until its window is full, if it is not just making the next file of its trace.
for ((i = 0; i < 100; i++)); do
  "$quopa" compare sender receiver >/dev/null || break
  sleep 0.05
done
kill -KILL $receiver
wait $receiver 2>/dev/null
wait $sender && complain 'the sender did not notice'
undelivered=$(grep -oE '[0-9]+ messages undelivered' sent | cut -d' ' -f1)
for file in sender/*.pcapng receiver/*.pcapng; do "$quopa" stats "$file" >/dev/null || complain "$file cannot be read"; done
"$quopa" compare sender receiver --json >compared && complain 'nothing is missing'
# Frames are handled in order, so what is missing is all that was sent last.
last=$("$quopa" trace receiver --bare | tail -n 1 | jq '.f0.f1')
jq -e -s --argjson last "$last" --argjson undelivered "${undelivered:-0}" '
  .[-1] as $sums | .[:-1] | map(.message.record.f0.f1) as $missing
  | $missing == [range($last + 1; $last + 1 + length)] and length > 0 and length <= $undelivered
    and $sums.not_received == length and $sums.received_again + $sums.not_sent == 0' compared >/dev/null ||
  complain "after $last, with $undelivered undelivered: $(tail -n 1 compared)"
exit $((failures > 0))
