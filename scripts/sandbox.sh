#!/usr/bin/env bash
# Runs a command inside private IPC, mount and PID namespaces (with its own /proc) and fresh tmpfs
# on /var/run and /var/local, so that the fixed queue name, segment key and marker files of one run
# never meet those of another run or of the machine. Everything goes when the command ends, and
# when whoever started the sandbox dies (ctest killed, or timing a test out): every process in it
# is killed with it.
#
#   scripts/sandbox.sh COMMAND [ARGS...]
set -euo pipefail

if [ $# -eq 0 ]; then
  echo "usage: $0 COMMAND [ARGS...]" >&2
  exit 2
fi

if [ -z "${AIPQ_SANDBOXED:-}" ]; then
  userns=()
  [ "$(id -u)" -eq 0 ] || userns=(--map-root-user)
  # The parent-death signal ties unshare to its caller; unshare's own --kill-child then ends the
  # namespace's first process, and with it every other process in the namespace.
  exec setpriv --pdeathsig KILL unshare "${userns[@]}" --ipc --mount --pid --mount-proc --fork \
    --kill-child env AIPQ_SANDBOXED=1 "$0" "$@"
fi

mount --make-rprivate /
# /var/run is a link to /run on Debian; cover both in case it is not.
mount -t tmpfs -o mode=0755 tmpfs /run
[ -L /var/run ] || mount -t tmpfs -o mode=0755 tmpfs /var/run
mount -t tmpfs -o mode=0755 tmpfs /var/local
# A view of this namespace's POSIX queues, for tools and tests that want to look at them.
mkdir -p /run/mqueue
mount -t mqueue mqueue /run/mqueue
# Not exec'd: this shell stays the namespace's first process, which reaps the orphans (an Xvfb left
# by its script, say) that would otherwise stay zombies and look alive to kill -0.
"$@"
