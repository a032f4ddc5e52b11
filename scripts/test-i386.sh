#!/usr/bin/env bash
# Builds libOlk and runs its whole test suite as a 32-bit (i386) program, natively
# inside an i386 Debian 12 root, then makes the i386 Debian packages (out/deb/i386/).
#
# Needs: root, debootstrap, network access to the Debian archive the first time.
# The root is made once and cached in $OLK_ROOT_CACHE (default /var/cache/olk-roots):
# debootstrap, then this checkout's scripts/setup.sh inside it, so it has exactly
# what the build and tests need and follows that list when it changes. The build
# goes through ccache with its cache kept beside the root, in build-i386/.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$(pwd)
source scripts/roots.sh
roots_require
roots_enter_namespace "$@"
trap roots_unmount_all EXIT

roots_make build-i386 i386 "setup.sh $(sha256sum <scripts/setup.sh | cut -d' ' -f1)" "$(<scripts/setup.sh)"

# The checkout appears at /src inside the root, wherever it lives outside
# (the root gets a fresh /tmp, which would hide a checkout under /tmp), and
# the fixed path lets ccache reuse objects across checkouts.
mkdir -p "$OLK_ROOT_CACHE/ccache-i386"
roots_bind build-i386 "$src" /src
roots_bind build-i386 "$OLK_ROOT_CACHE/ccache-i386" /var/cache/ccache
ROOTS_ENV=(CCACHE_DIR=/var/cache/ccache CCACHE_BASEDIR=/src CCACHE_MAXSIZE=5G)
jobs=$(nproc)
roots_run build-i386 i386 "
  cd /src
  echo \"test-i386: \$(uname -m), \$(g++ --version | head -n1)\"
  cmake -S . -B build-i386 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOLK_BUILD_BENCH=OFF >/dev/null
  cmake --build build-i386 -j $jobs
  (cd build-i386 && ctest --output-on-failure -j $jobs)
  scripts/package.sh build-i386
"
