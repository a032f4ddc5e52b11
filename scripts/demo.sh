#!/usr/bin/env bash
# Sets up the machine, builds libOlk and runs the demo agent end to end: the
# agent serves operator commands on its socket while its workloads run on the
# library's components, and the operator client talks to it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
exec examples/run_demo.sh
