#!/usr/bin/env bash
# Makes the Debian packages of a built tree with CPack:
#   libolk0      the shared library and olkctl
#   libolk-dev   headers, CMake package and pkg-config file
# into out/deb/<architecture>/.  Usage: scripts/package.sh [build-dir, default build]
# The tree is configured for the /usr prefix first (Debian's multiarch library
# directory follows from it); that changes install paths only, not the build.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
out=$(pwd)/out/deb/$(dpkg --print-architecture)
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
rm -rf "$out"
mkdir -p "$out"
(cd "$build" && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
for deb in "$out"/*.deb; do
  echo "package: $deb"
  dpkg-deb -f "$deb" Package Version Architecture Depends | sed 's/^/  /'
done
