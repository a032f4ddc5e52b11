#!/bin/sh
# Builds libOlk with its examples, starts the demo agent, sends it a few
# operator commands with olkctl, shows the replies and stops it cleanly.
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
rm -f "$build/demo-dump.gz"  # dumps append to an existing file
"$agent" --name "$name" &
pid=$!
trap 'kill "$pid" 2>/dev/null || true' EXIT

# Wait until the agent answers, then let its workloads run for a moment.
tries=0
until "$ctl" --timeout 1 "$name" help >/dev/null 2>&1; do
  tries=$((tries + 1))
  [ "$tries" -lt 50 ] || { echo "run_demo: the agent did not come up" >&2; exit 1; }
  sleep 0.1
done
sleep 2

for cmd in "help" "stats" "cuckoo insert 4242" "cuckoo fill 16000" "xact start 2" "xact" "labels" "blocks defrag" \
           "dump" "dump gz $build/demo-dump.gz" "no-such-command"; do
  echo "\$ olkctl $name $cmd"
  # shellcheck disable=SC2086 # the command's words are meant to split
  "$ctl" "$name" $cmd
  echo
done
echo "\$ zcat $build/demo-dump.gz | head -3"
zcat "$build/demo-dump.gz" | head -3

"$ctl" "$name" shutdown
wait "$pid"
trap - EXIT
echo "run_demo: the agent stopped cleanly"
