#!/usr/bin/env bash
# Compares, member by member, what tshark shows of captures with what quopa says: dissector_test.sh QUOPA MAKE_CAPTURE
set -uo pipefail
command -v tshark >/dev/null || { echo 'tshark is not installed: the dissector is not tested'; exit 77; }
. "$(dirname "$0")/expect.sh"
quopa=$1 make_capture=$2
dissect() { tshark -X lua_script:"${script:-quopa.lua}" "$@" 2>errors; }

"$quopa" dissector -o quopa.lua
"$quopa" types --json >types
"$make_capture" 300 good little >good.pcapng
"$make_capture" 2000 spoiled little >spoiled.pcapng

# Every member of every type, and every rejection.
for capture in good:'300 compared, 0 of them rejected, 0 differ, 0 more shown' \
  spoiled:'2000 compared, 1[0-9]{3} of them rejected, 0 differ, 0 more shown'; do
  file=${capture%%:*}.pcapng
  "$quopa" trace "$file" --json --ipv6 >said
  dissect -r "$file" -T json --no-duplicate-keys >shown
  jq -rs --slurpfile types types --slurpfile shown <(jq -c '.[]' shown) -f "$project/tests/quopa/dissector.jq" said >compared
  grep -qE "^${capture#*:}\$" compared || complain "$file: $(head -n 9 compared; head -n 5 errors)"
done

# A prefix finds the same as a display filter and as a condition, in every format of capture files.
editcap -F nsecpcap good.pcapng good.pcap && editcap -T user3 good.pcapng user3.pcapng || complain 'editcap'
"$make_capture" 300 good big >big.pcapng
prefix=$("$quopa" trace good.pcapng --type fib6Sync.ipv6FwdUpdateMsg --bare --ipv6 | jq -r '.f1.f3' | head -n 1)/20
routes() { "$quopa" trace "$1" --json --where "f1.f3=$prefix" --type 'fib6Sync.ipv6Fwd*' | sed 's/^{"capture":"[^"]*",//'; }
routes good.pcapng >wanted
[ -s wanted ] || complain 'no route is found'
for file in good.pcap user3.pcapng big.pcapng; do
  routes $file | cmp - wanted || complain $file
  user=0
  [ $file != user3.pcapng ] || user=3
  found=$(dissect -o quopa.user:$user -r $file -Y "quopa.fib6Sync.ipv6FwdUpdateMsg.f1 && quopa.fib6Sync.ipv6Fwd.f3 == $prefix" | wc -l)
  [ "$found" -eq "$(wc -l <wanted)" ] || complain "$file: $found packets pass the display filter, $(cat errors)"
done

# Labels are shown, and members keep the names that filters have.
printf '[fib6Sync.tlv]\nf0 = kind enum route=7\nf1 = set flags a=1 b=4\n' >labels
"$quopa" dissector --labels labels -o labels.lua
"$quopa" encode fib6Sync.tlv <<<'{"f0":7,"f1":5}' >tlv
# capture_of TYPE: a capture with one message, the bytes on standard input, which failed and lacks its end.
capture_of() {
  head -c 60 good.pcapng
  perl -e '
    my $bytes = join("", <STDIN>);
    my $packet = "QT\1\0" . pack("V7", $ARGV[0], 1, 0, -9, 0, 1, 7) . $bytes;
    print pack("V7", 6, 32 + length($packet), 0, 0, 1, length($packet), length($packet) + 8), $packet, pack("V", 32 + length($packet))
  ' "$(jq -r "select(.type == \"$1\").id" types)"
}
capture_of fib6Sync.tlv <tlv >labelled.pcapng
script=labels.lua dissect -r labelled.pcapng -V -Y 'quopa.fib6Sync.tlv.f0 == 7 && quopa.failed && quopa.cut' >shown
for text in 'kind (f0): route (7)' 'set (f1): 5 (ab)' 'FAILED -9'; do grep -qF "$text" shown || complain "no $text: $(cat shown errors)"; done

# The list says who sent what where, with labels and prefixes, and what the decoder made of it; whoever recorded it is
# known by the notes of the same interface.
killed=$project/examples/data/killed_receiver.pcapng
"$quopa" dissector --labels "$project/examples/routes.labels" -o labels.lua
perl -0777 -pe 's/(QT\x01\x01.{12})\0{4}/$1\xFF\xFF\xFF\xFF/s' "$killed" >given_up.pcapng
"$quopa" encode fib6Sync.ipv6FwdUpdateMsg <<<'{"f1":{"f4":64,"f6":300}}' | capture_of fib6Sync.ipv6FwdUpdateMsg >cut.pcapng
for case in "$killed|24|bus,route_receiver 22850,<- fib6Sync.ipv6FwdUpdateMsg route.destination=2001:db8:103d::/48 header.kind=route .*route.flags=UG " \
  "$killed|7|route_sender 22851,handle 1,-> fib6Sync.ipv6FwdUpdateMsg #1/4 route.destination=2001:db8:1040::/48 " \
  "given_up.pcapng|24|bus,route_receiver 22850,<- fib6Sync.ipv6FwdUpdateMsg DECODER FAILED route" 'good.pcapng|1|?,handle 1,-> ' \
  'cut.pcapng|1|?,handle 1,-> fib6Sync.ipv6FwdUpdateMsg FAILED -9 CUT route.prefix_length=64 route.repetition=300$'; do
  IFS='|' read -r file number wanted <<<"$case"
  script=labels.lua dissect -r "$file" -Y "frame.number == $number" -T fields -E separator=, -e _ws.col.Source -e _ws.col.Destination -e _ws.col.Info >shown
  grep -q "^$wanted" shown || complain "packet $number of $file: $(cat shown errors)"
done
[ "$(dissect -r given_up.pcapng -Y 'quopa.failed && quopa.kind == 1' | wc -l)" -eq 1 ] || complain 'what the decoder gave up is not marked'
# Nobody looks at the tree here, and what is rejected is marked all the same.
dissect -r spoiled.pcapng -Y _ws.expert >shown
[ "$(wc -l <shown)" -eq "$(dissect -r spoiled.pcapng -Y quopa.rejected.at | wc -l)" ] && [ -s shown ] || complain 'rejections are not marked'

exit $((failures > 0))
