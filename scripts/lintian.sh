#!/usr/bin/env bash
# Debian 12's lintian on a build's three packages: any error or warning fails (overrides need a
# comment in the package's lintian-overrides file that says why).
#
#   scripts/lintian.sh BUILD_DIR      (after cpack, or the target 'package')
set -euo pipefail
if ! command -v lintian >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends lintian
fi
# lintian warns that it runs as root; that line says nothing about the packages.
status=0
out=$(lintian --fail-on error,warning "$1"/packages/aipq-{manager,ai-service,host-kit}_*.deb 2>&1) || status=$?
grep -v '^running with root privileges is not recommended!$' <<<"$out" || true
[ "$status" -eq 0 ] || { echo "=== [package] lintian failed" >&2; exit 1; }
echo "=== [package] lintian: no error, no warning"
