#!/usr/bin/env bash
# What the daemon costs on the whole host TV: runs the TV simulator, the reference AI service and
# ai_manager of a release build, each run in its own sandbox, and prints one table of medians.
#
#   bench/system_bench.sh [--build-dir DIR] [--runs N] [--quick] [--build] [--explain]
#                         [--source IMAGE|DIR|VIDEO] [--json FILE]
#
#   --build-dir  build tree whose bin/ holds ai_manager, ai_service and tvctl (default: build)
#   --runs       independent runs, each in a fresh sandbox (default 3; 1 with --quick)
#   --quick      a smoke run: 12 s of recognition and 6 s parked instead of 60 s and 30 s
#   --build      build those three targets in the build tree first
#   --explain    after the table, where the daemon's memory sits: mappings grouped by the
#                library that brought them in, heap, thread stacks
#   --source     frame source for the daemon (default: the built-in scenes, which change
#                every cycle, so every cycle applies a row)
#   --json       also write every figure of every run to FILE
#
# Figures, not verdicts: the exit status says whether the runs worked, never whether a budget
# was met. Nothing is left behind: the runs live on the sandboxes' tmpfs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
for a in "$@"; do
  if [ "$a" = "-h" ] || [ "$a" = "--help" ]; then sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
done
exec python3 "$here/system_bench.py" "$@"
