#!/usr/bin/env bash
# What quopa makes of the calls that small captures hold, each written as a table: calls_test.sh QUOPA MAKE_CAPTURE BUS
set -uo pipefail
. "$(dirname "$0")/expect.sh"
quopa=("$1") make_capture=$2
# The loader takes a blank in the list of what it is to load first for the end of a name.
ln -s "$3" bus.so
bus=$work/bus.so
export TZ=UTC0 ASAN_OPTIONS=verify_asan_link_order=0:${ASAN_OPTIONS:-}
none=-2147483648 # status of a call without an answer

# says STATUS ARGUMENT...: what quopa prints, on standard output and then on standard error, are the lines of standard
# input.
says() {
  local status=$1 got=0
  shift
  cat >wanted
  timeout 60 env "LD_PRELOAD=${preload-}" "${quopa[@]}" "$@" >said 2>errors || got=$?
  cat errors >>said
  [ $got -eq "$status" ] && cmp -s said wanted || complain "quopa $* (status $got): $(diff said wanted)"
}

"$make_capture" table little >calls.pcapng <<END
note 64 99 program p
sent 0 tlv 1
sent 1 tlv 2 status -7
sent 2 tlv 3 status $none
received 3 tlv 4
received 4 tlv 5 status -1
sent 5 balanceModeData 6 captured 3
received 8 0x12 9
sent 6 0x12 9
note 0 0 lost 3
END

# What is chosen: NUMBERS|OPTIONS. A message is known by its place, from 0.
while IFS='|' read -r numbers options; do
  # shellcheck disable=SC2086
  "${quopa[@]}" trace calls.pcapng --json $options 2>errors | jq -r 'select(.direction) | .time * 1000 % 1000 | . - 123 | floor' | xargs >said
  [ "$(cat said)" = "$numbers" ] || complain "trace $options: $(cat said errors), not $numbers"
done <<'END'
0 1 2 3 4 5 8 6|
0 1 2 5 6|--sent
3 4 8|--received
1 2 4|--failed
1 2|--failed --sent
3 4|--type fib6Sync.tlv --received
0 1 2 3 4|--type *.tlv
5|--type *.balance*
5 8 6|--type *.balance* --type 0x0000001*
0 1 2 3 4|--type fib6Sync_tlv
8 6|--type 0x*
1 2 3|--where f0>1 --where f0<5 --type fib6Sync.tlv
1 4|--where .status=failed
2|--where .status=unanswered
1 2 4|--where .status!=ok
1|--where .status=-7
1 2 4|--where .status<0
5|--where .size>20
8 6|--where .size<=19 --where .program=?
|--where .program!=p
8|--where .time>=+8ms --where .handle=1 --where .destination=0
0 1|--where .time<08:56:40.125456
1 2|--where .packet>2 --where .packet<=4 --where .process=99 --where .thread=7
0 1 2|--count 3
2 4|--type *.tlv --from +2ms --to +0.004s --where f0!=4
0|--to 08:56:40.123456
1 2 3 4 5 8 6|--from 08:56:40.123457 --to 2025-11-25
3|--from 1764061000126456789 --to 1764061000.126456
0 1 2 3 4 5 8 6|--from 2025-11-25T08:56:40 --to 08:56
|--to 2025-11-25T08:55
|--from 08:57
END

says 0 stats calls.pcapng <<'END'
calls.pcapng#10 08:56:40.123456 p -- 3 messages were not recorded
TYPE                                         WAY         MESSAGES        BYTES   FAILED  NO ANSWER  REJECTED
0x00000012                                   sent               1            9        0          0         0
0x00000012                                   received           1            9        0          0         0
fib6Sync.balanceModeData                     sent               1           23        0          0         0
fib6Sync.tlv                                 sent               3           60        1          1         0
fib6Sync.tlv                                 received           2           40        1          0         0
total                                                           8          141        2          1         0
from 2025-11-25 08:56:40.123456 to 2025-11-25 08:56:40.131456, 0.008000000 s
END
says 0 stats calls.pcapng --json --type '*.tlv' <<'END'
{"capture":"calls.pcapng","packet":10,"time":1764061000.123456789,"time_ns":"1764061000123456789","program":"p","process":99,"note":"3 messages were not recorded"}
{"type":"fib6Sync.tlv","direction":"sent","messages":3,"bytes":60,"failed":1,"unanswered":1,"rejected":0}
{"type":"fib6Sync.tlv","direction":"received","messages":2,"bytes":40,"failed":1,"unanswered":0,"rejected":0}
END

# A line of the trace leads to its packet: what it shows, where it is, and that it is no buffer.
cp calls.pcapng "calls#7"
mkdir traces && cp calls.pcapng traces/quopa-p-q-99.4.pcapng && cp calls.pcapng traces/quopa-r-98.4.pcapng
says 0 trace traces/99.4 calls.pcapng --type fib6Sync.tlv --from +3ms --delta <<'END'
traces/99.4#5 2025-11-25 08:56:40.126456 +0.000000 p <- fib6Sync.tlv f0=4
calls.pcapng#5 08:56:40.126456 +0.000000 p <- fib6Sync.tlv f0=4
traces/99.4#6 08:56:40.127456 +0.001000 p <- fib6Sync.tlv DECODER FAILED f0=5
calls.pcapng#6 08:56:40.127456 +0.000000 p <- fib6Sync.tlv DECODER FAILED f0=5
traces/99.4#10 08:56:40.123456 -0.004000 p -- 3 messages were not recorded
calls.pcapng#10 08:56:40.123456 +0.000000 p -- 3 messages were not recorded
END
TZ=UTC-10 says 0 trace calls.pcapng --date --type '*.tlv' --from 06:57 --to 06:56 --count 2 <<'END'
#2 2025-11-25 18:56:40.123456 p -> fib6Sync.tlv h1 f0=1
#3 2025-11-25 18:56:40.124456 p -> fib6Sync.tlv h1 FAILED -7 f0=2
END
while IFS='|' read -r status arguments shown; do
  # shellcheck disable=SC2086
  says "$status" decode $arguments <<<"$shown"
done <<'END'
0|calls.pcapng#3|{"f0":2,"f1":0}
0|traces/99.4#4|{"f0":3,"f1":0}
0|fib6Sync.tlv traces/98.4#6|{"f0":5,"f1":0}
1|calls.pcapng#1|quopa: calls.pcapng#1 is no message but a note: program p
1|calls.pcapng#8|quopa: calls.pcapng#8: its capture does not know the type 0x00000012; name another before it
1|calls.pcapng#11|quopa: calls.pcapng has no packet 11, but 10 from 1 on
1|missing#11|quopa: missing: No such file or directory
2|calls.pcapng#x|quopa: calls.pcapng#x: a packet has a number behind the #
2|calls.pcapng|quopa: calls.pcapng is a capture; name one of its packets, as "quopa trace" numbers them: calls.pcapng#N
2|fib6Sync.tlv calls#7|quopa: calls#7 is a capture; name one of its packets, as "quopa trace" numbers them: calls#7#N
2|traces/99.4|quopa: traces/quopa-p-q-99.4.pcapng is a capture; name one of its packets, as "quopa trace" numbers them: traces/quopa-p-q-99.4.pcapng#N
2|traces|quopa: traces is a folder; "quopa trace" names the packets of its captures in each line
2|traces#2|quopa: traces has several captures; name the one, as "quopa trace" does in each line
END
expect 1 '^ +0  .* not read' '*' '' annotate calls.pcapng#7
grep -qx 'quopa: calls.pcapng#7 was cut to 3 of 23 bytes' errors || complain 'what is cut is not told'
cp traces/quopa-p-q-99.4.pcapng traces/quopa-s-99.4.pcapng
expect 1 '' 'traces/99.4: may be traces/quopa-[a-z-]*-99.4.pcapng or traces/quopa-' '' decode traces/99.4#2

# On a terminal, what went wrong is red, and how far a command is can be seen when nothing else is; but in no pipe.
expect 0 $' \e\\[1;31mFAILED -7\e\\[0m f0=2$' '' '' trace calls.pcapng --color always
"$make_capture" 4 spoiled little | "${quopa[@]}" trace - --color always | grep -q $' \e\\[1;31mREJECTED\e\\[0m at ' || complain 'no red rejection'
on_terminal() { script -qec "$1" /dev/null </dev/null 2>&1 | cat -v; }
[ "$(on_terminal "'${quopa[0]}' trace calls.pcapng" | grep -cE '31m(FAILED|NO ANSWER|DECODER)')" = 3 ] || complain 'no colours on a terminal'
[ "$(on_terminal "NO_COLOR=1 '${quopa[0]}' trace calls.pcapng" | grep -c '31m')" = 0 ] || complain 'colours that are not wanted'
slow="(cat calls.pcapng; sleep 1.1; cat calls.pcapng) | '${quopa[0]}'"
on_terminal "$slow stats -" >said
grep -qE '[0-9]+ packets\^M\^\[\[K' said && grep -q '^total .* 16 ' said || complain "how far it is: $(cat said)"
on_terminal "$slow stats - 2>errors" | grep 'packets' && complain 'progress in a file'

# Written anew, each message keeps its program and the types of its program's version, and notes stay.
"$make_capture" table little <<'END' | "${quopa[@]}" trace - -w - | sed 's/^\(fib6Sync.tlv .*\) u32@0 /\1 u16@0 /' >other.pcapng
note 32 5 program q
sent 4 tlv 65538
note 0 0 unwrapped 2
sent 9 tlv 65539
END
from_captures() { sed -E 's/"capture":"[^"]*","packet":[0-9]+,//'; }
"${quopa[@]}" trace calls.pcapng other.pcapng --json | from_captures >wanted
"${quopa[@]}" trace calls.pcapng other.pcapng -w anew.pcapng
"${quopa[@]}" trace anew.pcapng --json | from_captures | diff - wanted || complain 'written anew, it is not the same'
"${quopa[@]}" trace anew.pcapng -w - | cmp - anew.pcapng || complain 'written anew again, it is not the same'
expect 0 '^\{"f0":2,"f1":0\}$' '' '' decode other.pcapng#3
[ "$(jq -c '[.program, .record.f0, .note != null] | select(.[0] == "q" and (.[1] or .[2]))' wanted | xargs)" = '[q,2,false] [q,null,true] [q,3,false]' ] ||
  complain "other types: $(cat wanted)"
# Also the last bytes of a file have to find room.
(trap '' XFSZ && ulimit -f $(($(stat -c %s anew.pcapng) / 1024)) && exec "${quopa[@]}" trace anew.pcapng -w short.pcapng 2>errors)
[ $? -eq 1 ] && grep -qx 'quopa: short.pcapng: File too large' errors || complain "no room: $(cat errors)"
# What is the same is told apart by the order of sending, over all rings. What was written anew is told.
mkdir sender receiver
"$make_capture" table little >sender/quopa-a-1.0.pcapng <<END
note 64 1 program a
sent 0 tlv 1
sent 4 tlv 9 status -7
sent 5 tlv 3 status $none
sent 6 tlv 10 captured 3
sent 10 tlv 1
END
"$make_capture" table big >sender/quopa-b-2.3.pcapng <<'END'
note 64 2 program b
sent 6 tlv 1
sent 7 0x12 8
note 0 0 lost 4
END
"$make_capture" table little >receiver/quopa-r-3.0.pcapng <<'END'
note 64 3 program r
received 4 tlv 1
received 6 tlv 3
received 8 tlv 1
received 11 0x13 8
received 11 tlv 10 captured 3
END
"$make_capture" table little >receiver/quopa-r-3.1.pcapng <<'END'
note 64 3 program r
received 30 tlv 1
received 31 tlv 1
END
anew="the ring's files before this one were written anew, so messages of that time are missing"
says 1 compare sender receiver <<END
not received: sender/2.3#3 08:56:40.130456 b -> 0x00000012 h1 unknown type, 8 bytes
received but not sent: receiver/3.0#5 08:56:40.134456 r <- 0x00000013 unknown type, 8 bytes
received again: receiver/3.1#3 08:56:40.154456 r <- fib6Sync.tlv f0=1
5 sent, 6 received: 1 not received, 1 received again, 1 received but not sent
1 more could not be sent
latency in us: least 1000, half 2000, 90 % 4000, 99 % 4000, 99.9 % 4000, most 20000
quopa: sender/quopa-b-2.3.pcapng: $anew
sender/2.3#4 08:56:40.123456 b -- 4 messages were not recorded
quopa: 2 messages were cut by the recorder and are not compared
END
# One line of standard output each, the sums at the end: STATUS|SENDER|RECEIVER|LAST LINE.
mkdir mixed && cp sender/quopa-b-2.3.pcapng receiver/quopa-r-3.1.pcapng mixed
"$make_capture" table little <<<'sent 0 0x12 8' >sent.pcapng
"$make_capture" table little <<<'received 2 0x12 8' >received.pcapng
cat sent.pcapng received.pcapng >exchanged.pcapng
(cat sent.pcapng && head -c 100 sent.pcapng) >damaged.pcapng
(cat sent.pcapng received.pcapng && tail -c +61 received.pcapng) >again.pcapng
while IFS='|' read -r status paths sums; do
  # shellcheck disable=SC2086
  expect "$status" "^\{\"sent\":$sums]\}$" '*' '' compare $paths --json
done <<'END'
0|sent.pcapng received.pcapng|1,"failed":0,"received":1,"not_received":0,"received_again":0,"not_sent":0,"latency_ns":\[2000000,2000000,2000000,2000000,2000000,2000000
0|exchanged.pcapng|1,"failed":0,"received":1,"not_received":0,"received_again":0,"not_sent":0,"latency_ns":\[2000000,2000000,2000000,2000000,2000000,2000000
1|damaged.pcapng received.pcapng|1,"failed":0,"received":1,"not_received":0,"received_again":0,"not_sent":0,"latency_ns":\[2000000,2000000,2000000,2000000,2000000,2000000
1|sent.pcapng again.pcapng|1,"failed":0,"received":2,"not_received":0,"received_again":1,"not_sent":0,"latency_ns":\[2000000,2000000,2000000,2000000,2000000,2000000
1|sent.pcapng sent.pcapng|1,"failed":0,"received":0,"not_received":1,"received_again":0,"not_sent":0,"latency_ns":\[
1|received.pcapng|0,"failed":0,"received":1,"not_received":0,"received_again":0,"not_sent":1,"latency_ns":\[
1|mixed|2,"failed":0,"received":2,"not_received":1,"received_again":1,"not_sent":0,"latency_ns":\[24000000,24000000,24000000,24000000,24000000,24000000
END
[ "$("${quopa[@]}" compare mixed 2>&1 | grep -c 'not recorded$')" -eq 1 ] || complain 'what is sender and receiver is told of twice'
mkdir late && cp receiver/quopa-r-3.1.pcapng late
for paths in 'sent.pcapng late' late; do
  # shellcheck disable=SC2086
  expect 1 '2 received but not sent$' "^quopa: late/quopa-r-3.1.pcapng: $anew" '' compare $paths
done

# Sent again in the calls and at the distances in which it was sent.
mkdir calls
"$make_capture" table little >calls/p.pcapng <<END
note 64 1 program p
sent 0 0x1 10
sent 5 0x2 11 call 0 3
sent 7 0x3 12 thread 9
sent 5 0x4 13 call 1 3
sent 5 0x5 14 call 0 2 thread 8
sent 5 0x6 15 call 2 3
sent 5 0x7 16 call 1 2 thread 8
sent 9 0x8 17 status -7
sent 10 0x9 18 status $none
sent 11 0xA 19 captured 4
sent 12 0xB 20 call 0 2
sent 12 0xC 21 call 1 2 handle 2
sent 13 0xD 22 call 0 2
sent 13 0x12 27 call 0 2
sent 14 0xE 23 call 1 2
sent 15 0xF 24 call 0 2
received 25 0x10 25
received 26 0x11 26 status -1
END
"$make_capture" table little >calls/q.pcapng <<'END'
note 64 2 program q
sent 6 0x20 30 call 0 2
sent 6 0x21 31 call 1 2
END
preload=$bus
replay() { says "$1" replay "$2" --to "$3" --bus "$bus" "${@:4}"; }
replay 1 calls x <<'END'
sent 16 messages in 12 calls, all acknowledged
1 left out: their own send had failed
1 left out: cut by the recorder
send 1:10
pause 6000 us
send 20:30 21:31
pause 1000 us
send 3:12
send 2:11 4:13 6:15
send 5:14 7:16
pause 3000 us
send 9:18
pause 2000 us
send B:20
send C:21
pause 1000 us
send D:22
send 12:27
pause 1000 us
send E:23
pause 1000 us
send F:24
END
replay 0 calls/q.pcapng x <<'END'
sent 2 messages in 1 calls, all acknowledged
send 20:30 21:31
END
replay 0 calls x --received <<'END'
sent 2 messages in 2 calls, all acknowledged
send 10:25
pause 1000 us
send 11:26
END
"$make_capture" table little >spaced.pcapng <<'END'
sent 1000 0x1 10
sent 3500 0x2 11
sent 500 0x3 12
END
replay 0 spaced.pcapng x --speed 2 <<'END'
sent 3 messages in 3 calls, all acknowledged
send 1:10
pause 1250000 us
send 2:11
send 3:12
END
replay 0 spaced.pcapng x --speed max <<'END'
sent 3 messages in 3 calls, all acknowledged
send 1:10
send 2:11
send 3:12
END
replay 1 spaced.pcapng full --speed max <<'END'
send 1:10
send 2:11
quopa: full: full; 2 messages were sent, 0 of them undelivered
END
replay 1 calls/q.pcapng deaf --speed max <<'END'
send 20:30 21:31
quopa: deaf: late; 2 messages were sent, 2 of them undelivered
END
exit $((failures > 0))
