#!/usr/bin/env bash
# Sets up the machine, builds the release preset and runs the whole host TV in a private
# sandbox: the TV simulator in state "watching", the reference AI service and the daemon, with a
# live view of each recognition. Ctrl-C (or --duration) ends it and leaves nothing behind.
#
#   scripts/run_host.sh [--source IMAGE|DIR|VIDEO] [--duration SECONDS] [--overlay]
#                       [--dump DIR] [--logs DIR] [--no-build]
#
#   --source    frames from an image file, a directory of images (name order) or a video;
#               default: built-in synthetic scenes
#   --duration  stop after this many seconds (default: run until Ctrl-C)
#   --overlay   switch the debug overlay on, draw it on a private Xvfb and save a screenshot
#               after each recognition (into --logs DIR, or ./aipq_overlay)
#   --dump      save every captured frame as BMP into DIR
#   --logs      keep the daemon's and the service's logs in DIR
#   --no-build  use the existing build/ as it is
set -euo pipefail
cd "$(dirname "$0")/.."

build=1
args=()
for a in "$@"; do
  if [ "$a" = "--no-build" ]; then build=0; else args+=("$a"); fi
  if [ "$a" = "-h" ] || [ "$a" = "--help" ]; then sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
done

if [ "$build" -eq 1 ]; then
  bash scripts/setup.sh
  cmake --preset default >/dev/null
  cmake --build --preset default -j "$(nproc)" --target ai_manager ai_service tvctl
fi
exec scripts/sandbox.sh scripts/host_session.sh "${args[@]}"
