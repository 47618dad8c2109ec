#!/usr/bin/env bash
# Runs a cross-built program under qemu user mode, with the target's loader and libraries taken
# from the sysroot, in this program and in every ARM program it starts (binfmt_misc hands those
# to qemu, which reads QEMU_LD_PREFIX). The cross toolchain files use it as the emulator.
#
#   scripts/qemu_run.sh [--readdir32] QEMU SYSROOT PROGRAM [ARGS...]
#
# --readdir32, for 32-bit targets: a prebuilt library built without large-file support lists a
# directory with a readdir that fails with EOVERFLOW when ext4 hands it 64-bit directory hashes,
# which it does to qemu on a 64-bit kernel (a 32-bit kernel gets 32-bit hashes). DirectFB lists its
# module directory that way and then starts without any system. As root, such directories of the
# sysroot are then seen through a tmpfs copy, in a mount namespace of this program's own.
set -euo pipefail

readdir32=0
if [ "${1:-}" = "--readdir32" ]; then
  readdir32=1
  shift
fi
if [ $# -lt 3 ]; then
  echo "usage: $0 [--readdir32] QEMU SYSROOT PROGRAM [ARGS...]" >&2
  exit 2
fi
qemu=$1
sysroot=$2

if [ "$readdir32" -eq 1 ] && [ -z "${AIPQ_QEMU_READDIR32:-}" ] && [ "$(id -u)" -eq 0 ]; then
  dirs=("$sysroot"/usr/lib/*/directfb-*/)
  if [ -d "${dirs[0]}" ]; then
    exec unshare --mount --propagation private env AIPQ_QEMU_READDIR32=1 "$0" --readdir32 "$@"
  fi
fi
if [ "${AIPQ_QEMU_READDIR32:-}" = 1 ]; then
  export AIPQ_QEMU_READDIR32=done
  for dir in "$sysroot"/usr/lib/*/directfb-*/; do
    copy=$(mktemp -d "${TMPDIR:-/tmp}/aipq-readdir32.XXXXXX")
    cp -a "$dir." "$copy"
    mount -t tmpfs -o mode=0755 tmpfs "$dir"
    cp -a "$copy/." "$dir"
    rm -rf "$copy"
  done
fi

shift 2
export QEMU_LD_PREFIX=$sysroot
exec "$qemu" "$@"
