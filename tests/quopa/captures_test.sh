#!/usr/bin/env bash
# Has quopa read captures, good and bad ones: captures_test.sh QUOPA MAKE_CAPTURE
set -uo pipefail
. "$(dirname "$0")/expect.sh"
cp "$project/examples/routes.labels" . # without a blank in its path
quopa=("$1") make_capture=$2
show() { "${quopa[@]}" trace "$@"; }
# Without what tells one capture from another with the same messages.
json() { show "$@" --json | sed -E 's/"capture":"[^"]*","packet":[0-9]+,//'; }
same() { # same WHAT: two files of that name and .wanted
  cmp "$1" "$1.wanted" || complain "$1: $(diff "$1" "$1.wanted" | head -n 4)"
}

"$make_capture" 3000 good little >good.pcapng
"$make_capture" 3000 good big >big.pcapng
"$make_capture" 3000 spoiled little >spoiled.pcapng
json good.pcapng >said.wanted

# The same whatever the byte order, through a pipe, written anew, and put together again from two files in a folder.
json big.pcapng >said; same said
json - <good.pcapng >said; same said
show good.pcapng -w - | json - >said; same said
mkdir parts && : >parts/b.pcapng
show good.pcapng --sent -w parts/b.pcapng
show good.pcapng --received -w parts/a.pcap
json parts >said
same said
[ "$(wc -l <said)" -eq 3000 ] || complain 'messages are missing'

# Each line leads to its packet, and has its bytes.
show good.pcapng --bare >records
show good.pcapng --json --bytes >packets
jq -r '.packet, .type, .bytes' packets | awk '(NR - 1) % 2100 < 3' | while read -r packet && read -r type && read -r bytes; do
  sed -n "${packet}p" records | tee line | cmp - <("${quopa[@]}" decode good.pcapng#"$packet") && cmp line <("${quopa[@]}" decode "$type" --hex <<<"$bytes") || echo "$packet"
done >unlike
[ ! -s unlike ] || complain "packets are not what their lines show: $(cat unlike)"

# Conditions find what jq finds: TYPE|TERM|CONDITION.
show good.pcapng --json --ipv6 >addresses
update=fib6Sync.ipv6FwdUpdateMsg
for case in "$update|f1.f4<=7|.f1.f4 <= 7" "$update|f1.f4!=0|.f1.f4 != 0" "$update|f1.f0>=0x100|.f1.f0 >= 256" "$update|f1.f0<9|.f1.f0 < 9" \
  "$update|f1.f3>1000::|.f1.f3 | test(\"^[1-9a-f]...:\")" "$update|f1.f3=::/16|.f1.f3 | test(\"^(::|0:)\")" "$update|f1.f3!=::/0|false" \
  "$update|f1.f3=::/12|.f1.f3 | test(\"^(::|[0-9a-f]:)\")" "$update|f1.f3=::|.f1.f3 == \"::\"" \
  'fib6Sync.svcCtxMsg|f1>0x10000000|any(.f1[]; . > 268435456)' 'fib6_cfg.query_fib6_rec|f1.f0>100|any(.f1[]; .f0 > 100)' \
  'fib6_cfg.query_fib6_rec|f1.f45=0|any(.f1[]; .f45 == 0)' 'fib6_cfg.query_comm_param|f2=|.f2 == ""' \
  'fib6_cfg.query_comm_param|f2>=05|.f2 >= "05"' 'fib6Sync.ipv6FwdKey|f4!=000000|.f4 != "000000"'; do
  IFS='|' read -r type term condition <<<"$case"
  jq -c "select(.type == \"$type\").record | select($condition)" addresses >found.wanted
  show good.pcapng --type "$type" --bare --ipv6 --where "$term" | jq -c . >found; same found
  [ -s found.wanted ] || [ "$condition" = false ] || complain "$term: finds nothing"
done
# In one element, or each in any; and the line has what was found, zeros too.
rec=fib6_cfg.query_fib6_rec
for case in '.f4 >= 100 and .f45 == 0' 'any:any(.f1[]; .f4 >= 100) and any(.f1[]; .f45 == 0)'; do
  [[ $case == any:* ]] && option=--any-element condition=${case#any:} || option='' condition="any(.f1[]; $case)"
  jq -c "select(.type == \"$rec\") | select(.record | $condition).packet" packets >found.wanted
  # shellcheck disable=SC2086
  show good.pcapng $option --where 'f1.f4>=100' --where f1.f45=0 >lines
  grep -oE '^#[0-9]+' lines | tr -d '#' >found; same found
  [ "$(grep -E ' f1\[[0-9]+\]\.f4=[0-9]{3,}' lines | grep -cE ' f1\[[0-9]+\]\.f45=0( |$)')" = "$(wc -l <found)" ] || complain "what was found is not in the line ($option)"
  [ -n "$option" ] || ! grep -oE '\.\.\. f1\[.* more$' lines | grep -vE '^\.\.\. f1\[([0-9]+)\]\.(f4=[0-9]+ \.\.\. f1\[\1\]\.)?f45=0 \.\.\. more$' ||
    complain 'what was not found is in the line'
done
printf '[%s]\nf1 = route\n[fib6Sync.ipv6Fwd]\nf4 = length enum host=128\nf3 = destination ipv6\n' $update >labels
jq -c 'select(.type == "'$update'" and .record.f1.f4 == 128) | .time' said >found.wanted
show good.pcapng --json --labels labels --where route.length=host | jq -c 'select(.record.route.length == "host") | .time' >found; same found

# What became of messages.
jq -c 'select(.direction == "sent") | .length' said | jq -s add >sum.wanted
"${quopa[@]}" stats good.pcapng --json | jq 'select(.direction == "sent") | .bytes' | jq -s add >sum; same sum
show spoiled.pcapng --json | jq -s 'map(select(.rejected)) | length' >count.wanted
show spoiled.pcapng --rejected | wc -l >count; same count
"${quopa[@]}" stats spoiled.pcapng | awk '$1 == "total" {print $6}' >count; same count
# What was not decoded holds nothing.
show spoiled.pcapng --json --rejected --where 'f1.f4>=0' >found
jq -e -s 'length > 0 and all(.record.f1 | if type == "array" then any(.[]; has("f4")) else has("f4") end)' found >/dev/null || complain 'undecoded members are found'

# Types of another version: a capture brings its own schema. Labels go with the members that stayed.
show good.pcapng -w own.pcapng && sed 's/^\(fib6Sync.tlv .*\) u32@0 /\1 u16@0 /' own.pcapng >other.pcapng
jq -c 'select(.type == "fib6Sync.tlv").record | .f0 %= 65536 | {f0, second: .f1}' said >found.wanted
printf '[fib6Sync.tlv]\nf0 = first\nf1 = second\n' >labels
show other.pcapng --bare --type fib6Sync.tlv --labels labels >found; same found
jq -c 'select(.type == "'$update'").record | .f0.f0 %= 65536' said >found.wanted
show other.pcapng --bare --type $update >found; same found
show other.pcapng -w - | show - --bare --type $update >found; same found

# What is compressed, or fits nothing that there is, is told how to be had.
printf '\x1f\x8b\x08\0\0\0\0\0' >good.gz
expect 1 '' '^quopa: good.gz: no capture file: compressed by gzip; zcat FILE ' '' trace good.gz
show good.pcapng --type $update -w updates.pcapng
while IFS='|' read -r status terms line; do
  # shellcheck disable=SC2086
  expect "$status" '' "^quopa: --where $line\$" '' trace "$([ "$status" = 0 ] && echo updates || echo good).pcapng" $terms
done <<END
0|--where f3=2001:db8::/32|fits no message: $update has no member "f3"; it has f0 to f1; did you mean "f1.f3" of $update\?
0|--where f2.f0=1 --where f1.f3=1|fits no message: $update has no member "f2"; it has f0 to f1; did you mean "f0.f0" of $update\?
2|--where rout.flags=U --labels routes.labels|$update has no member "rout"; did you mean "route"\?
2|--where route.falgs=U --labels routes.labels|fib6Sync.ipv6Fwd has no member "falgs"; did you mean "flags"\?
2|--where route.flags=U|.* has no member "route"; it has f0 to f[0-9]+, and no labels give these other names
2|--where header.kind=rout --labels routes.labels|header.kind=rout: "rout" is no number; did you mean "route"\?
2|--where zzz=1 --type $update --labels routes.labels|$update has no member "zzz"; it has f0 to f1
2|--where .sise=1|no ".sise"; did you mean ".size"\?
2|--where .x=1|no ".x"; messages have .time .program .status .process .*
2|--where .time>x|.time>x: "x" is no time; like .*
2|--where .status<failed|.status<failed: .status goes with = and != only
2|--where .packet=two|.packet=two: "two" is no number
END

# Bad captures: what can be read, one line, status 1.
seq 50 >noise.pcapng
head -c 100000 good.pcapng >cut.pcapng
schemas=0
for case in 'fixed=72|u99[4]|line ' 'u32@0|xxx@0|line ' 'table(tlv)|table(tlw)|line [0-9]+ of the schema: slot 0: fib6Sync.tlw is missing' \
  'u32[4]@8|u16[4]@8|line [0-9]+ of the schema: slot 2: an array of u8 or u32' $'fixed=72|\e[2J\x9b|line .* is wanted at .*\\\\x1b\\[2J\\\\x9b' '# quopa|# quota|line 1 of the schema'; do
  name=schema$((schemas += 1))
  rest=${case#*|}
  FROM=${case%%|*} TO=${rest%%|*} perl -0777 -pe 's/\Q$ENV{FROM}\E/substr($ENV{TO} . " " x 9, 0, length $ENV{FROM})/e' own.pcapng >$name.pcapng
  expect 1 '' "^quopa: $name.pcapng: packet 2: ${rest#*|}" '' trace $name.pcapng
done
mkdir folder bad
expect 1 '' '^quopa: folder: no \*.pcapng or \*.pcap in this folder' '' trace folder
expect 1 '1500 not received' '^quopa: noise.pcapng: no capture file: neither pcap nor pcapng$' '' compare good.pcapng noise.pcapng
mv noise.pcapng cut.pcapng bad
json bad >output 2>errors
[ $? -eq 1 ] && [ "$(wc -l <errors)" -eq 2 ] && head -n "$(wc -l <output)" said.wanted | cmp - output || complain "what is bad: $(cat errors)"
while IFS= read -r line; do grep -qE "^quopa: bad/$line" errors || complain "no line $line: $(cat errors)"; done <<'END'
noise.pcapng: no capture file: neither pcap nor pcapng$
cut.pcapng: damaged behind packet [0-9]+, at byte [0-9]+: it ends in the middle of a block$
END

# Wrong usage.
for case in '--where f1|"f1" is not MEMBER=VALUE' '--where f99=1|.* has no member "f99"; it has f0 to f[0-9]+$' '--where f1=1 --type fib6Sync.ipv6Fwd*Msg|"f1" of .*; name a member, as in f1.f0' \
  '--where f1.f3=fe80::/129|f1.f3=fe80::/129: a prefix has a length of 0 to 128' '--where f1.f3<fe80::/10|.*: a prefix goes with = and != only' \
  '--type nothing.*|no type matches "nothing.\*"; "quopa types"' '--type fib6Sync.tlb|no type matches "fib6Sync.tlb"; did you mean "fib6Sync.tlv"' '--sent --received|.*excludes' '--json -w x|.*excludes' '-w good.pcapng|good.pcapng is read' '-f|good.pcapng: not a file that the recorder'; do
  # shellcheck disable=SC2086
  expect $([[ $case == -f* ]] && echo 1 || echo 2) '' "^quopa: (--where )?${case#*|}" '' trace good.pcapng ${case%%|*}
done

# What is read is not written, by whatever name: PATHS|OUTPUT. Standard input and output are kept.pcapng.
cp good.pcapng kept.pcapng && ln -s kept.pcapng link.pcapng && mkdir linked ring && ln kept.pcapng linked/hard.pcapng
cp good.pcapng ring/quopa-x-1.0.pcapng && ln -s ring/quopa-x-1.0.pcapng ring.pcapng
for case in '-|kept.pcapng' '-|link.pcapng' '-|-' 'kept.pcapng|link.pcapng' 'linked|kept.pcapng' 'linked|-' 'ring -f|ring/quopa-x-1.1.pcapng' \
  'ring/quopa-x-1.0.pcapng -f|ring/quopa-x-2.0.pcapng' 'ring -f|ring.pcapng'; do
  # shellcheck disable=SC2086
  timeout 60 "${quopa[@]}" trace ${case%|*} -w "${case#*|}" <kept.pcapng >>kept.pcapng 2>errors
  [ $? -eq 2 ] && grep -q ' is read, so it cannot be written$' errors && cmp kept.pcapng good.pcapng || complain "-w $case: $(cat errors)"
done
[ "$(echo linked/* ring/*)" = 'linked/hard.pcapng ring/quopa-x-1.0.pcapng' ] || complain "-w leaves $(echo linked/* ring/*)"
# But a folder may get a new one.
mkdir enlarged && cp good.pcapng enlarged && show enlarged -w enlarged/out.pcapng && json enlarged/out.pcapng >said && cmp said said.wanted || complain 'a new file in the folder that is read'
show folder -w folder/out.pcapng 2>errors && complain 'an empty folder is read'
[ -z "$(ls folder)" ] || complain "a failure leaves $(ls folder)"
# What is read twice is no pipe.
mkdir pipes && mkfifo pipes/pipe.pcapng
for paths in 'good.pcapng -' '- good.pcapng' - 'good.pcapng pipes/pipe.pcapng' 'pipes good.pcapng'; do
  # shellcheck disable=SC2086
  expect 2 '' '^quopa: (standard input|pipes/pipe.pcapng): is compared, so it must be a file' '' compare $paths
done
expect 2 '' '--speed is a factor' '' replay good.pcapng --to x --speed 0
expect 1 '' 'libc.so.6: not the stand-in bus' '' replay good.pcapng --to x --bus libc.so.6

exit $((failures > 0))
