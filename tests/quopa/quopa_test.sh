#!/usr/bin/env bash
# Runs quopa as a user does, a line a case: quopa_test.sh QUOPA [ARGUMENT OF AN EMULATOR]...
set -uo pipefail
. "$(dirname "$0")/expect.sh"
quopa=("$@")

param=fib6_cfg.query_comm_param key=fib6Sync.ipv6FwdKey msg=fib6Sync.ipv6FwdUpdateMsg query=fib6_cfg.query_fib6_rec
good='0e000000 0a00 1300 0400 0000 0800\n0a000000 01000000 04000000 03000000 616263\n'
routes=$project/examples/routes.labels

# Good input.
expect 0 '^\{"f0":1,"f1":0,"f2":"616263"\}$' '' "$good" decode $param --hex
expect 0 '^\{"f0":1,' '' "$good" decode 0xCC4E6BC6 - --hex
for dump in "$(printf '%b' "$good" | tr -d ' \n' | sed 's/../&:/g; s/:$//')" "${good/0e00/0e: 00}" \
  '00000000: 0e00 0000 0a00 1300 0400 0000 0800 0a00  ................\n00000010: 0000 0100 0000 0400 0000 0300 0000 6162  ..............ab\n00000020: 63                                       0a\n' \
  '\t0x0000:  0e00 0000 0a00 1300 0400 0000 0800 0a00\n\t0x0010:  0000 0100 0000 0400 0000 0300 0000 6162 63\n'; do
  expect 0 '^\{"f0":1,"f1":0,"f2":"616263"\}$' '' "$dump" decode $param --hex
done
expect 0 '^\{"f0":1,' '' "$good" decode fib6_cfg_query_comm_param --hex
expect 0 '^ +30  61 62 63                 f2 = "abc"$' '' "$good" annotate $param --hex
expect 0 "^$(printf '%b' "$good" | tr -d ' \n')\$" '' '{"f0":1,"f2":[97,98,99]}' encode $param --hex
expect 0 '^04000000f4ffffff0700000000000000080' '' '{"f0":7}' encode fib6Sync.tlv --hex
expect 0 '^0c000000080008000400000008000000070' '' '{"f0":7}' encode fib6Sync.tlv --hex --layout compact
expect 0 '"f2":"2001:db8::1","f3":64,"f4":"0a0b0c"' '' \
  "$(printf '%s' '{"f2":"2001:db8::1","f3":64,"f4":"0A0B0c"}' | "${quopa[@]}" encode $key --hex)" decode $key --hex --ipv6
"${quopa[@]}" encode $msg -o route --labels "$routes" \
  <<<'{"header":{"kind":"route"},"route":{"flags":"UG","destination":"::1","f4":128}}'
expect 0 '"kind":"route".*"flags":"UG","destination":"::1","prefix_length":128' '' '' decode $msg route --labels "$routes"
expect 0 '^ +48 .* route.flags = UG \(0x3\)$' '' '' annotate $msg route --labels "$routes" --color never
expect 0 $'\033\\[32m +48 ' '' '' annotate $msg route --color always
expect 0 '^ +\.\.\.  232 bytes more +--full shows them$' '' "$(printf '{"f2":"%0512d"}' 0 |
  "${quopa[@]}" encode $param --hex)" annotate $param --hex
# What elements share is told once.
"${quopa[@]}" encode korBrokerFib6.nhp6DelMsg --hex <<<'{"f1":[{"f0":1},{"f0":1}]}' | sed 's/0e00000018000000/0e0000000a000000/' >shared
expect 0 '^ +42  01 00 00 00 +f1\[0\].f0 = 1$' '' '' annotate korBrokerFib6.nhp6DelMsg shared --hex
grep -q 'f1\[1\]\.f0' output && complain 'a shared element is told twice'
# Of many elements the first ones, what is wrong with another, and what stands behind them.
{ echo '{"f1":[{}' && seq 40 | sed 's/.*/,{"f0":7}/' && echo ']}'; } | "${quopa[@]}" encode korBrokerFib6.nhp6DelMsg --hex >many
sed 's/$/6162/' many | "${quopa[@]}" annotate korBrokerFib6.nhp6DelMsg --hex >folded
[ "$(grep -oE 'f1\[1[56]\]\.f0 = 7|[0-9]+ bytes more +more elements|nothing points here' folded | xargs)" = \
  '100 bytes more more elements f1[15].f0 = 7 350 bytes more more elements nothing points here' ] || complain "what is folded: $(tail -n 5 folded)"
expect 0 '^ +... .* f1\[40\].f0 = 7$' '' '' annotate korBrokerFib6.nhp6DelMsg many --hex --full
sed 's/07000000$/07/' many >cut
expect 1 '^ +... .* f1\[40\].f0 .*  <-- rejected$' 'rejected at' '' annotate korBrokerFib6.nhp6DelMsg cut --hex
expect 0 '^fib6Sync.tlv, message ID 0x' '' '' types fib6Sync.tlv
expect 0 '^\{"type":"fib6_cfg.query_comm_param".*"record_size":\[16,24\]' '' '' types fib6_cfg --json
expect 0 '^[0-9]+ types, no difference$' '' '' types --check "$project/describe/baseline.schema"
"${quopa[@]}" types --schema | cmp - "$project/describe/baseline.schema" || complain 'describe/baseline.schema is not what the types are'
expect 0 '"scalar", 4, 0, nil, name = "metric"' '' '' dissector --labels "$routes"
expect 1 '' '^quopa: output/none: ' '' dissector -o output/none
expect 0 '^quopa [0-9.]+$' '' '' --version
for command in types decode encode annotate trace stats compare table history diff replay dissector; do
  expect 0 '^Examples:$' '' '' $command --help
  grep -E '.{81}|Excludes|Needs' output && complain "the help of $command"
done

# What the shells ask: CANDIDATES|WORD|WORD...
while IFS='|' read -r wanted words; do
  IFS='|' read -ra words <<<"$words|"
  expect 0 "$wanted" '' '' __complete "${words[@]}"
done <<END
^fib6Sync.ipv6FwdDelMsg$|decode|fib6Sync.ipv6
^annotate$|
^fib6Sync.tlv$|trace|a.pcapng|--type|fib6Sync.t
^--type=fib6Sync.tlv$|trace|--type=fib6Sync.t
^fixed$|encode|$param|--layout|
^--labels$|encode|$param|--la
^:files$|decode|$param|
^:files$|annotate|trace.pcapng#
^:files$|trace|--labels=$routes
^:files$|compare|a|b
^:files$|compare|a|b|c
|encode|x.json
|trace|a|--count|
^f1\\.$|trace|a|--type|$msg|--where|f
^f1\\.f13=$|trace|a|--type=$msg|--where|f1.
^route\\.prefix_length=$|trace|a|--type|$msg|--labels|$routes|--where|route.
^\\.size=$|stats|a|--where|.
END
expect 0 '*' '' '' __complete trace a --type $msg --where f
[ "$(cat output)" = $'f0.\nf1.' ] || complain "members of another type: $(cat output)"

# Rejected buffers: what was decoded before, the decoder's line if it has one, position and reason.
reject() { expect 1 "$1" "$2" "${good/$3/$4}" "${@:5}" $param --hex; }
reject '^\{\}$' '^\[QUOPA\]:Table offset\(2\) is out of range\(4 - 33\) \(fib6_cfg_query_comm_param_unpack' 0e0 020 decode
reject '^\{\}$' 'input: rejected at 0: the root offset leads to 2, where no table fits$' 0e0 020 decode
reject '^\{\}$' 'rejected at 14: the distance of the root table puts its vtable at 4294967055, ' 0a000000 ff000000 decode
reject '^\{"f0":1,"f1":0\}$' 'at 26: f2 has a count of 4 and would end at 34, past the end at 33 \(not logged\)$' 03000000 04000000 decode
reject '^ +26  04 00 00 00 +f2: length 4  <-- rejected$' '^quopa: standard input: rejected at 26' 03000000 04000000 annotate
expect 1 '^\{\}$' 'a buffer has 4 to 2147483647 bytes, not 0' '' decode $param
expect 1 ',"f43":\[0,0,0,0\]\}\]\}$' 'rejected at 920: f1\[1\].f44 has a count of 4 and .*\(not logged\)$' \
  "$(printf '{"f1":[{},{"f45":1}]}' | "${quopa[@]}" encode $query --hex | sed 's/..$//')" decode $query --hex

# Bad input: one line, with the place.
for case in '{"f9":1}|f9: fib6Sync.ipv6FwdKey has no such member' \
  '{"f3":256}|f3: a whole number from 0 to 255 is wanted, not 256' '{"f3":-1}|f3: a whole' '{"f3":1.5}|f3: a whole' \
  '{"f0":"x"}|f0: a whole' '{"f2":[1,2]}|f2: 4 elements are wanted, not 2' '{"f2":[1,2,3,-4]}|f2\[3\]: a whole' \
  '{"f2":"fe80::%1"}|f2: "fe80::%1" is no IPv6 address' '{"f2":"::1\\u0000"}|f2: "::1.u0000" is no' '{"f4":"0a0b"}|f4: 3 bytes are wanted, not 2' \
  '{"f4":"0a0b0"}|f4: "0a0b0" is not pairs' '{"f2":1}|f2: an IPv6 address or an array' '[]|the record: an object is' \
  '{"f0":1,"f0":2}|"f0": given twice' '{"f0":1,\n"f1" 2}|parse error at line 2, column ' '[[[[[|the record: nested too deep' \
  '{"f0":1}}|parse error at line 1, column 9' '\0377|parse error' '{"f0":1e999}|number overflow'; do
  expect 1 '' "^quopa: standard input: ${case#*|}" "${case%%|*}" encode $key --hex
done
expect 1 '' 'input: f1\[1\].f45: a whole number' '{"f1":[{},{"f45":true}]}' encode $query --hex
expect 1 '' 'input: route.flags: "UX" has a letter without a label$' '{"route":{"flags":"UX"}}' encode $msg --hex --labels "$routes"
expect 1 '' 'input: f1.flags: given twice, as f2 and by label$' '{"f1":{"flags":"U","f2":1}}' encode $msg --hex --labels "$routes"
expect 1 '' '^quopa: standard input:2:3: pairs of hexadecimal digits are wanted$' '00\n00x' decode $param --hex
expect 1 '' '^quopa: standard input:1:2: pairs' '0 0' decode $param --hex
expect 1 '' '^quopa: standard input:1:3: pairs' '00\000' decode $param --hex
expect 1 '' '^quopa: standard input:1:4: pairs' '000' decode $param --hex
expect 1 '' '^quopa: standard input:1:4: pairs' '00::00' decode $param --hex
expect 1 '' '^quopa: missing: No such file or directory$' '' decode $param missing
expect 1 '' '^quopa: /dev/zero: longer than 16 MiB$' '' annotate $param /dev/zero
printf '\xEF\xBB\xBF[%s]\nf0 = first' $key >marked.labels
expect 0 '"first":7' '' "$("${quopa[@]}" encode $key --hex --labels marked.labels <<<'{"first":7}')" decode $key --hex --labels marked.labels
expect 1 '' 'frist: fib6Sync.ipv6FwdKey has no such member; did you mean "first"\?$' '{"frist":7}' encode $key --hex --labels marked.labels
printf '[%s]' fib6Sync.ipv6FwdKye >bad.labels
expect 1 '' '^quopa: bad.labels:1: no type "fib6Sync.ipv6FwdKye"; did you mean "fib6Sync.ipv6FwdKey"\?$' '' decode $key --labels bad.labels
printf '%b' "[$key]\nf0 = a\nf1 = a" >bad.labels
expect 1 '' '^quopa: bad.labels:3: "a" is a member already$' '' decode $key --labels bad.labels
sed 's/ u8@24 / u16@24 /; $d' "$project/describe/baseline.schema" >old.schema
expect 1 '^fib6Sync.ipv6FwdKey slot 3: u16 became u8: wire incompatible: peers read a wrong value$' '' '' types --check old.schema
expect 1 '' '^quopa: standard input:1: "# quopa schema 1" is wanted$' 'x' types --check -
expect 1 '' '^quopa: standard input:2: slot 1: an array of u8 or u32 is wanted at "2\]@0"$' \
  '# quopa schema 1\np.m 0x1 variable compact=8.. record=8 u8@0 u16[2]@0\n' types --check -
expect 1 '' '^quopa: output/none: ' '{}' encode $param -o output/none

# Nothing that a terminal would obey comes back, whoever wrote it, and nothing without end.
escape=$'\e[31m' shown='\\x1b\[31m'
printf '%s' "[$key]"$'\n'"f0 = $escape" >bad.labels
expect 1 '' "^quopa: none$shown: No such file" '' decode $key "none$escape"
expect 1 '' "^quopa: bad.labels:2: \"$shown\" is no name$" '' decode $key --labels bad.labels
expect 1 '' "^quopa: standard input: f0.$shown: fib6Sync.tlv has no" '{"f0":{"\\u001b[31m":1}}' encode $msg --hex
expect 1 '' "^quopa: standard input:2: .* is wanted at \".*$shown\"$" "# quopa schema 1\np.m$escape" types --check -
expect 1 '' '^quopa: standard input: parse error' "{\"f0\": \"$escape\x9b\xc2\x9b\"}" encode $key --hex
expect 2 '' "^quopa: no type \"$shown\"" '' decode "$escape"
cp /dev/null "empty$escape" && expect 1 '*' "^quopa: empty$shown: rejected at 0" '' decode $param "empty$escape"
expect 1 '' '^quopa: standard input: x{37}\.\.\.: fib6Sync.* no such member$' "{\"$(printf '%05000d' 0 | tr 0 x)\":1}" encode $key --hex

# A second for a million elements and for 300,000 words, as long as either takes time in proportion; and a file of any size.
{ echo '{"f1":[{}' && seq 999999 | sed 's/.*/,{}/' && echo ']}'; } >many.json
expect 0 '' '' '' encode korBrokerFib6.nhp6DelMsg many.json -o many
{ printf '[%s]\nf0 = a enum' $key && seq 300000 | sed 's/.*/ w&=&/' | tr -d '\n' && echo ' w2=2'; } >many.labels
expect 1 '' '^quopa: many.labels:2: "w2=2" is there already$' '' decode $key --labels many.labels
truncate -s 3G large && expect 1 '' '^quopa: large: longer than 16 MiB$' '' decode $param large

# Wrong usage.
expect 2 '' '^quopa: A subcommand is required$' ''
expect 2 '' '^quopa: no type "tlv"; did you mean "fib6Sync.tlv"\?$' '' decode tlv
expect 2 '' '^quopa: no type "fib6_cfg.query_dfx_ke"; did you mean "fib6_cfg.query_dfx_key"\?$' '' decode fib6_cfg.query_dfx_ke
expect 2 '' '^quopa: no type "fib6Sync.nhp6Zzzz"; "quopa types" lists them$' '' encode fib6Sync.nhp6Zzzz
expect 2 '' '^quopa: no command "annotaet"; did you mean "annotate"\?$' '' annotaet x
expect 2 '' '^quopa: no command "x"; "quopa --help" lists them$' '' x
expect 2 '' '^quopa: .*--josn; did you mean "--json"\?$' '' types --josn
expect 2 '' '^quopa: fib6_cfg.query_comm_param has variable length, so there is no fixed layout' '{}' encode $param --hex --layout fixed
expect 2 '' '^quopa: .*--layout' '' encode $param --layout other
expect 2 '' '^quopa: no package or type "nothing"' '' types nothing
expect 2 '' '^quopa: .*excludes[^?]*$' '' types --json --schema

# A closed pipe ends it quietly, a full disk does not; nothing is wider than a terminal, shown of one type in twelve,
# for a start takes its time under sanitizers and in emulators.
"${quopa[@]}" types --schema 2>errors | head -n 1 >output
[ ! -s errors ] || complain 'a closed pipe is not quiet'
"${quopa[@]}" types >/dev/full 2>errors && complain 'a full disk is not noticed'
for type in $("${quopa[@]}" types | awk 'NR % 12 == 6 { print $1 }'); do
  "${quopa[@]}" encode "$type" <<<'{}' | "${quopa[@]}" annotate "$type" | grep -E '.{81}' && complain "$type: wide lines"
done

exit $((failures > 0))
