#!/usr/bin/env bash
# Builds the daemon, the tools, the capture plug-in, the DirectFB probe and the tests for ARM
# Linux with Debian's cross compilers, against a target sysroot made from Debian's own packages,
# and runs the tests under qemu user mode.
#
#   scripts/cross_arm.sh [--no-test] [--sysroot-only] [arm64] [armhf]     (default: both)
#
# Sysroots live outside the clone, in $AIPQ_SYSROOT_CACHE/sysroot-<arch> (default
# /var/cache/aipq), and are made again only when the package list changes. Build trees are the
# presets' own: build-arm64/ and build-armhf/. Idempotent; needs root (apt, binfmt_misc).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/debian_sources.sh

run_tests=1
build=1
arches=()
for arg in "$@"; do
  case "$arg" in
    --no-test) run_tests=0 ;;
    --sysroot-only) build=0; run_tests=0 ;;
    arm64 | armhf) arches+=("$arg") ;;
    *) echo "usage: $0 [--no-test] [--sysroot-only] [arm64] [armhf]" >&2; exit 2 ;;
  esac
done
[ ${#arches[@]} -gt 0 ] || arches=(arm64 armhf)

cache=${AIPQ_SYSROOT_CACHE:-/var/cache/aipq}
jobs=${AIPQ_JOBS:-$(nproc)}
# What the build and the tests link against on the target. libdirectfb-extra brings DirectFB's X11
# system, which the overlay tests draw through.
SYSROOT_PACKAGES=(
  libc6-dev libstdc++-12-dev libgtest-dev libgmock-dev
  libboost-dev libdirectfb-dev libdirectfb-extra libopencv-dev
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
)

triplet_of() { case "$1" in arm64) echo aarch64-linux-gnu ;; armhf) echo arm-linux-gnueabihf ;; esac; }
qemu_of() { case "$1" in arm64) echo aarch64 ;; armhf) echo arm ;; esac; }
now() { date +%s; }
step_start=0
step() { step_start=$(now); echo "=== [cross] $*"; }
step_done() { echo "=== [cross] ... $(($(now) - step_start)) s"; }

install_packages() {
  bash scripts/setup.sh
  local wanted=(mmdebstrap qemu-user-static file) missing=()
  for a in "${arches[@]}"; do wanted+=("crossbuild-essential-$a"); done
  for p in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "cross: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Programs the tests start (daemon, service, tvctl, the sandbox re-running a test) are ARM
# binaries started by native ones: the kernel hands them to qemu through binfmt_misc.
register_binfmt() {
  local dir=/proc/sys/fs/binfmt_misc
  [ -e "$dir/register" ] || mount -t binfmt_misc binfmt_misc "$dir"
  for a in "${arches[@]}"; do
    local q
    q=$(qemu_of "$a")
    [ -e "$dir/qemu-$q" ] || cat "/usr/lib/binfmt.d/qemu-$q.conf" >"$dir/register"
  done
}

make_sysroot() {
  local arch=$1 triplet dest tmp want suite
  triplet=$(triplet_of "$arch")
  dest=$cache/sysroot-$arch
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  want="$suite ${SYSROOT_PACKAGES[*]}"
  if [ "$(cat "$dest/.aipq-sysroot" 2>/dev/null)" = "$want" ]; then
    echo "=== [cross] sysroot $dest reused"
    return 0
  fi
  step "sysroot $dest: download and extract ($suite)"
  mkdir -p "$cache"
  tmp=$cache/.sysroot-$arch.partial
  rm -rf "$tmp"
  local mirror
  # The host's own sources, so the sysroot comes from the same mirror as the cross compilers.
  mirror=$(aipq_debian_sources) || return 1
  # A mirror caught mid-sync fails an index download, and a stale proxy may keep serving the
  # security suite's old index: after two tries, the release and its updates alone will do.
  local try
  local -a mirrors=("$mirror")
  for try in 1 2 3; do
    rm -rf "$tmp"
    mmdebstrap --quiet --variant=extract --arch="$arch" \
      --include="$(IFS=,; echo "${SYSROOT_PACKAGES[*]}")" "$suite" "$tmp" "${mirrors[@]}" && break
    [ "$try" -lt 3 ] || return 1
    if [ "$try" -eq 1 ]; then
      echo "=== [cross] mmdebstrap failed, again in 20 s"
      sleep 20
    else
      local uri
      uri=$(aipq_debian_uri "$mirror") || return 1
      mirrors=("deb $uri $suite main" "deb $uri $suite-updates main")
      echo "=== [cross] mmdebstrap failed again: without the security suite, from $uri"
    fi
  done
  # Absolute links would point into the build machine's own root once the tree is a sysroot.
  local link target
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$tmp$target")" "$link"
  done < <(find "$tmp" -type l -lname '/*' -print0)
  # Made by update-alternatives on a real system, which an extracted tree never runs.
  for lib in blas lapack; do
    if [ -e "$tmp/usr/lib/$triplet/$lib/lib$lib.so.3" ] && [ ! -e "$tmp/usr/lib/$triplet/lib$lib.so.3" ]; then
      ln -s "$lib/lib$lib.so.3" "$tmp/usr/lib/$triplet/lib$lib.so.3"
    fi
  done
  echo "$want" >"$tmp/.aipq-sysroot"
  rm -rf "$dest"
  mv "$tmp" "$dest"
  echo "=== [cross] sysroot $(du -sh "$dest" | cut -f1)"
  step_done
}

build_and_test() {
  local arch=$1 triplet
  triplet=$(triplet_of "$arch")
  step "[$arch] configure and build"
  # --fresh: a changed toolchain file must reach the cache (its flags only initialise it).
  cmake --preset "$arch" --fresh -DAIPQ_SYSROOT="$cache/sysroot-$arch" >/dev/null
  cmake --build --preset "$arch" -j "$jobs"
  step_done
  local bin=build-$arch/bin/ai_manager stripped
  stripped=$(mktemp)
  "$triplet-strip" -o "$stripped" "$bin"
  echo "=== [cross] $(file -b "$bin" | cut -d, -f1-2); stripped daemon $(stat -c %s "$stripped") bytes"
  rm -f "$stripped"
  if [ "$run_tests" -eq 1 ]; then
    step "[$arch] tests under qemu"
    ctest --preset "$arch" -j "$jobs"
    step_done
  fi
}

install_packages
register_binfmt
for a in "${arches[@]}"; do make_sysroot "$a"; done
if [ "$build" -eq 1 ]; then
  for a in "${arches[@]}"; do build_and_test "$a"; done
fi
