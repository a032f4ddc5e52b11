#!/bin/sh
# olkctl's exit statuses against a running demo agent, the agent's dumps by
# plain name inside its dump directory, and its clean stop on SIGTERM.
#
#   tests/examples/olkctl_exit_status.sh <directory holding demo_agent and olkctl>
set -u
bin=$1
work=$(mktemp -d)
name="olkctl-test-$$"
failures=0
"$bin/demo_agent" --name "$name" --dump-dir "$work/dumps" >"$work/agent.out" 2>&1 &
pid=$!
trap 'kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT

tries=0
until "$bin/olkctl" --timeout 1 "$name" help >/dev/null 2>&1; do
  tries=$((tries + 1))
  [ "$tries" -lt 100 ] || { echo "the agent did not come up" >&2; cat "$work/agent.out" >&2; exit 1; }
  sleep 0.1
done

# expect <status> <olkctl arguments...>
expect() {
  want=$1
  shift
  "$bin/olkctl" "$@" >"$work/reply" 2>"$work/err"
  got=$?
  if [ "$got" -ne "$want" ]; then
    echo "FAIL: olkctl $* exited $got, expected $want; reply: $(cat "$work/reply") $(cat "$work/err")" >&2
    failures=$((failures + 1))
  fi
}

expect 0 "$name" help
expect 0 "$name" labels
expect 5 "$name" no-such-command
expect 5 "$name" labels release 1
expect 5 "$name" timers add
expect 5 "$name" dump gz ../escaped.gz
expect 0 "$name" dump gz state.gz
expect 2 "$name-nobody" help
expect 1 "$name"
[ -s "$work/dumps/state.gz" ] || { echo "FAIL: no dump in the dump directory" >&2; failures=$((failures + 1)); }
[ ! -e "$work/escaped.gz" ] || { echo "FAIL: a dump escaped its directory" >&2; failures=$((failures + 1)); }

kill -TERM "$pid"
wait "$pid"
status=$?
if [ "$status" -ne 0 ] || ! grep -q "signal 15, stopping" "$work/agent.out"; then
  echo "FAIL: the agent did not stop cleanly on SIGTERM (status $status)" >&2
  cat "$work/agent.out" >&2
  failures=$((failures + 1))
fi
exit "$failures"
