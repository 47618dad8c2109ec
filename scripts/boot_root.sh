#!/usr/bin/env bash
# A minimal Debian 12 booted under systemd-nspawn with a build's three Debian packages installed
# by apt, the way a distribution installs them: what tests/package/boot_test.sh runs in, and a
# place to try the units by hand.
#
#   scripts/boot_root.sh BUILD_DIR     boots it and opens a shell inside; poweroff ends it
#   . scripts/boot_root.sh             (from a test) boot_root_start BUILD_DIR; in_root CMD ...;
#                                      boot_root_stop (also on exit)
#
# The root is made once by mmdebstrap (minbase, systemd, systemd-sysv, dbus; the mirror from the
# machine's apt configuration, scripts/debian_sources.sh) and kept in $AIPQ_SYSROOT_CACHE/
# boot-bookworm (default /var/cache/aipq, beside the ARM sysroots). Every boot uses a fresh copy
# into which `apt-get install ./*.deb` puts the packages, so their dependencies must resolve
# there and their maintainer scripts run; the .deb files apt downloads are kept in boot-apt.
# Needs root. The machine itself need not run systemd: --keep-unit keeps nspawn off its bus.
set -euo pipefail
_boot_here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$_boot_here/scripts/debian_sources.sh"

BOOT_CACHE=${AIPQ_SYSROOT_CACHE:-/var/cache/aipq}
BOOT_PACKAGES=systemd,systemd-sysv,dbus
BOOT_ROOT=""
BOOT_NSPAWN=""
BOOT_LEADER=""

_boot_log() { echo "=== [boot] $*"; }

_boot_tools() {
  local missing=() p
  for p in mmdebstrap systemd-container; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  _boot_log "installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# The cached root: minbase and the three packages only, never anything installed on top.
_boot_cached_root() {
  local dest=$BOOT_CACHE/boot-bookworm want="bookworm minbase $BOOT_PACKAGES" mirror tmp
  if [ "$(cat "$dest/.aipq-boot-root" 2>/dev/null)" = "$want" ]; then
    return 0
  fi
  mirror=$(aipq_debian_sources)
  tmp=$dest.tmp
  _boot_log "making the Debian 12 root in $dest (mmdebstrap, from $mirror)"
  mkdir -p "$BOOT_CACHE"
  rm -rf "$tmp"
  if ! mmdebstrap --quiet --variant=minbase --include="$BOOT_PACKAGES" bookworm "$tmp" "$mirror"; then
    _boot_log "mmdebstrap failed, again in 20 s"
    sleep 20
    rm -rf "$tmp"
    mmdebstrap --quiet --variant=minbase --include="$BOOT_PACKAGES" bookworm "$tmp" "$mirror"
  fi
  echo "$want" >"$tmp/.aipq-boot-root"
  rm -rf "$dest"
  mv "$tmp" "$dest"
}

# Runs a command inside the booted root, as root, in all its namespaces.
in_root() {
  nsenter -t "$BOOT_LEADER" -a "$@"
}

boot_root_stop() {
  if [ -n "$BOOT_NSPAWN" ] && kill -0 "$BOOT_NSPAWN" 2>/dev/null; then
    in_root systemctl poweroff >/dev/null 2>&1 || true
    for _ in $(seq 1 100); do
      kill -0 "$BOOT_NSPAWN" 2>/dev/null || break
      sleep 0.2
    done
    kill -KILL "$BOOT_NSPAWN" 2>/dev/null || true
    wait "$BOOT_NSPAWN" 2>/dev/null || true
  fi
  BOOT_NSPAWN=""
  [ -z "$BOOT_ROOT" ] || rm -rf "$BOOT_ROOT" "$BOOT_ROOT.console"
  BOOT_ROOT=""
}

boot_root_start() {
  local build debs state
  build=$(cd "$1" && pwd)
  debs=("$build"/packages/aipq-manager_*.deb "$build"/packages/aipq-ai-service_*.deb
    "$build"/packages/aipq-host-kit_*.deb)
  _boot_tools
  _boot_cached_root
  BOOT_ROOT=$(mktemp -d /var/tmp/aipq_boot_XXXXXX)
  trap boot_root_stop EXIT
  _boot_log "fresh copy in $BOOT_ROOT, apt-get install of $(basename -a "${debs[@]}" | tr '\n' ' ')"
  cp -a "$BOOT_CACHE/boot-bookworm/." "$BOOT_ROOT/"
  mkdir -p "$BOOT_ROOT/root/debs" "$BOOT_CACHE/boot-apt/partial"
  cp "${debs[@]}" "$BOOT_ROOT/root/debs/"
  systemd-nspawn -q -D "$BOOT_ROOT" --register=no --keep-unit \
    --bind="$BOOT_CACHE/boot-apt:/var/cache/apt/archives" --setenv=DEBIAN_FRONTEND=noninteractive \
    sh -c 'cd /root/debs && apt-get update -qq && apt-get install -y -qq ./*.deb >/root/apt.log 2>&1 ||
      { cat /root/apt.log; exit 1; }'
  _boot_log "booting systemd"
  systemd-nspawn -q -D "$BOOT_ROOT" --boot --register=no --keep-unit >"$BOOT_ROOT.console" 2>&1 &
  BOOT_NSPAWN=$!
  for _ in $(seq 1 150); do
    BOOT_LEADER=$(pgrep -P "$BOOT_NSPAWN" | head -1 || true)
    [ -n "$BOOT_LEADER" ] && state=$(in_root systemctl is-system-running 2>/dev/null) || state=""
    case "$state" in
      running) return 0 ;;
      degraded) in_root systemctl --failed --no-pager >&2; return 1 ;;
    esac
    sleep 0.2
  done
  echo "boot: systemd did not come up (state '$state'); console:" >&2
  cat "$BOOT_ROOT.console" >&2
  return 1
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  [ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
  boot_root_start "$1"
  _boot_log "inside: exit or poweroff to end"
  in_root bash -l || true
fi
