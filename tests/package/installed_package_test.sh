#!/usr/bin/env bash
# A build's Debian packages unpacked into a scratch root: the installed daemon, AI service and
# tvctl pass the end-to-end tests that start them (a row applied, SIGTERM to exit status 0), the
# daemon finding its capture plug-in and DirectFB probe where the packages put them; the installed
# aipq_service_check passes the installed service.
#
#   tests/package/installed_package_test.sh BUILD_DIR      (after cpack, or the target 'package')
set -euo pipefail
build=$(cd "$1" && pwd)
root=$(mktemp -d /tmp/aipq_package_XXXXXX)
trap 'rm -rf "$root"' EXIT
for package in aipq-manager aipq-ai-service aipq-host-kit; do
  deb=$(ls "$build"/packages/"$package"_*_amd64.deb)
  dpkg -x "$deb" "$root"
done
for unit in ai_manager ai_service; do
  grep -qx "ExecStart=/usr/bin/$unit" "$root/usr/lib/systemd/system/$unit.service"
done
AIPQ_E2E_BIN_DIR="$root/usr/bin" "$build/tests/e2e_tests" --gtest_filter='CaptureE2E.*:OverlayDumpE2E.*'
# The installed conformance check passes the installed reference service.
scripts=$(cd "$(dirname "$0")/../../scripts" && pwd)
"$scripts/sandbox.sh" "$root/usr/bin/aipq_service_check" --rounds 2 --service "$root/usr/bin/ai_service" \
  --service-log /dev/null
