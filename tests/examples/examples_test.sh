#!/usr/bin/env bash
# Runs the example processes and the demo as a user does: examples_test.sh GROUP BINARIES SPOILING_BINARIES
# shellcheck disable=SC2030,SC2031 # rounds that run in parallel have folders of their own
set -uo pipefail
group=$1 binaries=$2 spoiling_binaries=$3
project=$(realpath "$(dirname "$0")/../..")
sample=$project/examples/data/ipv6_route.sample
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
endpoint=ipc://$work/test.ipc
failures=0

complain() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# expect STATUS OUTPUT ERRORS COMMAND...: the status, and a line that matches in standard output and in standard error;
# an empty pattern stands for no output at all, * for any or none.
expect() {
  local status=$1 output=$2 errors=$3 got=0
  shift 3
  timeout 60 "$@" >"$work/output" 2>"$work/errors" || got=$?
  if [ $got -ne "$status" ] || ! matches "$output" output || ! matches "$errors" errors; then
    complain "$* (status $got)"
    tail -n 5 "$work/output" "$work/errors"
  fi
}
matches() {
  case $1 in
    '') [ ! -s "$work/$2" ] ;;
    '*') true ;;
    *) grep -qE -- "$1" "$work/$2" ;;
  esac
}

count() { grep -cE -- "$1" "$work/output"; }
one_error_line() { [ "$(wc -l <"$work/errors")" -eq 1 ] || complain "not one line on standard error: $*"; }

demo=("$project/scripts/demo.sh" --binaries "$binaries")
clean='^0 missing, 0 repeated, 0 differing, 0 logged by the decoder, 0 not delivered$'
row=' (eth|wg|lo)[0-9.]* +[0-9]+ [UGHDAnl!]+$'

# in_parallel COMMAND...: the command with each line of standard input as further arguments, all at once, each with a
# folder and an endpoint of its own.
in_parallel() {
  local each=() arguments
  while read -ra arguments; do
    (
      failures=0 work=$work/${#each[@]}
      endpoint=ipc://$work/test.ipc
      mkdir "$work"
      trap 'kill $(jobs -p) 2>/dev/null' EXIT
      "$@" "${arguments[@]}"
      exit $failures
    ) </dev/null &
    each+=($!)
  done
  for arguments in "${each[@]}"; do wait "$arguments" || failures=$((failures + 1)); done
}

# spoiled PROGRAMS OPTION SPOIL AT OUTPUT...: the demo fails on a way to spoil a message, which has this number, from 0,
# or is the first of this name, and says so.
spoiled() {
  ln -s "$binaries/$1_receiver" "$work/$1_receiver"
  ln -s "$spoiling_binaries/spoiling_$1_sender" "$work/$1_sender"
  # shellcheck disable=SC2086 # several options
  expect 1 "^${*:5}" '_receiver: the s|^demo.sh: the receiver' env "SPOIL=$3" "SPOIL_AT=$4" \
    "${demo[0]}" --binaries "$work" --timeout 50 $2
}

case $group in
  quick_start)
    expect 0 '^received 6 254 vrf-red$' '' "$binaries/quick_start"
    expect 0 '^received 7 255 vrf$' '' "$binaries/quick_start_cpp"
    [ "$(count '^(decoded|received) 6 254 vrf-red$')" -eq 2 ] || complain 'not decoded and received alike'
    ;;

  demo)
    "$project/examples/data/make_sample.sh" | cmp - "$sample" || complain "the sample is not what its script makes"
    expect 0 "$clean" '*' "${demo[@]}"
    expect 0 "$clean" '*' "${demo[@]}" --file "$sample"
    expect 0 "$clean" '*' "${demo[@]}" --sample
    [ "$(count '.{81}')" -eq 0 ] || complain "wider than 80 columns"
    [ "$(count "$row")" -eq "$(wc -l <"$sample")" ] || complain "a row per route"
    while read -r destination next_hop interface metric flags; do
      [ "$(count "^$destination +$next_hop +$interface +$metric $flags\$")" -eq 1 ] || complain "no row for $destination"
    done <<-'ROWS'
	2001:db8:1078::/48 2001:db8:0:2::178 eth2.101 1024 UG
	2001:db8:1078::/48 fe80::278 eth2.102 2048 UG
	2001:db8:0:1::a004/128 fe80::4 eth1 1024 UGHD
	fd00:18::/48 fd00:0:a::18 wg0 50 UG
	::/0 fe80::2 eth1 2048 UGA
	::/0 :: lo 4294967295 n!
	::1/128 :: lo 0 Unl
	ROWS
    expect 0 '^received 26700 routes ' '*' "${demo[@]}" --sample --repeat 100 --batch 7
    [ "$(count "$row")" -eq "$(wc -l <"$sample")" ] || complain "rows of the first pass only"
    expect 0 '^sent 267 routes .* all acknowledged$' '*' "${demo[@]}" --sample --quiet
    [ "$(count "$row")" -eq 0 ] || complain "no rows when quiet"
    expect 1 '*' '^route_sender: --batch' "${demo[@]}" --batch 0
    one_error_line "a wrong number"
    expect 141 '' '' bash -c 'exec 3> >(:); wait $!; "$@" >&3' cut_off "${demo[@]}" --sample
    while read -r options; do
      # shellcheck disable=SC2086 # several options
      expect 2 '' '^demo.sh: ' "${demo[@]}" $options
      one_error_line "$options"
    done <<-'OPTIONS'
	--no-such-option
	--file
	--soak --quiet
	--soak 1 --batch 7
	--seed 7
	--loss 2
	--cluster 0
	--cluster 2 --soak 1
	OPTIONS
    ;;

  live) # a table of a kernel's, through the death of everybody and lost events
    expect 0 '^live: (all tables equal to the kernel|not shown)' '*' "$project/scripts/lib/live.sh" many "$binaries" 2000 1 ip
    [ "$(count '^live: (not shown|the sender: .* [1-9][0-9]* losses)')" -eq 1 ] || complain "no event was lost"
    [ "$(count '^live: (not shown|receiver1: .* [0-5] silences)')" -eq 1 ] || complain "no word from a sender that lives"
    while read -r program options; do
      # shellcheck disable=SC2086 # several options
      expect 1 '' "^$program: cannot receive" "$binaries/$program" $options
    done <<-OPTIONS
	route_sender --follow --requests ipc://$work/none/r
	route_receiver --keep --endpoint ipc://$work/none/r
	OPTIONS
    ;;

  spoiled) # one message of 12 interfaces, 267 routes and the end
    in_parallel spoiled route '--sample --quiet' <<-'CASES'
	drop 100 1 missing, 0 repeated, 0 differing, 0 logged
	drop 5 1 missing, 0 repeated, 0 differing, 0 logged
	drop 278 1 missing, 0 repeated, 0 differing, 0 logged
	drop 279 0 missing, 0 repeated, 0 differing, 0 logged
	repeat 100 0 missing, 1 repeated, 0 differing, 0 logged
	swap 100 1 missing, 1 repeated, 0 differing, 0 logged
	alter 100 0 missing, 0 repeated, 1 differing, 0 logged
	truncate 100 1 missing, 0 repeated, 1 differing, 1 logged
	CASES
    ;;

  soak)
    expect 0 '^sent [1-9][0-9]* records in .* all acknowledged$' '*' "${demo[@]}" --soak 1
    for line in "$clean" '^received of '{fib6_cfg,korBrokerFib6,fib6Sync}': [1-9][0-9]* records in '; do
      [ "$(count "$line")" -eq 1 ] || complain "no line $line"
    done
    in_parallel spoiled soak '--soak 1' <<-'CASES'
	drop fib6Sync.ipv6FwdUpdateMsg 1 missing, 0 repeated, 0 differing, 0 logged
	repeat fib6Sync.ipv6FwdUpdateMsg 0 missing, 1 repeated, 0 differing, 0 logged
	repeat fib6Sync.ipv6FwdUpdateMsg fib6Sync.ipv6FwdUpdateMsg is out of turn, round 1 of seed
	alter fib6Sync.ipv6FwdUpdateMsg 0 missing, 0 repeated, 1 differing, 0 logged
	alter fib6Sync.ipv6FwdUpdateMsg fib6Sync.ipv6FwdUpdateMsg differs in f1.f3, round 1 of seed
	truncate fib6Sync.ipv6FwdUpdateMsg 0 missing, 0 repeated, 1 differing, 1 logged
	CASES
    expect 1 '*' '^soak_sender: --seconds' "${demo[@]}" --soak 0
    ;;

  bad_input) # with names that hold no blanks, wherever the project stands
    cd "$work" || exit 1
    cp "$sample" sample
    while IFS='|' read -r spoil reason; do
      sed -E "3$spoil" "$sample" >routes
      expect 1 '' "^route_sender: routes:3: $reason" "$binaries/route_sender" --endpoint "$endpoint" --file routes
      one_error_line "$spoil"
    done <<-'CASES'
	s/^fd/d/|fewer than 8 hexadecimal digits
	s/^fd/0x/|fewer than 8 hexadecimal digits
	s/ 40 / +4 /|fewer than 2 hexadecimal digits
	s/ 40 / 400 /|no blank
	s/ 40 / 81 /|prefix longer than 128 bits
	s/ 00 / 40 /|a route for one source prefix only
	s/ +eth0//|no blank
	s/eth0//|not an interface name
	s/eth0/&234567890abcdef/|not an interface name
	s/eth0/& up/|not an interface name
	s/.*//|fewer than 8 hexadecimal digits
	CASES
    head -c -1 sample >cut
    : >empty
    while IFS='|' read -r status options reason; do
      # shellcheck disable=SC2086 # several options
      expect "$status" '' "^route_sender: $reason" "$binaries/route_sender" --endpoint "$endpoint" $options
      one_error_line "$options"
    done <<-'CASES'
	1|--file cut|cut:267: the line is cut off
	1|--file empty|empty: holds no routes
	1|--file none|none: No such file
	1|--file .|.: cannot be read
	1|--file sample --repeat 4294967295|--repeat: a stream has at most
	1|--file sample --timeout 1|cannot send, .* no receiver
	2|--repeat 0|--repeat: 
	2|--repeat=4294967296|--repeat: 
	2|--repeat -1|--repeat: 
	2|--repeat 2x|--repeat: 
	2|--repeat|--repeat needs a value
	2|--no-such-option|.*--no-such-option
	2|sample|.*sample
	CASES
    expect 1 '' '^route_receiver: cannot receive at ' "$binaries/route_receiver" --endpoint "ipc://$work/none/test.ipc"
    one_error_line "endpoint that cannot be bound"
    ;;

  stopped) # the receiver goes away in the middle of a stream
    stop() { # SIGNAL RECEIVER_STATUS LINES_OF_THE_SUMMARY
      "$binaries/route_receiver" --endpoint "$endpoint" >"$work/summary" 2>&1 &
      local receiver=$!
      # When it has bound its endpoint, a sender need not wait for it; when it has shown routes, it receives.
      until [ -S "$work/test.ipc" ] || ! kill -0 $receiver; do sleep 0.02; done
      (until [ -s "$work/summary" ] || ! kill -0 $receiver; do sleep 0.02; done; kill "-$1" $receiver) &
      expect 1 '' '^route_sender: .*messages undelivered' "$binaries/route_sender" --endpoint "$endpoint" \
        --file "$sample" --repeat 1000000 --timeout 1
      wait $receiver
      [ $? -eq "$2" ] || complain "status of the receiver after $1"
      [ "$(grep -c 'before the end of the stream\|^received [1-9]' "$work/summary")" -eq "$3" ] ||
        complain "summary after $1: $(tail -n 3 "$work/summary")"
    }
    in_parallel stop <<-'ROUNDS'
	TERM 1 2
	INT 1 2
	KILL 137 0
	ROUNDS
    ;;
esac
[ $failures -eq 0 ]
