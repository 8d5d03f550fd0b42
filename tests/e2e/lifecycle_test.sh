#!/usr/bin/env bash
# The agent as users and scripts meet it: the real binary on a private
# session bus, driven by velgarctl, with a real clamd from Debian.
#
#   lifecycle_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

default_setup
agent=$agent_bin
# The log and its rotated archives: a rotation at the start moves the
# lines written before it into the newest archive.
logged() { grep -qF -- "$1" <({ cat "$log"; bzcat "$log".*.bz2; } 2>/dev/null); }
"$ctl" defaults write com.korvane.KorvaneVelgar rotateScanlogWhenSizeReaches -int 1 >/dev/null
"$ctl" listen > "$work/heard" &
background_pids+=($!)

echo "== It launches its own clamd, rotates its log, restarts and quits"
mkdir -p "$(dirname "$log")"
for _ in $(seq 64); do echo "an earlier line of the scan log, to be rotated away"; done > "$log"
"$agent" & pid=$!; background_pids+=($pid)
wait_for 60 logged "Watching started" || fail "no start of watching"
logged "clamd launched successfully.  Continuing..." || fail "clamd not launched by the agent"
pgrep -f "clamd -c $prefix/etc/clamd.conf" >/dev/null || fail "ps does not show clamd with -c $prefix/etc/clamd.conf"
ls "$HOME/Library/Logs/"KorvaneVelgar-scan.log.*bz2 >/dev/null 2>&1 || fail "the oversized log was not rotated"
[ "$(stat -c %a "$log")" = 640 ] || fail "the new log is not mode 640"
status=0; "$agent" || status=$?
[ $status -eq 0 ] || fail "a second agent exited $status"
logged "Korvane Velgar is already running" || fail "the second agent did not say it was already running"
"$ctl" quit >/dev/null
status=0; wait $pid || status=$?
[ $status -eq 0 ] || fail "the agent exited $status"
logged "trying to quit clamd" || fail "no QUIT for the agent's own clamd"
wait_for 60 bash -c "! kill -0 \$(cat $prefix/run/clamd.pid 2>/dev/null) 2>/dev/null || grep -q '^State:.*Z' /proc/\$(cat $prefix/run/clamd.pid)/status" || fail "clamd still runs after QUIT"
wait_for 5 grep -qx "KorvaneVelgarHasQuit KorvaneVelgar" "$work/heard" || fail "velgarctl listen did not hear KorvaneVelgarHasQuit"
[ -z "$(ls "$XDG_RUNTIME_DIR"/scanlogrotate.conf 2>/dev/null)" ] || fail "scanlogrotate.conf left behind"

echo "== A restart reads the preferences again; a clamd it found is left running"
wait_for 60 bash -c "! pgrep -f '^$prefix/sbin/clamd' >/dev/null" || fail "old clamd lingers"
"$prefix/sbin/clamd" -c "$prefix/etc/clamd.conf"
wait_for 60 daemon_alive || fail "clamd did not start"
rm -f "$log" "$log".*
"$agent" & pid=$!; background_pids+=($pid)
wait_for 60 logged "Watching started" || fail "no start with a running clamd"
"$ctl" defaults write com.korvane.Korvane multiscan -string yes >/dev/null
"$ctl" restart >/dev/null
wait_for 60 logged "restartWatcher" || fail "restart not logged"
wait_for 60 logged "Will use as many processor cores" || fail "preferences not read again on restart"
"$ctl" quit >/dev/null
wait $pid || fail "the agent did not exit 0"
daemon_alive || fail "quitting stopped a clamd the agent did not launch"
kill "$(daemon_pid)"

echo "== Without an installation prefix it keeps running and still obeys"
wait_for 60 bash -c "! pgrep -f '^$prefix/sbin/clamd' >/dev/null" || fail "clamd lingers"
"$ctl" defaults delete com.korvane.Korvane PathToClamav >/dev/null
rm -f "$log" "$log".*
"$agent" & pid=$!; background_pids+=($pid)
wait_for 60 logged "ClamAV installation couldn't be found.  Quitting now." || fail "no no-engine line"
sleep 0.5
kill -0 $pid || fail "the agent ended without a prefix"
"$ctl" restart >/dev/null
wait_for 60 logged "restartWatcher" || fail "restart not obeyed without a prefix"
"$ctl" quit >/dev/null
wait $pid || fail "the agent did not exit 0 without a prefix"
pgrep -f "^$prefix/sbin/clamd" >/dev/null && fail "a clamd was launched without a prefix"
echo "all agent checks passed"
