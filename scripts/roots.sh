# Sourced by the scripts that build or check libOlk inside Debian 12 root file
# systems of another architecture or without our build dependencies.
#
# A root is made once with debootstrap and cached under $OLK_ROOT_CACHE (default
# /var/cache/olk-roots), outside any checkout, so every work tree and every CI
# run reuses it. A root counts as complete only when its stamp file exists:
# the stamp is written after every step of making it succeeded, so a run that
# was interrupted half-way is redone from scratch next time.
#
# Callers run in a private mount namespace (roots_enter_namespace), so the
# mounts made for a chroot never show on the host and vanish with the process
# even when it is killed; the exit trap also unmounts them in order.

OLK_ROOT_CACHE=${OLK_ROOT_CACHE:-/var/cache/olk-roots}
OLK_MIRROR=${OLK_MIRROR:-http://deb.debian.org/debian}
ROOTS_ENV=()

roots_die() { echo "$(basename "$0"): $*" >&2; exit 1; }

# Fails with what is missing unless we are root with debootstrap, setarch and
# unshare at hand.
roots_require() {
  [[ $(id -u) -eq 0 ]] ||
    roots_die "needs root (it makes chroots with debootstrap and mounts into them); run it with sudo"
  local tool
  for tool in debootstrap setarch unshare chroot mount flock; do
    command -v "$tool" >/dev/null ||
      roots_die "needs '$tool': apt-get install debootstrap util-linux mount coreutils"
  done
}

# Re-runs the calling script in a private mount namespace unless it already is.
roots_enter_namespace() {
  [[ -n ${OLK_ROOTS_NAMESPACE:-} ]] && return 0
  OLK_ROOTS_NAMESPACE=1 exec unshare --mount --propagation private -- "$0" "$@"
}

# roots_make NAME ARCH STAMP_TEXT SETUP_COMMAND
# Makes $OLK_ROOT_CACHE/NAME (a minbase bookworm root of ARCH) unless it is
# complete with the same STAMP_TEXT, then runs SETUP_COMMAND inside it (through
# roots_run) and writes the stamp: STAMP_TEXT, then the installed packages.
# A complete root whose STAMP_TEXT changed only gets SETUP_COMMAND again.
# Runs that make or update the same root at once wait for each other.
roots_make() {
  local lock
  mkdir -p "$OLK_ROOT_CACHE"
  exec {lock}>"$OLK_ROOT_CACHE/$1.lock"
  flock "$lock"
  roots_make_locked "$@"
  exec {lock}>&-
}

roots_make_locked() {
  local name=$1 arch=$2 stamp_text=$3 setup=$4
  local dir=$OLK_ROOT_CACHE/$name stamp=$OLK_ROOT_CACHE/$name.complete
  if [[ -f $stamp && "$(head -n1 "$stamp")" == "$stamp_text" ]]; then
    return 0
  fi
  if [[ -d $dir && ! -f $stamp ]]; then
    echo "roots: $name was left incomplete; making it again"
    rm -rf --one-file-system "$dir"
  fi
  rm -f "$stamp"
  if [[ ! -d $dir ]]; then
    echo "roots: making $name ($arch Debian 12 minbase) with debootstrap"
    rm -rf --one-file-system "$dir.new"
    debootstrap --arch="$arch" --variant=minbase bookworm "$dir.new" "$OLK_MIRROR" \
      >"$OLK_ROOT_CACHE/$name.debootstrap.log" 2>&1 ||
      { tail -n 20 "$OLK_ROOT_CACHE/$name.debootstrap.log" >&2; roots_die "debootstrap of $name failed"; }
    mv "$dir.new" "$dir"
  fi
  roots_run "$name" "$arch" "$setup"
  { echo "$stamp_text"
    chroot "$dir" dpkg-query -W -f '${Package} ${Version} ${Architecture}\n'
  } >"$stamp.new"
  mv "$stamp.new" "$stamp"
}

# Mount points made by roots_mount, innermost last, for roots_unmount_all.
roots_mounts=()

roots_mount() {  # roots_mount TARGET MOUNT-ARGS...
  local target=$1; shift
  mkdir -p "$target"
  mount "$@" "$target"
  roots_mounts+=("$target")
}

# Unmounts, innermost first, what was mounted since roots_mounts held COUNT
# entries.
roots_unmount_since() {  # roots_unmount_since COUNT
  local i
  for ((i = ${#roots_mounts[@]} - 1; i >= $1; i--)); do
    umount -R "${roots_mounts[i]}" 2>/dev/null || umount -lR "${roots_mounts[i]}"
    unset 'roots_mounts[i]'
  done
}

roots_unmount_all() { roots_unmount_since 0 || true; }

# roots_bind NAME HOST_DIR [PATH_IN_ROOT]: HOST_DIR appears in the root at
# PATH_IN_ROOT (default: the same path) until the script exits.
roots_bind() {
  local dir=$OLK_ROOT_CACHE/$1 host=$2 inside=${3:-$2}
  roots_mount "$dir$inside" --bind "$host"
}

# roots_run NAME ARCH COMMAND: runs the bash COMMAND as root inside the root,
# with /proc, /dev, /sys and a fresh /tmp, the host's DNS settings, a clean
# environment plus ROOTS_ENV (an array of NAME=VALUE), and `setarch` so that
# uname and every tool see a machine of ARCH.
roots_run() {
  local dir=$OLK_ROOT_CACHE/$1 arch=$2 command=$3 personality
  case $arch in
    i386) personality=i686 ;;
    amd64) personality=x86_64 ;;
    *) roots_die "no personality known for $arch" ;;
  esac
  local before=${#roots_mounts[@]}
  roots_mount "$dir/proc" -t proc proc
  roots_mount "$dir/dev" --rbind /dev
  roots_mount "$dir/sys" --rbind /sys
  roots_mount "$dir/tmp" -t tmpfs tmpfs
  cp -L /etc/resolv.conf "$dir/etc/resolv.conf"
  local status=0
  setarch "$personality" chroot "$dir" /usr/bin/env -i \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive DEBCONF_NOWARNINGS=yes "${ROOTS_ENV[@]}" \
    /bin/bash -euo pipefail -c "$command" || status=$?
  roots_unmount_since "$before"
  return "$status"
}
