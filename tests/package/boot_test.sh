#!/usr/bin/env bash
# The Debian packages installed by apt into a fresh Debian 12 and run by its systemd
# (scripts/boot_root.sh).   tests/package/boot_test.sh BUILD_DIR   (after the target 'package')
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/boot_root.sh
fail() { echo "boot test: $*" >&2; in_root journalctl -b --no-pager -n 60 >&2 || true; exit 1; }
show() { in_root systemctl show -P "$2" "$1.service"; }
within() { # S CMD...: polls CMD for up to S seconds
  local end=$((SECONDS + $1)); shift
  until "$@" >/dev/null 2>&1; do [ $SECONDS -lt $end ] || return 1; sleep 0.5; done; }
is() { [ "$(show "$1" ActiveState)" = "$2" ]; }
errors() { in_root journalctl -b -q -o cat -u ai_manager -u ai_service -p err; }
start=$SECONDS && boot_root_start "$1"

# Type=notify: ai_manager is active only once the host port has sent READY=1.
for unit in aipq-host-tv ai_service ai_manager; do
  within 60 is $unit active || fail "$unit is $(show $unit ActiveState)"
done
for unit in ai_manager ai_service; do
  user=$(in_root stat -c %U "/proc/$(show $unit MainPID)")
  [ "$user" = aipq ] || fail "$unit runs as $user"
  score=$(in_root systemd-analyze security "$unit.service" | sed -n 's/.*exposure level for .*: \([0-9.]*\) .*/\1/p')
  awk -v s="$score" 'BEGIN { exit !(s <= 2.0) }' || fail "$unit exposure $score"
  echo "=== [boot] $unit: user $user, exposure $score"
done

in_root tvctl preset watching >/dev/null
within 60 in_root test -s /run/aipq_tv/pq_parameters || fail "no PQ row in the TV directory"
[ -z "$(errors)" ] || fail "error lines in a good run: $(errors)"

# The named fault: the AI service stopped while the TV plays. The cycle's next request (service
# set-up, model or prediction, as the stop falls) times out and the cycle gives up.
in_root systemctl stop ai_service
gave_up() { errors | grep -qE 'initAiService failed|Load model error|ImagePredict failed'; }
within 60 gave_up || fail "no error line for the stopped AI service"
unexpected=$(errors | sed -E 's/^\[[0-9]+\] //; s/^([a-z_]+\.cpp):[0-9]+:/\1:/' | grep -vE '^recognition_process_manager.cpp:('\
'waitMessageFinished\(\): \[AI Manager\] time out\.|loadAiServiceEnv\(\): \[AI Manager\] initAiService failed\. (time out: [0-9]+|init result: [0-9]+\.)|'\
'recognitionPicture\(\): \[AI Manager\] (Load model error\. loadModelResult|ImagePredict failed\. imagePredictResult): [0-9]+ ?\.)$' || true)
[ -z "$unexpected" ] || fail "other error lines for the stopped AI service: $unexpected"

t0=$SECONDS && in_root systemctl stop ai_manager
[ $((SECONDS - t0)) -le 5 ] || fail "systemctl stop ai_manager took $((SECONDS - t0)) s"
[ "$(show ai_manager Result)" = success ] || fail "stopped with result $(show ai_manager Result)"

# No AIPQ on this TV: the daemon exits with status 0 without run(); no failure, no restart.
in_root tvctl set aipq_supported 0 && in_root systemctl start ai_manager
within 20 is ai_manager inactive || fail "unsupported TV: $(show ai_manager ActiveState)"
[ "$(show ai_manager Result)/$(show ai_manager NRestarts)" = success/0 ] ||
  fail "unsupported TV: result $(show ai_manager Result), $(show ai_manager NRestarts) restarts"
echo "=== [boot] passed in $((SECONDS - start)) s"
