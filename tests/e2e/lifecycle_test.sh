#!/usr/bin/env bash
# The agent's life as users and scripts see it: the real binary on a private
# session bus, driven by velgarctl, with a real clamd from Debian. It rotates
# an oversized log, empties its indicator's temporary folder of files,
# launches its own clamd, refuses a second copy, and at a quit stops that
# clamd and says so on the bus. (A restart, a clamd it found
# and left running: e2e.road; a load without an engine: e2e.faults.)
#
#   lifecycle_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

default_setup
# The log and its rotated archives: a rotation at the start moves the
# lines written before it into the newest archive.
logged() { grep -qF -- "$1" <({ cat "$log"; bzcat "$log".*.bz2; } 2>/dev/null); }
"$ctl" defaults write com.korvane.KorvaneVelgar rotateScanlogWhenSizeReaches -int 1 >/dev/null
"$ctl" listen >"$work/heard" &
background_pids+=($!)

echo "== It rotates its log, launches its own clamd, refuses a second copy and quits"
mkdir -p "$(dirname "$log")"
for _ in $(seq 64); do echo "an earlier line of the scan log, to be rotated away"; done >"$log"
# The indicator's temporary folder is emptied of files an earlier run left.
throbber=$XDG_RUNTIME_DIR/KorvaneVelgarII/Throbber
mkdir -p "$throbber/kept" && touch "$throbber/left-over"
"$agent_bin" >>"$agent_out" 2>&1 &
agent_pid=$!
wait_for 60 logged "Watching started" || fail "no start of watching"
logged "clamd launched successfully.  Continuing..." || fail "clamd not launched by the agent"
pgrep -f "clamd -c $prefix/etc/clamd.conf" >/dev/null || fail "ps does not show clamd with -c $prefix/etc/clamd.conf"
ls "$log".*bz2 >/dev/null 2>&1 || fail "the oversized log was not rotated"
[ "$(stat -c %a "$log")" = 640 ] || fail "the new log is not mode 640"
[ ! -e "$throbber/left-over" ] && [ -d "$throbber/kept" ] || fail "the indicator's folder was not emptied of files alone"
status=0
"$agent_bin" >>"$agent_out" 2>&1 || status=$?
[ $status -eq 0 ] || fail "a second agent exited $status"
logged "Korvane Velgar is already running" || fail "the second agent did not say it was already running"
quit_agent
logged "trying to quit clamd" || fail "no QUIT for the agent's own clamd"
wait_for 60 daemon_gone || fail "clamd still runs after QUIT"
wait_for 5 grep -qx "KorvaneVelgarHasQuit KorvaneVelgar" "$work/heard" || fail "velgarctl listen did not hear KorvaneVelgarHasQuit"
[ ! -e "$XDG_RUNTIME_DIR/scanlogrotate.conf" ] || fail "scanlogrotate.conf left behind"
echo "all agent checks passed"
