#!/bin/sh
# Builds libOlk with its examples, starts the demo agent, sends it a few
# operator commands with olkctl, shows the replies and stops it cleanly.
# Then runs transactions between agent processes: a private redis-server
# (Unix socket in a temporary directory, no TCP port, persistence there), a
# coordinator and three executors, each with its own command socket; kills
# and restarts an executor, and lets a transaction time out.
#
#   examples/run_demo.sh            # build directory: ./build-demo
#   BUILD=/tmp/b examples/run_demo.sh
set -e
src=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$src/build-demo}
cmake -S "$src" -B "$build" -G Ninja -DOLK_BUILD_EXAMPLES=ON >/dev/null
ninja -C "$build" -j2 olk demo_agent olkctl

agent="$build/examples/demo_agent"
ctl="$build/examples/olkctl"
name="demo-$$"

# Waits until agent $1 answers on its command socket.
wait_agent() {
  tries=0
  until "$ctl" --timeout 1 "$1" help >/dev/null 2>&1; do
    tries=$((tries + 1))
    [ "$tries" -lt 50 ] || { echo "run_demo: agent $1 did not come up" >&2; exit 1; }
    sleep 0.1
  done
}

dumps="$build/demo-dumps"
"$agent" --name "$name" --dump-dir "$dumps" &
pid=$!
trap 'kill "$pid" 2>/dev/null || true' EXIT

# Wait until the agent answers, then let its workloads run for a moment.
wait_agent "$name"
sleep 2

for cmd in "help" "stats" "cuckoo insert 4242" "cuckoo fill 16000" "xact start 2" "xact" "labels" "blocks defrag" \
           "dump" "dump gz demo-dump.gz" "dump gz ../escape.gz" "no-such-command"; do
  echo "\$ olkctl $name $cmd"
  # shellcheck disable=SC2086 # the command's words are meant to split
  "$ctl" "$name" $cmd || echo "(olkctl exit status $?: the agent answered with an error)"
  echo
done
echo "\$ zcat $dumps/demo-dump.gz | head -3"
zcat "$dumps/demo-dump.gz" | head -3

"$ctl" "$name" shutdown
wait "$pid"
trap - EXIT
echo "run_demo: the agent stopped cleanly"

# --- Transactions between agent processes, shared through a private Redis.
ninja -C "$build" -j2 xact_agent
xagent="$build/examples/xact_agent"
tmp=$(mktemp -d)
sock="$tmp/redis.sock"
redis-server --port 0 --unixsocket "$sock" --dir "$tmp" --appendonly yes --save '' --logfile "$tmp/redis.log" &
redis_pid=$!
agent_pids=""
cleanup() {
  # shellcheck disable=SC2086 # one word per pid
  kill $agent_pids "$redis_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT

coord="coord-$$"
e1="e1-$$"
e2="e2-$$"
e3="e3-$$"
# Starts an agent in the background; its pid lands in the variable named $1.
start_agent() {
  var=$1
  shift
  "$xagent" --redis "$sock" "$@" &
  eval "$var=$!"
  agent_pids="$agent_pids $!"
}
ctl_show() {
  echo "\$ olkctl $*"
  "$ctl" "$@"
  echo
}

start_agent coord_pid --role coordinator --name "$coord" --executors "$e1,$e2,$e3"
start_agent e1_pid --role executor --name "$e1" --fail-digit 3
start_agent e2_pid --role executor --name "$e2"
start_agent e3_pid --role executor --name "$e3"
for a in "$coord" "$e1" "$e2" "$e3"; do wait_agent "$a"; done
sleep 0.5
ctl_show "$coord" redis
ctl_show "$coord" start 8
sleep 1
ctl_show "$coord" xacts

echo "# kill -9 $e2 mid-run: new transactions wait for it"
kill -9 "$e2_pid"
ctl_show "$coord" start 2
ctl_show "$coord" xacts
echo "# $e2 restarts, re-reads its configurations and answers"
start_agent e2_pid --role executor --name "$e2"
wait_agent "$e2"
sleep 1
ctl_show "$e2" status
ctl_show "$coord" xacts

echo "# kill -9 $e3 for good: its silence ends in a time-out"
kill -9 "$e3_pid"
ctl_show "$coord" timeout 2
ctl_show "$coord" start 1
sleep 3
ctl_show "$coord" xacts

for a in "$coord" "$e1" "$e2"; do "$ctl" "$a" shutdown >/dev/null; done
wait "$coord_pid" "$e1_pid" "$e2_pid"
echo "run_demo: the transaction agents stopped cleanly"
