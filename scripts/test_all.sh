#!/usr/bin/env bash
# Sets up the machine, builds and runs every test: the release build with all unit and
# end-to-end tests, then all of them again under AddressSanitizer+UBSan and ThreadSanitizer,
# then everything built for arm64 and armhf and tested under qemu.
#
#   scripts/test_all.sh [--quick]    --quick: release build only, no sanitizer passes
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
[ "${1:-}" = "--quick" ] && quick=1

bash scripts/setup.sh

jobs=$(nproc)
run_preset() {
  local preset=$1
  echo "=== [$preset] configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "=== [$preset] test"
  ctest --preset "$preset" -j "$jobs"
}

run_preset default
if [ "$quick" -eq 0 ]; then
  run_preset asan
  run_preset tsan
  # ARM builds against Debian sysroots (made once, kept in /var/cache/aipq), tests under qemu.
  bash scripts/cross_arm.sh arm64 armhf
fi
echo "=== all tests passed"
