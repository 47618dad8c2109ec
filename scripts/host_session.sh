#!/usr/bin/env bash
# The host TV, run inside scripts/sandbox.sh by scripts/run_host.sh (see there for options).
set -euo pipefail
cd "$(dirname "$0")/.."

if [ -z "${AIPQ_SANDBOXED:-}" ]; then
  echo "host_session.sh runs inside scripts/sandbox.sh; use scripts/run_host.sh" >&2
  exit 2
fi

source_path="" duration="" overlay=0 dump_dir="" logs_dir=""
while [ $# -gt 0 ]; do
  case "$1" in
    --source) source_path=$(realpath "$2"); shift 2 ;;
    --duration) duration=$2; shift 2 ;;
    --overlay) overlay=1; shift ;;
    --dump) dump_dir=$(realpath -m "$2"); shift 2 ;;
    --logs) logs_dir=$(realpath -m "$2"); shift 2 ;;
    *) echo "unknown option: $1 (see scripts/run_host.sh --help)" >&2; exit 2 ;;
  esac
done
if [ -n "$source_path" ] && [ ! -e "$source_path" ]; then
  echo "frame source not found: $source_path" >&2
  exit 2
fi
if [ -n "$duration" ] && ! [[ "$duration" =~ ^[0-9]+$ ]]; then
  echo "--duration takes whole seconds, not '$duration'" >&2
  exit 2
fi

BIN=${AIPQ_BUILD_BIN:-$PWD/build/bin}
for b in ai_manager ai_service tvctl; do
  [ -x "$BIN/$b" ] || { echo "missing $BIN/$b: build first (scripts/run_host.sh builds)" >&2; exit 2; }
done

export AIPQ_TV_DIR=/var/run/aipq_tv
run=/var/run/aipq_session
mkdir -p "$run"
logs=${logs_dir:-$run}
mkdir -p "$logs"

pids=()
cleanup() {
  trap - INT TERM EXIT
  echo
  echo "stopping ..."
  # The view goes first: the daemon clears its overlay on the way out.
  [ -n "${viewer_pid:-}" ] && kill -TERM "$viewer_pid" 2>/dev/null || true
  [ -n "${daemon_pid:-}" ] && kill -TERM "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null || true
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ -n "$logs_dir" ] && echo "logs kept in $logs_dir"
  echo "done: the sandbox and everything in it are gone"
}
trap cleanup INT TERM EXIT

"$BIN/tvctl" preset watching >/dev/null
if [ -n "$dump_dir" ]; then
  mkdir -p "$dump_dir" /var/local/aipq_dump
  mount --bind "$dump_dir" /var/local/aipq_dump
  touch /var/local/aipq_dump/aipq_dump_capture_picture_bmp
fi

shot_cmd=""
if [ "$overlay" -eq 1 ]; then
  shots=${logs_dir:-$PWD/aipq_overlay}
  mkdir -p "$shots"
  export AIPQ_OVERLAY_STATE=/var/run/aipq_overlay  # inside the sandbox: gone with it
  eval "$(scripts/overlay_xvfb.sh start)"
  pids+=("$AIPQ_XVFB_PID")
  touch /var/local/aipq_show_debug_window_enable
  shot_cmd="scripts/overlay_xvfb.sh shot $shots/overlay"
  echo "overlay on DISPLAY=$DISPLAY, screenshots in $shots"
fi

"$BIN/ai_service" >"$logs/ai_service.log" 2>&1 &
pids+=($!)

touch /var/run/BIZREADY2
AIPQ_LOG_FILE="$logs/ai_manager.log" AIPQ_CAPTURE_SOURCE="$source_path" "$BIN/ai_manager" &
daemon_pid=$!

echo "host TV running: source ${source_path:-built-in synthetic scenes}; $("$BIN/tvctl" get player_state >/dev/null && echo 'state watching')"
echo "first recognition in about 3 s, then every 5 s; Ctrl-C to stop"
python3 tools/live_view/aipq_live.py "$logs/ai_manager.log" "$AIPQ_TV_DIR" "$BIN/tvctl" ${shot_cmd:+--screenshot-cmd "$shot_cmd"} &
viewer_pid=$!

if [ -n "$duration" ]; then
  sleep "$duration" &
  wait $! || true
else
  wait "$daemon_pid" || true
fi
