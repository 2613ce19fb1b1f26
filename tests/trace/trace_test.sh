#!/usr/bin/env bash
# Traces real processes and reads what they leave: trace_test.sh GROUP LIBRARY TRACED WALKER [EMULATOR...]
set -uo pipefail
group=$1 library=$2 programs=$(dirname "$3") walker=$4
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
program=("$programs/traced")
settings=()
run() {
  if [ ${#emulator[@]} -gt 0 ]; then
    exec env "${settings[@]:1}" "${emulator[0]}" -E "${settings[0]}" "${emulator[@]:1}" "${program[@]}" "$@"
  else
    exec env "${settings[@]}" "${program[@]}" "$@"
  fi
}

# Prints the files of a folder, one after the other in the order of their numbers.
in_order() { find "$1" -name 'quopa-*.pcapng' | sort -t. -k2n; }
walk() {
  in_order "$1" | xargs -r -d '\n' "${emulator[@]}" "$walker" >"$work/packets" || complain "$2: $(tail -n 1 "$work/packets")"
}

# expect NAME ERRORS SCENARIO [NUMBER]: the process does well, its files are whole, and standard error has one line that
# matches or, for an empty pattern, none. Before it starts, $before is done in its place.
before=
expect() {
  local name=$1 errors=$2
  shift 2
  rm -rf trace && mkdir trace
  (eval "$before" && run "$@") 2>errors || complain "$name: status $?"
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

# contiguous NAME STREAM FIRST LAST: the stream's numbers follow each other, from FIRST (any for a "-") to LAST.
contiguous() {
  awk -v stream="stream=$2" -v first="$3" -v last="$4" '
    index($0, stream " ") { sub(/.*number=/, ""); if (seen == 0 && first == "-") first = $0; if ($0 != first + seen) bad = 1; ++seen }
    END { exit bad || first + seen - 1 != last }' packets || complain "$1: stream $2 is not whole"
}

# Reads what processes do and leave. A line "SCENARIO [NUMBER] [! ERRORS]" runs one; each line with blanks before it is
# what its packets are to have: COUNT PATTERN or whole STREAM FIRST LAST.
judge() {
  local line name='' first rest
  while IFS= read -r line; do
    read -r first rest <<<"$line"
    read -ra words <<<"$rest"
    case $line in
      '  whole '*) contiguous "$name" "${words[@]}" ;;
      '  '*) has "$name" "$first" "$rest" ;;
      *)
        name=${line%% ! *}
        read -ra words <<<"$name"
        [ "$name" = "$line" ] && rest='' || rest=${line#* ! }
        expect "$name" "$rest" "${words[@]}"
        ;;
    esac
  done
}

has_calls() {
  judge_packets "$1" 9 <<-'PACKETS'
	received id=48CDB5CB handle=0 destination=0 status=-1 thread=main message=0/1 captured=4/4
	received id=E679B47A handle=0 destination=0 status=-1 thread=main message=0/1 captured=4/4
	sent id=48CDB5CB handle=7 destination=0 status=-7 thread=main message=0/1 captured=100/100 stream=1 number=0
	sent id=E679B47A handle=8 destination=9 status=-8 thread=main message=0/3 captured=20/20 stream=1 number=1
	sent id=E679B47A handle=8 destination=9 status=-8 thread=main message=1/3 captured=24/24 stream=1 number=2
	sent id=E679B47A handle=8 destination=9 status=-8 thread=main message=2/3 captured=28/28 stream=1 number=3
	received id=48CDB5CB handle=0 destination=0 status=0 thread=main message=0/1 captured=181/181 stream=2 number=0
	received id=E679B47A handle=0 destination=0 status=0 thread=main message=0/1 captured=13/13 stream=2 number=1
	received id=48CDB5CB handle=0 destination=0 status=-1 thread=main message=0/1 captured=0/5
	PACKETS
}

# judge_packets NAME COUNT: so many messages are there, those that it reads each once.
judge_packets() {
  has "$1" "$2" '^(sent|received)'
  while read -r packet; do has "$1" 1 "^$packet\$"; done
}

# Files are small, as it takes long to make large ones.
settings=("LD_PRELOAD=$library" "QUOPA_TRACE_DIR=$work/trace" QUOPA_TRACE_SIZE=8M)
plain=("${settings[@]}")
small=("${plain[@]}" QUOPA_TRACE_SIZE=1M)
case $group in
  calls)
    umask 0
    expect calls '' calls
    has calls 1 '^file .*/quopa-traced-[0-9]+\.0\.pcapng$'
    has calls 1 '^note handle=(32|64) program traced$'
    has calls 100 '^(fib6_cfg|korBrokerFib6|fib6Sync)\.[a-zA-Z0-9_]+ 0x[0-9A-F]{8} '
    has_calls calls
    size=$(stat -c %s trace/*)
    [ "$size" -lt 30000 ] || complain "calls: a file of $size bytes after its process has ended"
    [ "$(stat -c %a trace/*)" = 600 ] || complain "calls: a file that is $(stat -c %A trace/*)"

    while IFS='|' read -r setting sent received errors; do
      settings=("${plain[@]}" "$setting")
      expect "$setting" "$errors" calls
      has "$setting" "$sent" '^sent'
      has "$setting" "$received" '^received'
    done <<-'SETTINGS'
	QUOPA_TRACE_TYPES=*|4|5|
	QUOPA_TRACE_TYPES=fib6Sync.balanceModeData|3|2|
	QUOPA_TRACE_TYPES=korBroker*,*.ipv6Fwd[UV]*|1|3|
	QUOPA_TRACE_TYPES=fib6Sync.balance|0|0|no type is called fib6Sync.balance; 
	QUOPA_TRACE_SIZE=5|4|5|QUOPA_TRACE_SIZE=5 is no size
	QUOPA_TRACE_SIZE=2T|4|5|QUOPA_TRACE_SIZE=2T is no size
	QUOPA_TRACE_SIZE=99999999999G|4|5|is no size
	QUOPA_TRACE_SIZE=8m|4|5|
	QUOPA_TRACE_DIR=trace|4|5|
	QUOPA_TRACE_DIR=|0|0|
	SETTINGS

    settings=("${plain[@]}")
    expect odd '' odd
    judge_packets odd 6 <<-'PACKETS'
	received .* status=-1 thread=main message=0/1 captured=4/4
	sent id=48CDB5CB handle=7 destination=0 status=-7 thread=main message=0/1 captured=262112/300000 stream=1 number=0
	sent id=48CDB5CB handle=3 destination=0 status=-3 thread=main message=0/2 captured=0/50
	sent id=48CDB5CB handle=3 destination=0 status=-3 thread=main message=1/2 captured=0/2415919104
	received .* status=0 thread=main message=0/1 captured=0/50
	sent id=48CDB5CB handle=7 destination=0 status=-7 thread=main message=0/1 captured=8/8 stream=1 number=1
	PACKETS
    judge <<-'SCENARIOS'
	decoders 600
	  512 ^received .* status=0 
	  1 unwrapped 88$
	  0 unwrapped 89$
	SCENARIOS
    ;;

  loaded) # in every way in which a process comes to the recorder and to its bus
    cp "$library" second.so
    settings=("LD_PRELOAD=$library:$work/second.so" "${plain[@]:1}")
    expect "a second copy" '' calls
    has_calls "a second copy"

    settings=("${plain[@]}")
    program=("$programs/late" "$programs/libtraced_late.so")
    expect "a bus that is loaded late" '' calls
    has_calls "a bus that is loaded late"

    settings=("${plain[@]:1}")
    program=("$programs/traced_linked")
    expect linked '' calls
    has_calls linked
    if [ "$(id -u)" -ne 0 ] || [ ${#emulator[@]} -gt 0 ]; then
      echo "only root can make a process with more rights than its user: not tested"
    else
      program=(setpriv --ruid 65534 "$programs/traced_linked")
      expect "more rights than the user" '' calls
      has "more rights than the user" 0 '^file '
    fi
    ;;

  ring)
    settings=("${small[@]}")
    judge <<-'SCENARIOS'
	many 20000
	  8 ^file 
	  0 status=-2147483648| lost 
	  whole 1 - 20190
	odd
	  1 captured=1[0-9]{5}/300000
	deleted
	  8 ^file 
	  whole 1 - 20190
	slow_decoders 12
	  0 ^sent .* status=-1| lost 
	  1 ^received .* status=-1 .* stream=2 number=11$
	  whole 1 - 5639
	  1 stream=3 
	left_decoders 10
	  0 lost 
	  3 ^received .* status=-2147483648 .* stream=2 number=9$
	  whole 1 - 4699
	left_sends
	  5 ^sent 
	  2 ^sent .* status=-2147483648 
	  whole 1 0 4
	held 8
	  7 ^sent .* stream=2 
	  1 stream=3 
	SCENARIOS
    # While all files were held, and the oldest has begun anew since.
    lost=$(sed -n 's/^note .* lost //p' packets)
    contiguous held 1 - $((8 * 470 - 1 - ${lost:-0}))
    [ "$(du -sb trace | cut -f1)" -le 1060000 ] || complain "ring: $(du -sb trace)"
    ;;

  children)
    judge <<-'SCENARIOS'
	children
	  2 ^file 
	  6 thread=main
	  whole 1 0 2
	  whole 3 0 2
	fork_in_decoder
	  2 ^file 
	  1 ^received .* status=0 .* stream=2 
	  whole 1 0 0
	  whole 3 0 0
	fork_in_thread
	  2 ^file 
	  whole 1 0 0
	  1 ^sent .* thread=main .* stream=3 number=0$
	interrupted_child
	  1 ^file 
	  0 ^sent 
	turning_child
	  1 ^file 
	  whole 1 0 1
	SCENARIOS
    # The emulator knows no memory that a child finds empty.
    [ ${#emulator[@]} -gt 0 ] || judge <<-'SCENARIOS'
	unknown_child
	  3 ^file 
	  9 thread=main
	  whole 1 0 1
	  whole 3 0 2
	  whole 4 0 2
	unknown_child_in_send
	  1 ^sent .* status=-2147483648 .* stream=1 
	SCENARIOS
    ;;

  process) # is what it would be without the recorder
    settings=("${small[@]}")
    judge <<-'SCENARIOS'
	signal
	  whole 1 0 2
	  0 stream=5 
	  2 lost 
	  1 lost 1$
	  1 lost 2$
	cancelled
	  1 stream=2 
	  1 stream=1 
	small_stack 3
	  0 lost 
	  1 stream=1 
	moved 20000
	  8 ^file 
	  whole 1 - 20190
	closed 20000
	  8 ^file 
	  whole 1 - 20190
	no_more_room 20000 ! File too large; the trace stays at 1 file$
	  1 ^file 
	  whole 1 - 20190
	redirected 20000
	  whole 1 - 20190
	SCENARIOS
    [ ! -s data ] || complain "a file of the process has $(cat data)"
    settings=("${small[@]}" QUOPA_TRACE_TYPES=fib6Sync.ipv6FwdUpdateMsg)
    expect "handlers with other types" '' signal
    has "handlers with other types" 2 ' lost 1$'

    settings=("${plain[@]}" "QUOPA_TRACE_DIR=$work/none")
    expect "no folder" '/none: No such file or directory; this process is not traced$' calls
    mkfifo pipe
    exec 3<>pipe 4>pipe
    dd if=/dev/zero of=pipe bs=1024 oflag=nonblock 2>/dev/null
    before='exec 2>&4'
    expect "no folder and nobody reads" '' calls
    exec 3>&-
    expect "no folder and nobody is there to read" '' calls
    settings=("${plain[@]}")
    before='ulimit -f 1000'
    expect "no room" ': File too large; this process is not traced$' calls

    # One with the same ID has been here.
    before=
    expect former '' calls
    mv trace/* former
    before='cp -p former trace/quopa-traced-$BASHPID.0.pcapng'
    expect "the same ID" '' calls
    has "the same ID" 1 '^file .*\.1\.pcapng$'
    has "the same ID" 18 '^(sent|received)'
    cmp former trace/*.0.pcapng || complain "the same ID: a former trace has changed"
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
