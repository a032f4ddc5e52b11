#!/usr/bin/env bash
# Builds and runs a consumer of an installed libOlk, through find_package(Olk)
# and through pkg-config, and compiles every installed header (so whatever
# they include must come with the installation or its package dependencies).
#   check.sh BUILD_DIR   installs that build into a scratch prefix first
#   check.sh             uses the libOlk installed on the system (its packages)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake_args=()
if [[ $# -gt 0 ]]; then
  cmake --install "$1" --prefix "$scratch/prefix" >/dev/null
  cmake_args=(-DCMAKE_PREFIX_PATH="$scratch/prefix")
  PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name olk.pc)")
  export PKG_CONFIG_PATH
fi
LD_LIBRARY_PATH=$(pkg-config --variable=libdir olk)
export LD_LIBRARY_PATH
cmake -S "$here" -B "$scratch/consumer" -G Ninja "${cmake_args[@]}" >/dev/null
cmake --build "$scratch/consumer" >/dev/null
"$scratch/consumer/consumer"
# shellcheck disable=SC2046  # pkg-config's output is a list of words
c++ "$here/consumer.cpp" $(pkg-config --cflags --libs olk) -o "$scratch/pc-consumer"
"$scratch/pc-consumer"
includedir=$(pkg-config --variable=includedir olk)
for header in "$includedir"/{Olk,Cell,platform}/*.h; do
  echo "#include <${header#"$includedir"/}>"
done >"$scratch/headers.cpp"
# shellcheck disable=SC2046
c++ -fsyntax-only $(pkg-config --cflags olk) "$scratch/headers.cpp"
