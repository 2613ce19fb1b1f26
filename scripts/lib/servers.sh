# shellcheck shell=bash
# NATS servers of a script's own, numbered from 1, with their settings and logs in the folder $work. To be sourced after
# script.sh and processes.sh.
# shellcheck disable=SC2034,SC2154 # for and from those who source this

declare -A port cluster_port # by number

# start NAME COMMAND...: in the background, with all its output in a file of that name.
start() {
  : >>"$work/$1" # there for who looks into it at once
  "${@:2}" >>"$work/$1" 2>&1 &
  process[$1]=$!
}
# until_true SECONDS WHAT FILE COMMAND...: waits for the command to succeed; shows the end of the file when it does not.
until_true() {
  local end=$((SECONDS + $1))
  until "${@:4}"; do
    [ $SECONDS -lt $end ] || {
      tail -n 5 "$work/$3" >&2 || true
      fail "no $2 after $1 s"
    }
    sleep 0.05
  done
}
# seconds FROM: since a time of EPOCHREALTIME.
seconds() { awk -v from="$1" -v to="$EPOCHREALTIME" 'BEGIN { printf "%.1f", to - from }'; }

# choose_ports COUNT: of the loopback, outside of what the kernel hands out.
choose_ports() {
  local i next=()
  while [ ${#next[@]} -lt $((2 * $1)) ]; do
    i=$((10000 + RANDOM % 20000))
    (exec 3<>"/dev/tcp/127.0.0.1/$i") 2>/dev/null || [[ " ${next[*]} " = *" $i "* ]] || next+=("$i")
  done
  for ((i = 1; i <= $1; ++i)); do port[$i]=${next[2 * i - 2]} cluster_port[$i]=${next[2 * i - 1]}; done
}

# start_server NUMBER [COMMAND]...: by the command.
start_server() {
  start "server$1" "${@:2}" nats-server -c "$work/server$1.conf"
  until_true 10 "server" "server$1" grep -q 'Server is ready' "$work/server$1"
}
# is_led: whether the servers have voted for who leads them all, before which they keep nothing.
is_led() { grep -hq 'JetStream cluster new metadata leader' "$work"/server?; }
# leader STREAM: the number of the server that has said last that it leads the stream.
leader() {
  grep -H "new stream leader for '.* > $1'" "$work"/server? | sed 's/.*\/server\(.\):[^ ]* /\1 /' | sort -k 2,3 |
    tail -n 1 | cut -d ' ' -f 1
}
another_leads() { [ "$(leader "$1")" != "$2" ]; }
