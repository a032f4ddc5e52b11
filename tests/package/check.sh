#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a
# consumer through find_package(Olk) and through pkg-config.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
cmake -S "$here" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/consumer" >/dev/null
LD_LIBRARY_PATH="$scratch/prefix/lib:$scratch/prefix/lib64" "$scratch/consumer/consumer"
export PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name olk.pc)")
c++ "$here/consumer.cpp" $(pkg-config --cflags --libs olk) -o "$scratch/pc-consumer"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir olk) "$scratch/pc-consumer"
