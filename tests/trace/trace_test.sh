#!/usr/bin/env bash
# Traces real processes and reads what they leave: trace_test.sh GROUP LIBRARY TRACED WALKER [EMULATOR...]
set -uo pipefail
group=$1 library=$2 traced=$3 walker=$4
emulator=("${@:5}")
work=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0
# The loader takes a blank in the list of what it is to load first for the end of a name.
ln -s "$library" recorder.so
library=$work/recorder.so
# The recorder comes before a sanitizer's own library, which does no harm here.
export ASAN_OPTIONS=verify_asan_link_order=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}

complain() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# run SCENARIO [NUMBER] in the place of this shell, with the variables in the array settings. The first one is what is
# loaded, by the process itself and not by an emulator.
settings=()
run() {
  if [ ${#emulator[@]} -gt 0 ]; then
    exec env "${settings[@]:1}" "${emulator[0]}" -E "${settings[0]}" "${emulator[@]:1}" "$traced" "$@"
  else
    exec env "${settings[@]}" "$traced" "$@"
  fi
}

# Prints the files of a folder, one after the other in the order of their numbers.
in_order() { find "$1" -name 'quopa-*.pcapng' | sort -t. -k2n; }
walk() {
  in_order "$1" | xargs -r -d '\n' "${emulator[@]}" "$walker" >"$work/packets" || complain "$2: $(tail -n 1 "$work/packets")"
}

# expect NAME ERRORS SCENARIO [NUMBER]: the process does well, its files are whole, and standard error has one line that
# matches or, for an empty pattern, none.
expect() {
  local name=$1 errors=$2
  shift 2
  rm -rf trace && mkdir trace
  (run "$@") 2>errors || complain "$name: status $?"
  # In the emulator a process's children are of another processor and say that they cannot load the recorder.
  grep -v '^ERROR: ld.so' errors >said
  if [ -z "$errors" ]; then
    [ ! -s said ] || complain "$name says $(cat said)"
  elif [ "$(wc -l <said)" -ne 1 ] || ! grep -qE -- "$errors" said; then
    complain "$name says not \"$errors\" but $(cat said)"
  fi
  walk trace "$name"
}

# has NAME COUNT PATTERN: so many packets match.
has() {
  local count
  count=$(grep -cE -- "$3" packets)
  [ "$count" -eq "$2" ] || complain "$1: $count instead of $2 of $3"
}

# contiguous NAME STREAM FIRST LAST: the stream's numbers follow each other, from FIRST (any when empty) to LAST.
contiguous() {
  awk -v stream="stream=$2" -v first="$3" -v last="$4" '
    index($0, stream " ") { sub(/.*number=/, ""); if (seen == 0 && first == "") first = $0; if ($0 != first + seen) bad = 1; ++seen }
    END { exit bad || first + seen - 1 != last }' packets || complain "$1: stream $2 is not whole"
}

# Files are small, as it takes long to make large ones.
settings=("LD_PRELOAD=$library" "QUOPA_TRACE_DIR=$work/trace" QUOPA_TRACE_SIZE=8M)
plain=("${settings[@]}")
case $group in
  calls)
    expect calls '' calls
    has calls 1 '^file .*/quopa-traced-[0-9]+\.0\.pcapng$'
    has calls 1 '^note handle=(32|64) program traced$'
    has calls 100 '^(fib6_cfg|korBrokerFib6|fib6Sync)\.[a-zA-Z0-9_]+ 0x[0-9A-F]{8} '
    has calls 7 '^(sent|received)'
    while read -r packet; do has calls 1 "^$packet\$"; done <<-'PACKETS'
	sent id=48CDB5CB handle=7 destination=0 status=-7 message=0/1 captured=100/100 stream=1 number=0
	sent id=E679B47A handle=8 destination=9 status=-8 message=0/3 captured=20/20 stream=1 number=1
	sent id=E679B47A handle=8 destination=9 status=-8 message=1/3 captured=24/24 stream=1 number=2
	sent id=E679B47A handle=8 destination=9 status=-8 message=2/3 captured=28/28 stream=1 number=3
	received id=48CDB5CB handle=0 destination=0 status=0 message=0/1 captured=181/181 stream=2 number=0
	received id=E679B47A handle=0 destination=0 status=0 message=0/1 captured=13/13 stream=2 number=1
	received id=48CDB5CB handle=0 destination=0 status=-1 message=0/1 captured=0/5
	PACKETS
    size=$(stat -c %s trace/*)
    [ "$size" -lt 30000 ] || complain "calls: a file of $size bytes after its process has ended"

    while IFS='|' read -r setting sent received errors; do
      settings=("${plain[@]}" "$setting")
      expect "$setting" "$errors" calls
      has "$setting" "$sent" '^sent'
      has "$setting" "$received" '^received'
    done <<-'SETTINGS'
	QUOPA_TRACE_TYPES=*|4|3|
	QUOPA_TRACE_TYPES=fib6Sync.balanceModeData|3|1|
	QUOPA_TRACE_TYPES=korBroker*,*.ipv6Fwd[UV]*|1|2|
	QUOPA_TRACE_TYPES=fib6Sync.balance|0|0|no type is called fib6Sync.balance; 
	QUOPA_TRACE_SIZE=5|4|3|QUOPA_TRACE_SIZE=5 is no size
	QUOPA_TRACE_SIZE=2T|4|3|QUOPA_TRACE_SIZE=2T is no size
	QUOPA_TRACE_SIZE=99999999999G|4|3|is no size
	QUOPA_TRACE_SIZE=8m|4|3|
	QUOPA_TRACE_DIR=trace|4|3|
	QUOPA_TRACE_DIR=|0|0|
	SETTINGS
    cp "$library" second.so
    settings=("LD_PRELOAD=$library:$work/second.so" "QUOPA_TRACE_DIR=$work/trace")
    expect "a second copy" '' calls
    has "a second copy" 7 '^(sent|received)'

    settings=("LD_PRELOAD=$library" "QUOPA_TRACE_DIR=$work/none")
    expect "no folder" '/none: No such file or directory; this process is not traced$' calls
    settings=("${plain[@]}")
    (ulimit -f 1000 && expect "no room" ': File too large; this process is not traced$' calls && exit $failures) ||
      failures=$((failures + 1))
    ;;

  odd)
    expect odd '' odd
    while read -r packet; do has odd 1 "^$packet"; done <<-'PACKETS'
	sent id=48CDB5CB handle=7 destination=0 status=-7 message=0/1 captured=262112/300000 stream=1 number=0
	sent id=48CDB5CB handle=3 destination=0 status=-3 message=0/2 captured=0/50$
	sent id=48CDB5CB handle=3 destination=0 status=-3 message=1/2 captured=0/2415919104$
	received .* status=0 message=0/1 captured=0/50$
	sent id=48CDB5CB handle=7 destination=0 status=-7 message=0/1 captured=8/8 stream=1 number=1
	PACKETS
    has odd 5 '^(sent|received)'

    expect decoders '' decoders 600
    has decoders 512 '^received .* status=0 '
    has decoders 1 ' unwrapped 88$'

    expect children '' children
    has children 2 '^file '
    contiguous children 1 0 2
    contiguous children 3 0 2

    settings=("${plain[@]}" QUOPA_TRACE_SIZE=1M)
    expect ring '' many 20000
    has ring 8 '^file '
    [ "$(du -sb trace | cut -f1)" -le 1060000 ] || complain "ring: $(du -sb trace)"
    has ring 0 'status=-2147483648| lost '
    contiguous ring 1 '' 20190
    expect "cut in a small ring" '' odd
    has "cut in a small ring" 1 'captured=1[0-9]{5}/300000'
    expect held '' held 8
    has held 7 '^received .* status=0 .* stream=2 ' # the oldest file has begun anew
    lost=$(sed -n 's/^note .* lost //p' packets)
    [ "$lost" -gt 0 ] && contiguous held 1 '' $((8 * 470 - 1 - lost))
    has held 1 ' stream=3 '
    expect deleted '' deleted
    has deleted 8 '^file '
    contiguous deleted 1 '' 20190
    ;;

  killed) # in the middle of it
    for longest in 170 170 170 3000; do
      rm -rf trace && mkdir trace
      head -c 4096 /dev/zero >done
      settings=("${plain[@]}" QUOPA_TRACE_SIZE=128M)
      run load $longest 2>errors &
      until in_order trace | grep -q . || ! kill -0 $!; do sleep 0.01; done
      pause=0.0$((RANDOM % 10))
      sleep $pause
      kill -KILL $! && wait $! 2>/dev/null
      [ ! -s errors ] || complain "killed: $(cat errors)"
      walk trace killed
      # What the process had done by then is there, from the first message, with the bus's answer. A thread may have been
      # about to do more.
      od --endian=little -An -v -tu4 -w4 -N24 done | awk '{ print NR - 1, $1 }' >streams
      awk '
        FNR == NR { done[$1] = $2; next }
        / lost / { print "lost messages"; bad = 1 }
        match($0, /stream=[0-9]+/) {
          stream = substr($0, RSTART + 7, RLENGTH - 7); number = $0; sub(/.*number=/, "", number)
          if (number != seen[stream]++) { print "stream " stream " at " number; bad = 1; exit }
          if (number < done[stream] && $0 !~ / status=0 /) { print "unanswered: " $0; bad = 1; exit }
        }
        END {
          for (stream in done) if (seen[stream] < done[stream] || seen[stream] > done[stream] + 5) { print "stream " stream " has " seen[stream] " of " done[stream]; bad = 1 }
          exit bad
        }' streams packets || complain "killed $pause s after the first file, up to $longest bytes"
    done
    ;;
esac
[ $failures -eq 0 ]
