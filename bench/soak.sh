#!/usr/bin/env bash
# Soak of the whole host TV: the reference AI service and ai_manager of a release build in one
# sandbox at a raised time scale, through a scripted life that repeats every virtual hour (gates
# flapping, input source and player state, power state 8, the AI service killed and restarted,
# its queue unlinked and its segment removed, memory limited and lacking through a crafted
# /proc/meminfo bound over the real one in the sandbox). Every virtual minute it samples both
# processes' Rss, Pss, private memory, descriptors, threads and log growth; at the end it writes
# a table (soak.md), the samples (soak.tsv) and a plot (soak.png, with gnuplot), and fails when
# the last hour's steady state differs from the first hour's beyond noise.
#
#   bench/soak.sh [--build-dir DIR] [--hours N] [--scale S] [--out DIR] [--source IMAGE|DIR|VIDEO]
#
#   --build-dir  build tree whose bin/ holds ai_manager, ai_service and tvctl (default: build)
#   --hours      virtual hours, at least 2 (default 24)
#   --scale      AIPQ_TIME_SCALE (default 60: a virtual hour takes a real minute)
#   --out        results and logs (default BUILD_DIR/soak)
#   --source     frame source for the daemon (default: the built-in scenes, which change every
#                cycle, so every cycle applies a row)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
for a in "$@"; do
  if [ "$a" = "-h" ] || [ "$a" = "--help" ]; then sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
done
exec python3 "$here/soak.py" "$@"
