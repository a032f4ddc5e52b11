#!/usr/bin/env bash
# Installs what a Debian 12 machine lacks to build, test and package libOlk (iproute2
# and python3 serve tests: network namespaces and a tokenizer cross-check; file
# lets CPack find the dependencies of what it packages).
# Idempotent: when everything is present it installs nothing and prints nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache
  zlib1g-dev libboost-filesystem-dev libboost-system-dev libboost-iostreams-dev
  libgtest-dev libgmock-dev libbenchmark-dev libroaring-dev libcuckoo-dev
  iproute2 python3 file
)
# Callers add what only they need (the fuzz script: clang and its runtimes;
# the benchmark script: gnuplot).
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
