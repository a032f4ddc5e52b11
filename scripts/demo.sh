#!/usr/bin/env bash
# Sets up the machine, builds libOlk and runs the demo agent end to end: the
# agent serves operator commands on its socket while its workloads run on the
# library's components, and the operator client talks to it. Then it runs
# transactions between agent processes (a coordinator and three executors)
# through a private redis-server, killing and restarting an executor on the
# way; everything it starts, it stops.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
exec examples/run_demo.sh
