#!/usr/bin/env bash
# Builds the fuzz preset and runs every target under fuzz/ in turn, each for SECONDS (default 30)
# or for N executions. Any crash, sanitizer report, leak, time-out or broken invariant fails the
# run; libFuzzer's reproducer is kept in fuzz/<target>/findings/ and its path printed. Inputs that
# reach new code go to <build>/corpus/<target>, so the seeds in the tree stay a handful.
#
#   scripts/fuzz.sh [--build-dir DIR] [--no-build] [--runs N] [SECONDS]
#
# Prints one line per target: executions, seconds, corpus entries and bytes, and libFuzzer's
# final coverage figures (cov: edges reached, ft: features).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build-fuzz
seconds=30
runs=""
build_first=1
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --no-build) build_first=0; shift ;;
    -h|--help) sed -n '2,11p' "$0"; exit 0 ;;
    *) seconds=$1; shift ;;
  esac
done

if [ "$build_first" -eq 1 ]; then
  echo "=== [fuzz] configure and build ($build)"
  cmake --preset fuzz -B "$build" >/dev/null
  cmake --build "$build" -j "$(nproc)" --target aipq_fuzz
fi

failed=()
for dir in fuzz/*/; do
  target=$(basename "$dir")
  binary="$build/fuzz/$target"
  [ -x "$binary" ] || continue
  corpus="$build/corpus/$target"
  findings="$PWD/fuzz/$target/findings"
  log="$build/fuzz/$target.log"
  mkdir -p "$corpus" "$findings"
  args=(-print_final_stats=1 -timeout=20 -rss_limit_mb=2048 -artifact_prefix="$findings/")
  if [ -n "$runs" ]; then args+=(-runs="$runs"); else args+=(-max_total_time="$seconds"); fi
  [ -f "fuzz/$target/$target.dict" ] && args+=(-dict="fuzz/$target/$target.dict")
  start=$(date +%s)
  # In the sandbox: the request target makes the daemon's segment and queue under their fixed names.
  if scripts/sandbox.sh "$binary" "${args[@]}" "$corpus" "fuzz/$target/seeds" >"$log" 2>&1; then
    status=ok
  else
    status=FAILED
    failed+=("$target")
  fi
  elapsed=$(($(date +%s) - start))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
  entries=$(find "$corpus" -type f | wc -l)
  bytes=$(find "$corpus" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
  printf '%-22s %-6s %10s execs %5s s  corpus %5s entries %8s bytes  %s\n' \
    "$target" "$status" "${execs:-?}" "$elapsed" "$entries" "$bytes" "${cov:-}"
  if [ "$status" = FAILED ]; then
    grep -E 'ERROR:|invariant broken|runtime error|SUMMARY' "$log" | head -5 || true
    reproducer=$(ls -t "$findings" 2>/dev/null | head -1)
    echo "    reproducer: ${reproducer:+$findings/$reproducer}   log: $log"
  fi
  rmdir "$findings" 2>/dev/null || true
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "=== [fuzz] findings in: ${failed[*]}"
  exit 1
fi
echo "=== [fuzz] no findings"
