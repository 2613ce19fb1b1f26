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
0 1 2|--where .time<=+2ms
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
says 0 trace calls.pcapng --json --from 08:57 --type '*.tlv' --sent <<'END'
{"capture":"calls.pcapng","packet":10,"time":1764061000.123456789,"time_ns":"1764061000123456789","program":"p","process":99,"note":"3 messages were not recorded"}
quopa: --from and --to leave nothing of messages from 2025-11-25 08:56:40.123456 to 2025-11-25 08:56:40.131456
END
"$make_capture" table little >days.pcapng <<'END'
sent 0 tlv 1
sent 70000 tlv 2
sent 86400000 tlv 3
END
says 0 trace days.pcapng <<'END'
#1 2025-11-25 08:56:40.123456 -> fib6Sync.tlv h1 f0=1
#2 08:57:50.123456 -> fib6Sync.tlv h1 f0=2
#3 2025-11-26 08:56:40.123456 -> fib6Sync.tlv h1 f0=3
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
0|fib6_cfg.query_comm_param calls.pcapng#3|{"f0":2,"f1":0,"f2":""}
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

expect 2 '*' 'has no members; did you mean "f0" of fib6Sync.tlv\?$' '' trace calls.pcapng --type fib6Sync.tlv --where f1.f0=1

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
"$make_capture" table little <<<'received 2 0x12 9' >longer.pcapng
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
1|sent.pcapng longer.pcapng|1,"failed":0,"received":1,"not_received":1,"received_again":0,"not_sent":1,"latency_ns":\[
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
preload=
# Tables. What is told twice, in vain or of nothing, and the entry that a deletion misses.
update=0x48CDB5CB delete=0x20B86741 batch=0xF0E9E493
bytes() { echo "0x$("${quopa[@]}" encode "$@" --hex)"; }
added() { bytes fib6Sync.ipv6FwdUpdateMsg <<<"{\"f0\":{\"f1\":$1},\"f1\":{\"f3\":\"2001:db8:$2::\",\"f4\":$3,\"f1\":$4,\"f7\":$5}}"; }
deleted() { bytes fib6Sync.ipv6FwdDelMsg <<<"{\"f0\":{\"f1\":$1},\"f1\":{\"f2\":\"2001:db8:$2::\",\"f3\":$3,\"f1\":$4}}"; }
batch() { bytes korBrokerFib6.ipv6FwdUpdateMsg <<<"{\"f1\":[$(printf ',{"f3":"2001:db8:%s::","f4":48,"f7":%s}' "$@" | cut -c 2-)]}"; }
"$make_capture" table little >told.pcapng <<END
note 64 4 program card
sent 1 $update $(added 1 1 48 5 7)
received 2 $update $(added 1 1 48 5 7)
sent 3 $update $(added 2 1 48 5 7)
sent 4 $update $(added 3 1 48 5 8)
received 5 $update $(added 3 1 48 5 8)
sent 6 $update $(added 4 2 64 0 9) status -7
sent 7 $update $(added 5 2 64 0 9)
received 8 $update $(added 5 2 64 0 9)
sent 9 $delete $(deleted 6 1 48 5)
received 10 $delete $(deleted 6 1 48 6)
received 11 $update $(added 7 3 128 0 1) captured 30
received 12 $update 0x0400
END
says 0 table told.pcapng <<'END'
#6 08:56:40.128456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5 f1.f7=8
#9 08:56:40.131456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:2::/64 f1.f7=9
2 entries, from 4 messages that card 4 received until 2025-11-25 08:56:40.133456;
what was there before 2025-11-25 08:56:40.123456 is not known; deletions of what may have been there: 1
quopa: 1 messages are left out: the bus or the decoder did not take them
quopa: 1 messages are left out: their decoder rejects them
quopa: 1 messages are left out: the recorder cut them
END
says 0 table told.pcapng --sent --at +5ms --json <<'END'
{"capture":"told.pcapng","packet":5,"time":1764061000.127456789,"time_ns":"1764061000127456789","program":"card","process":4,"direction":"sent","table":"fib6Sync.ipv6Fwd","key":"2001:db8:1::/48 f1=5","type":"fib6Sync.ipv6FwdUpdateMsg","record":{"f0":{"f0":0,"f1":0},"f1":{"f0":0,"f1":5,"f2":0,"f3":[536939960,65536,0,0],"f4":48,"f5":0,"f6":0,"f7":8,"f8":0,"f9":0,"f10":0,"f11":0,"f12":0,"f13":0}}}
{"program":"card","process":4,"direction":"sent","entries":1,"messages":3,"unknown_before":1764061000.123456789,"until":1764061000.127456789,"deleted_unknown":0}
quopa: 1 messages are left out: the bus or the decoder did not take them
END
says 0 history told.pcapng 2001:db8:1::/48 <<'END'
#2 08:56:40.124456 card 4 -> fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5: added f1.f7=7
#3 08:56:40.125456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5: added f1.f7=7
#4 08:56:40.126456 card 4 -> fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5: repeated without a change, 1 time
#5 08:56:40.127456 card 4 -> fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5: changed f1.f7 7 -> 8
#6 08:56:40.128456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5: changed f1.f7 7 -> 8
#10 08:56:40.132456 card 4 -> fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5: deleted
#11 08:56:40.133456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=6: deleted, but not known before
quopa: 1 messages are left out: the bus or the decoder did not take them
quopa: 1 messages are left out: their decoder rejects them
quopa: 1 messages are left out: the recorder cut them
END
says 1 diff told.pcapng <<'END'
missing here: #6 08:56:40.128456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5 f1.f7=8
card 4: 1 entries here, 2 there: 0 missing there, 1 missing here, 0 differ
quopa: 1 messages are left out: the bus or the decoder did not take them
quopa: 1 messages are left out: their decoder rejects them
quopa: 1 messages are left out: the recorder cut them
END
expect 0 '"entries":1,' '*' '' table told.pcapng --json --where f1.f7=9
expect 0 '"here":1,"there":1,"missing_there":0,"missing_here":0,"differing":0' '*' '' diff told.pcapng@+4ms told.pcapng@+5ms --json
# A table as it is printed, of which a row may take two lines.
printf '%s\n' 'whole' 'Destination Next hop Interface Metric Flags' '2001:db8:1::/48 0:8:: eth0 5 UG' '2001:db8:2::/64' '  :: eth0 0 U' \
  '2001:db8:9::/48 fe80::1 eth0 1 UG' '2001:db8:9::/48 fe80::2 eth0 1 UG' 'Flags: U up' >printed
says 1 diff told.pcapng printed --labels "$project/examples/routes.labels" <<'END'
differs: #9 08:56:40.131456 card 4 <- fib6Sync.ipv6Fwd 2001:db8:2::/64: next_hop 0:9:: -> ::
missing here: 2001:db8:9::/48 metric=1 next_hop=fe80::1,fe80::2
2 entries here, 3 there: 0 missing there, 1 missing here, 1 differ
quopa: 1 messages are left out: the bus or the decoder did not take them
quopa: 1 messages are left out: their decoder rejects them
quopa: 1 messages are left out: the recorder cut them
END
"$make_capture" table little >a.pcapng <<END
note 64 1 program a
sent 0 $batch $(batch 1 1 2 2)
sent 0 $batch $(batch 3 3)
sent 1 0x21 5
END
"$make_capture" table little >b.pcapng <<END
note 64 2 program b
received 2 $batch $(batch 1 1 2 2 3 3)
sent 5 $batch $(batch 3 3)
sent 6 $batch $(batch 2 9 1 1)
END
"$make_capture" table big >c.pcapng <<END
note 64 3 program c
received 8 $batch $(batch 1 1)
received 9 $batch $(batch 2 9)
received 9 $batch $(batch 2 9)
received 10 $batch $(batch 8 8) status -1
sent 11 0x21 5
END
says 1 compare a.pcapng b.pcapng c.pcapng --by-key <<'END'
a.pcapng to b.pcapng:
3 sent, 3 received: 0 not received, 0 received again, 0 received but not sent, 0 changed on the way
latency in us: least 2000, half 2000, 90 % 2000, 99 % 2000, 99.9 % 2000, most 2000
through b.pcapng:
changed on the way: b.pcapng#2 08:56:40.125456 b 2 <- korBrokerFib6.ipv6Fwd 2001:db8:2::/48: f1.f7 2 -> 9 in b.pcapng#4 08:56:40.129456 b 2
3 received, 3 sent: 0 not sent on, 0 sent again, 0 sent but not received, 1 changed on the way
latency in us: least 3000, half 3000, 90 % 3000, 99 % 3000, 99.9 % 3000, most 4000
b.pcapng to c.pcapng:
received again: c.pcapng#4 08:56:40.132456 c 3 <- korBrokerFib6.ipv6Fwd 2001:db8:2::/48 f1.f7=9
not received: b.pcapng#3 08:56:40.128456 b 2 -> korBrokerFib6.ipv6Fwd 2001:db8:3::/48 f1.f7=3
3 sent, 3 received: 1 not received, 1 received again, 0 received but not sent, 0 changed on the way
latency in us: least 2000, half 2000, 90 % 2000, 99 % 2000, 99.9 % 2000, most 3000
quopa: 1 messages are left out: the bus or the decoder did not take them
END
says 1 compare b.pcapng c.pcapng --by-key --json <<'END'
{"difference":"received again","capture":"c.pcapng","packet":4,"time":1764061000.132456789,"time_ns":"1764061000132456789","program":"c","process":3,"direction":"received","table":"korBrokerFib6.ipv6Fwd","key":"2001:db8:2::/48","type":"korBrokerFib6.ipv6FwdUpdateMsg","record":{"f0":0,"f1":[{"f0":0,"f1":0,"f2":0,"f3":[536939960,131072,0,0],"f4":48,"f5":0,"f6":0,"f7":9,"f8":0,"f9":0,"f10":0,"f11":0,"f12":0,"f13":0}]}}
{"difference":"not received","capture":"b.pcapng","packet":3,"time":1764061000.128456789,"time_ns":"1764061000128456789","program":"b","process":2,"direction":"sent","table":"korBrokerFib6.ipv6Fwd","key":"2001:db8:3::/48","type":"korBrokerFib6.ipv6FwdUpdateMsg","record":{"f0":0,"f1":[{"f0":0,"f1":0,"f2":0,"f3":[536939960,196608,0,0],"f4":48,"f5":0,"f6":0,"f7":3,"f8":0,"f9":0,"f10":0,"f11":0,"f12":0,"f13":0}]}}
{"sent":3,"failed":0,"received":3,"not_received":1,"received_again":1,"not_sent":0,"changed":0,"latency_ns":[2000000,2000000,2000000,2000000,2000000,3000000]}
quopa: 1 messages are left out: the bus or the decoder did not take them
END
expect 1 '^through b.pcapng:$' '' '' compare a.pcapng b.pcapng c.pcapng
printf '[fib6Sync.nhp6VpnUpdateMsg]\nadds f1\n' >vpn.labels
while IFS='|' read -r status line arguments; do
  # shellcheck disable=SC2086
  expect "$status" '' "^quopa: $line" '' $arguments
done <<'END'
1|nothing tells of ::1$|history a.pcapng ::1
1|the labels: no members of fib6Sync.nhp6Vpn are said to be the key of its table$|table a.pcapng --labels vpn.labels
2|KEY is required$|history told.pcapng
2|the key "f7=1": no table has such a key$|history told.pcapng f7=1
2|the key "f4=x,::1": f4=x: "x" is n|history told.pcapng f4=x,::1
2|the key "::1/129": a prefix has a length of 0 to 128$|history told.pcapng ::1/129
2|the key "fe80": "fe80" is neither an IPv6 address or prefix nor MEMBER=VALUE$|history told.pcapng fe80
2|--at "noon" is no time|table told.pcapng --at noon
1|told.pcapng: no routes to compare with those of printed; --labels says|diff told.pcapng printed
2|the time behind @: "noon" is no time|diff told.pcapng@noon told.pcapng
2|--where .* has no member "f99"|table a.pcapng --where f99=1
1|sent.pcapng: nothing was received that tells of a table; name the other capture$|diff sent.pcapng
END

# What is recorded is watched: each rule hits what it is for, and a capture has what was around.
mkdir ring && cp told.pcapng ring/quopa-card-4.0.pcapng
"$make_capture" table little >ring/quopa-s-1.0.pcapng <<END
note 64 1 program s
sent 1000 tlv 1
sent 1010 tlv 2
sent 3000 tlv 3 status -7
sent 3001 tlv 4 status $none
sent 9000 tlv 6
sent 9400 tlv 8
sent 9410 tlv 9
END
"$make_capture" table little >ring/quopa-r-2.0.pcapng <<'END'
note 64 2 program r
received 1001 tlv 1
received 1061 tlv 2
received 3002 tlv 4
received 9001 tlv 7
received 9410 tlv 9
END
while IFS='|' read -r options lines; do
  rm -f watch-*
  # shellcheck disable=SC2086
  timeout 60 "${quopa[@]}" watch ring $options --then 'echo "$2 $1" >>commands' >said 2>errors
  [ $? -eq 3 ] && [ ! -s errors ] && sed -E 's/watch-[^ ]*:([0-9]{2})?/&/; s/ [0-9:.]{15} / /' said | cmp -s - <(printf '%b' "$lines") || complain "watch $options: $(cat said errors)"
done <<'END'
--on failed --count 1|failed: watch-2025-11-25T08.56.40.129456.pcapng: ring/4.0#7 card -> fib6Sync.ipv6FwdUpdateMsg h1 FAILED -7 f0.f1=4 f1.f3=2001:db8:2:: f1.f4=64 f1.f7=9\n
--on failed --where f0=3 --count 1|failed: watch-2025-11-25T08.56.43.123456.pcapng: ring/1.0#4 s -> fib6Sync.tlv h1 FAILED -7 f0=3\n
--on rejected --on f0=7 --count 2|rejected: watch-2025-11-25T08.56.40.135456.pcapng: ring/4.0#13 card <- fib6Sync.ipv6FwdUpdateMsg REJECTED at 0: a buffer has 4 to 2147483647 bytes, not 2\nf0=7: watch-2025-11-25T08.56.49.124456.pcapng: ring/2.0#5 r <- fib6Sync.tlv f0=7\n
--on changes=3 --sent --count 1|changes=3: watch-2025-11-25T08.56.40.132456.pcapng: ring/4.0#10 card 4 -> fib6Sync.ipv6Fwd 2001:db8:1::/48 f1=5 changed 3 times in 0.008000000 s\n
--on changes=2/2ms --on changes=3/7ms --on f0=3 --count 1|f0=3: watch-2025-11-25T08.56.43.123456.pcapng: ring/1.0#4 s -> fib6Sync.tlv h1 FAILED -7 f0=3\n
--on late=50ms --type *.tlv --count 2|late=50ms: watch-2025-11-25T08.56.41.133456.pcapng: ring/1.0#3 s -> fib6Sync.tlv h1 f0=2 received after 0.051000000 s\nlate=50ms: watch-2025-11-25T08.56.49.123456.pcapng: ring/1.0#6 s -> fib6Sync.tlv h1 f0=6 not received\nwatch-2025-11-25T08.56.49.123456.pcapng: 1 more hit\n
END
[ "$(tail -n 1 commands)" = 'late=50ms watch-2025-11-25T08.56.49.123456.pcapng' ] && [ "$(wc -l <commands)" = 8 ] || complain "commands: $(cat commands)"
around() { # around KEEP AFTER: the numbers in the capture of one hit
  rm -f watch-*
  timeout 60 "${quopa[@]}" watch ring --on f0=8 --type '*.tlv' --keep "$1" --after "$2" --count 1 >said
  "${quopa[@]}" trace watch-* --bare | jq -r .f0 | xargs
}
[ "$(around 400ms 10ms) $(around 399ms 9ms) $(around 6400ms 0s)" = '6 7 8 9 9 7 8 3 4 4 6 7 8' ] || complain "around a hit: $(around 400ms 10ms), $(around 399ms 9ms), $(around 6400ms 0s)"
for seconds in 1 5 30; do # to be ready for the end, of which it is told once only
  timeout --foreground --preserve-status $seconds "${quopa[@]}" watch ring --on .size=999 >said && break
done && [ ! -s said ] || complain 'a watch without a hit'
while IFS='|' read -r error arguments; do
  # shellcheck disable=SC2086
  expect 2 '' "^quopa: $error" '' watch ring $arguments
done <<'END'
no rule "reject"; there are rejected, failed,|--on reject
changes=0: a number from 1|--on changes=0
changes=2/x: "x" is no duration|--on changes=2/x
--keep: "x" is no duration|--on failed --keep x
nowhere is no folder|--on failed -o nowhere
END

exit $((failures > 0))
