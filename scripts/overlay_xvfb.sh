#!/usr/bin/env bash
# A screen for the debug overlay on a PC: a private Xvfb (or the caller's own X display), the
# DirectFB settings that draw on it, and screenshots of it.
#
#   overlay_xvfb.sh start [--use-display] [--mode WxH]
#       Starts Xvfb (1920x1080x24, GLX off, no TCP) on a free display number, or with
#       --use-display takes the caller's $DISPLAY. Prints the settings for the daemon as shell
#       lines, so that   eval "$(scripts/overlay_xvfb.sh start)"   applies them:
#           export DISPLAY=:N
#           export DFBARGS=system=x11,no-banner,quiet,no-cursor,mode=1920x1080
#           export AIPQ_XVFB_PID=1234
#           export FONTFILE=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf
#       (AIPQ_XVFB_PID is empty with --use-display; FONTFILE only when it is unset and that font
#       is installed). --mode sets the DirectFB layer size (default 1920x1080; 1280x720 shows the
#       scaled panel). Starting again while running prints the same settings and starts nothing.
#   overlay_xvfb.sh env
#       Prints the settings again.
#   overlay_xvfb.sh shot OUT.png
#   overlay_xvfb.sh shot PREFIX N
#       Saves a screenshot of the whole screen as PNG, in OUT.png or in PREFIX_N.png (numbered
#       shots, e.g. one per recognition), and prints the file's path. The file appears complete
#       or not at all.
#   overlay_xvfb.sh stop
#       Stops the private Xvfb and forgets the state; the caller's own display is left alone.
#       Stopping when nothing runs is not an error.
#   overlay_xvfb.sh run [--use-display] [--mode WxH] -- COMMAND [ARGS...]
#       start, runs COMMAND with the settings, stop; exits with COMMAND's status.
#
# The state (display, Xvfb pid, settings) lives in $AIPQ_OVERLAY_STATE, by default
# /tmp/aipq_overlay_xvfb.$UID; give each concurrent user a directory of their own.
# Exit status: 0 done, 1 failed (reason on stderr), 2 wrong usage.
#
# DirectFB's x11 system crashes while probing GLX visuals, hence -extension GLX.
set -euo pipefail

STATE=${AIPQ_OVERLAY_STATE:-/tmp/aipq_overlay_xvfb.$(id -u)}
DEJAVU=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf
START_TIMEOUT=30

usage() {
  sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//' >&2
  exit "${1:-2}"
}

die() {
  echo "overlay_xvfb.sh: $*" >&2
  exit 1
}

# True for a live process; a zombie nobody reaps counts as gone.
alive() {
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != Z ]
}

print_env() {
  [ -f "$STATE/env" ] || die "not started (no $STATE/env)"
  cat "$STATE/env"
}

running() {
  [ -f "$STATE/env" ] || return 1
  if [ -f "$STATE/xvfb.pid" ]; then
    alive "$(cat "$STATE/xvfb.pid")"
  else
    return 0  # the caller's display
  fi
}

cmd_start() {
  local use_display=0 mode=1920x1080
  while [ $# -gt 0 ]; do
    case $1 in
      --use-display) use_display=1 ;;
      --mode) [ $# -ge 2 ] || usage; mode=$2; shift ;;
      *) usage ;;
    esac
    shift
  done
  [[ $mode =~ ^[0-9]+x[0-9]+$ ]] || die "bad mode '$mode', want WxH"

  if running; then
    print_env
    return 0
  fi
  rm -rf "$STATE"
  mkdir -p "$STATE"

  local display xvfb_pid=""
  if [ $use_display -eq 1 ]; then
    [ -n "${DISPLAY:-}" ] || die "--use-display but DISPLAY is not set"
    display=$DISPLAY
  else
    command -v Xvfb >/dev/null || die "Xvfb is not installed (scripts/setup.sh installs it)"
    # Xvfb picks a free display number and writes it to the file once it accepts clients.
    Xvfb -displayfd 3 -screen 0 1920x1080x24 -extension GLX -nolisten tcp \
      3>"$STATE/display" >"$STATE/xvfb.log" 2>&1 </dev/null &
    xvfb_pid=$!
    echo $xvfb_pid >"$STATE/xvfb.pid"
    local waited=0
    while ! grep -q '^[0-9]' "$STATE/display" 2>/dev/null; do
      if ! alive "$(cat "$STATE/xvfb.pid")" || [ $waited -ge $((START_TIMEOUT * 10)) ]; then
        cat "$STATE/xvfb.log" >&2 || true
        cmd_stop
        die "Xvfb did not start"
      fi
      sleep 0.1
      waited=$((waited + 1))
    done
    display=":$(head -n1 "$STATE/display")"
  fi

  {
    echo "export DISPLAY=$display"
    echo "export DFBARGS=system=x11,no-banner,quiet,no-cursor,mode=$mode"
    echo "export AIPQ_XVFB_PID=$xvfb_pid"
    if [ -z "${FONTFILE:-}" ] && [ -f "$DEJAVU" ]; then
      echo "export FONTFILE=$DEJAVU"
    fi
  } >"$STATE/env"
  print_env
}

cmd_shot() {
  [ $# -eq 1 ] || [ $# -eq 2 ] || usage
  running || die "not started"
  local out=$1 display tmp
  [ $# -eq 2 ] && out="${1%.png}_$2.png"
  display=$(sed -n 's/^export DISPLAY=//p' "$STATE/env")
  tmp="$(dirname -- "$out")/.$(basename -- "$out").$$.png"
  if ! import -display "$display" -window root "png:$tmp" 2>"$STATE/import.err"; then
    rm -f "$tmp"
    die "screenshot failed: $(cat "$STATE/import.err")"
  fi
  mv -f "$tmp" "$out"
  echo "$out"
}

cmd_stop() {
  if [ -f "$STATE/xvfb.pid" ]; then
    local pid waited=0
    pid=$(cat "$STATE/xvfb.pid")
    if alive "$pid"; then
      kill "$pid" 2>/dev/null || true
      while alive "$pid" && [ $waited -lt 50 ]; do
        sleep 0.1
        waited=$((waited + 1))
      done
      alive "$pid" && kill -9 "$pid" 2>/dev/null || true
    fi
  fi
  rm -rf "$STATE"
}

cmd_run() {
  local opts=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    opts+=("$1")
    shift
  done
  [ $# -ge 2 ] || usage
  shift
  local settings
  settings=$(cmd_start "${opts[@]}")
  local status=0
  (eval "$settings" && "$@") || status=$?
  cmd_stop
  return $status
}

[ $# -ge 1 ] || usage
command=$1
shift
case $command in
  start) cmd_start "$@" ;;
  env) [ $# -eq 0 ] || usage; print_env ;;
  shot) cmd_shot "$@" ;;
  stop) [ $# -eq 0 ] || usage; cmd_stop ;;
  run) cmd_run "$@" ;;
  -h | --help | help) usage 0 ;;
  *) usage ;;
esac
