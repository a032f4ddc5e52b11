#!/usr/bin/env bash
# Installs the Debian packages that scripts/package.sh made (out/deb/<arch>/)
# with apt-get into a clean Debian 12 root of their architecture that holds
# only build tools (g++, cmake, ninja, pkg-config), then builds and runs a
# consumer there through find_package(Olk) and pkg-config
# (tests/package/check.sh). apt-get resolves the packages' dependencies from
# the Debian archive, so a missing or wrong dependency fails the check.
#
# Usage: scripts/check-packages.sh [ARCH...]   (default: each one in out/deb/)
# Needs: root, debootstrap, network access to the Debian archive. The clean
# roots are made once and cached in $OLK_ROOT_CACHE (default
# /var/cache/olk-roots); each check runs on a throw-away overlay of one, so
# the cached root stays clean.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/roots.sh
roots_require
roots_enter_namespace "$@"
scratch=$(mktemp -d "${TMPDIR:-/tmp}/olk-check-packages.XXXXXX")
trap 'roots_unmount_all; rm -rf --one-file-system "$scratch"' EXIT

tools="g++ cmake ninja-build pkg-config"
archs=("$@")
if [[ ${#archs[@]} -eq 0 ]]; then
  for dir in out/deb/*/; do [[ -d $dir ]] && archs+=("$(basename "$dir")"); done
fi
[[ ${#archs[@]} -gt 0 ]] || roots_die "no packages in out/deb/: run scripts/package.sh first"

for arch in "${archs[@]}"; do
  debs=(out/deb/"$arch"/*.deb)
  [[ -e ${debs[0]} ]] || roots_die "no packages in out/deb/$arch/"
  clean=consumer-$arch
  roots_make "$clean" "$arch" "tools: $tools" \
    "apt-get update -qq && apt-get install -y -qq --no-install-recommends $tools >/dev/null"

  # The check's root: the clean root below a scratch layer that takes every write.
  mkdir -p "$scratch/$arch/upper" "$scratch/$arch/work"
  check=$clean.check
  before=${#roots_mounts[@]}
  roots_mount "$OLK_ROOT_CACHE/$check" -t overlay overlay \
    -o "lowerdir=$OLK_ROOT_CACHE/$clean,upperdir=$scratch/$arch/upper,workdir=$scratch/$arch/work"
  inside=$OLK_ROOT_CACHE/$check/opt/olk-check
  mkdir -p "$inside/deb"
  cp "${debs[@]}" "$inside/deb/"
  cp -r tests/package "$inside/"
  chmod -R a+rX "$inside"
  echo "check-packages: $arch: apt-get install ${debs[*]##*/}, then find_package(Olk) and pkg-config"
  roots_run "$check" "$arch" "
    apt-get update -qq
    cd /opt/olk-check/deb
    apt-get install -y -qq --no-install-recommends \$(printf './%s ' *.deb) >/dev/null
    /opt/olk-check/package/check.sh
  "
  roots_unmount_since "$before"
done
