#!/usr/bin/env bash
# The running agent when things go wrong around it: its daemon or its event
# helper killed, its preferences spoiled, a flood, a log it cannot write, and
# no session bus, system bus or display. Each case ends with the agent alive,
# still finding infected files, and its log saying what happened.
#
#   faults_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

default_setup
# The machine's own system bus must not answer, whatever it runs.
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/no-system-bus
start_agent

# still_finds NAME: the agent still turns a new infected file into a finding.
still_finds() {
  expect_alive "before $1"
  write_eicar "$watched/$1.com" " $1"
  expect_logged 120 "$watched/$1.com$finding" "the agent no longer finds infected files ($1)"
}

# flood FOLDER COUNT: that many small files, each with its own content.
flood() {
  mkdir -p "$1"
  (cd "$1" && seq "$2" | xargs -P 2 -n 500 sh -c 'for i; do echo "file $i of a flood" >"f$i"; done' sh)
}

echo "== clamd killed in the middle of a flood"
flood "$watched/flood-1" 3000 &
flooder=$!
first_daemon=$(daemon_pid)
wait_for 120 logged "/flood-1/" || fail "the flood was not scanned"
kill -KILL "$first_daemon"
wait $flooder
# A scan that meets the dead daemon starts it again.
echo "written after the crash" >"$watched/after-crash.txt"
expect_logged 300 "clamd appears to have died - attempting restart..." "the dead daemon was not noticed"
# Both scanners may meet the dead daemon and start one each; one of them
# wins the socket. Any live clamd other than the killed one.
wait_for 60 clamd_besides "$first_daemon" || fail "clamd was not started again"
still_finds after-clamd-crash

echo "== gfslogger killed"
helper=$(pgrep -P "$agent_pid" -x gfslogger) || fail "no gfslogger under the agent"
# Events of a helper that is killed are lost with it: a file written while
# it was stopped is found by the walk that follows its restart.
kill -STOP "$helper"
write_eicar "$watched/while-the-helper-was-down.com"
kill -KILL "$helper"
expect_logged 15 "termination status = " "the helper's end was not logged"
wait_for 60 bash -c "pgrep -P $agent_pid -x gfslogger >/dev/null" || fail "gfslogger was not started again"
expect_logged 60 "$watched/while-the-helper-was-down.com$finding" "a file written while gfslogger was down was not scanned"
logged "gfslogger ended while watching" || fail "the walk after the helper's end was not logged"
wait_until_watching
still_finds after-helper-killed

echo "== Preferences replaced by garbage while watching, then restarted"
prefs=$XDG_CONFIG_HOME/korvane
cp "$prefs/com.korvane.Korvane.json" "$work/good-prefs.json"
printf '{"PathToClamav": "%s", "VelgarFolderArray": [{"pathName": ' "$prefix" >"$prefs/com.korvane.Korvane.json"
echo '[1, 2]' >"$prefs/com.korvane.KorvaneVelgar.json"
own_spoiled="Preferences file $prefs/com.korvane.KorvaneVelgar.json could not be read and counts as empty: the file holds no JSON object"
"$ctl" restart >/dev/null
expect_logged 60 "Preferences file $prefs/com.korvane.Korvane.json could not be read and counts as empty" \
  "the spoiled suite file was not named in the log"
expect_logged 60 "$own_spoiled" "the agent's file, a list, was not named in the log"
expect_logged 60 "ClamAV installation couldn't be found.  Quitting now." "the empty preferences did not stop the load"
# Once a load, at every load.
[ "$(log_count "$own_spoiled")" -eq 1 ] || fail "a spoiled file was named more than once in one load"
"$ctl" restart >/dev/null
named_again() { [ "$(log_count "$own_spoiled")" -eq 2 ]; }
wait_for 60 named_again || fail "a spoiled file was not named again at the next load"
expect_alive "after garbage preferences"
cp "$work/good-prefs.json" "$prefs/com.korvane.Korvane.json"
rm "$prefs/com.korvane.KorvaneVelgar.json"
restart_agent
still_finds after-garbage-preferences

echo "== A flood of 50,000 files"
results_before=$(log_count ": OK")
flood_start=$SECONDS
flood "$watched/flood-2" 50000
all_scanned() { [ $(($(log_count ": OK") - results_before)) -ge 50000 ]; }
wait_for 900 all_scanned || fail "only $(($(log_count ": OK") - results_before)) of 50,000 files were scanned"
echo "   50,000 files written and scanned in $((SECONDS - flood_start)) s;" \
  "the agent's peak resident memory: $(awk '/VmHWM/ {print $2, $3}' /proc/"$agent_pid"/status)"
[ "$(grep -c '/flood-2/' "$log")" -eq 50000 ] || fail "a file of the flood was scanned twice or not at all"
still_finds after-flood
quit_agent

echo "== The log folder cannot be written"
logs=$HOME/Library/Logs
mkdir -p "$logs"
mount -t tmpfs -o ro,size=1m tmpfs "$logs" || fail "cannot mount a read-only folder for the log"
"$agent_bin" >"$work/unwritable.out" 2>&1 &
agent_pid=$!
wait_for 60 grep -q "Watching started" "$work/unwritable.out" || fail "the agent did not start without a writable log"
grep -q "The scan log $log cannot be opened" "$work/unwritable.out" || fail "no line about the log that cannot be opened"
wait_until_watching "$work/unwritable.out"
write_eicar "$watched/unwritable-log.com"
wait_for 120 grep -qF "$watched/unwritable-log.com$finding" "$work/unwritable.out" ||
  fail "the finding did not reach the agent's own output"
quit_agent
umount "$logs"

echo "== No session bus, no system bus, no display"
rm -f "$log"
env -u DBUS_SESSION_BUS_ADDRESS -u QT_QPA_PLATFORM "$agent_bin" >>"$agent_out" 2>&1 &
agent_pid=$!
expect_logged 60 "Watching started"
wait_until_watching
logged "No D-Bus session bus: running without single-instance protection" || fail "no line about the missing session bus"
logged "No D-Bus system bus: watching goes on unchanged when the machine sleeps" || fail "no line about the missing system bus"
logged "No display: the menu, dialogs and icon are not shown" || fail "no line about the missing display"
still_finds without-buses-or-display
# Without a bus, a termination signal is the way to quit; it is as orderly.
kill -TERM "$agent_pid"
status=0
wait "$agent_pid" || status=$?
agent_pid=
[ $status -eq 0 ] || fail "the agent ended with status $status on SIGTERM"
echo "all fault checks passed"
