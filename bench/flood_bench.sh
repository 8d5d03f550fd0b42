#!/usr/bin/env bash
# A flood of infected files in the default warn mode, on a real desktop:
# Xvfb with a tray (trayer) and a notification daemon (dunst) on a private
# session bus, the built agent on that display, Debian's clamd with the test
# signatures. FILES EICAR files (default 10,000) are written into the watched
# folder at once; when the last finding is logged, the script records the
# agent's peak resident memory (VmHWM), its top-level windows (warning
# dialogs, the summary window, all of its visible windows) and what the
# notification daemon received.
#
#   bench/flood_bench.sh [build folder] [files]     (root, like the e2e tests)
#
# It runs in the end-to-end tests' harness (tests/e2e/lib.sh: a PID and
# mount namespace of its own, a scratch home removed at the end, the
# machine's test lock).
set -euo pipefail
if [ "${KV_FLOOD_ARGS:-}" != set ]; then
  here=$(cd "$(dirname "$0")/.." && pwd)
  exec env KV_FLOOD_ARGS=set bash "$0" "$(realpath "${1:-$here/build}")" "$here" "${2:-10000}"
fi
files=$3
[[ $files =~ ^[0-9]+$ && $files -ge 1 ]] || { echo "files: a positive number"; exit 2; }
source "$(dirname "$0")/../tests/e2e/lib.sh"

for tool in Xvfb trayer dunst xdotool; do
  command -v "$tool" >/dev/null || { echo "needs $tool (scripts/deps.sh installs it)"; exit 1; }
done
default_setup

Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
background_pids+=($!)
wait_for 60 test -s "$work/display" || fail "Xvfb did not start"
export DISPLAY=":$(cat "$work/display")"
unset QT_QPA_PLATFORM
trayer --edge top --align right --widthtype request --height 28 --SetDockType true >"$work/trayer.log" 2>&1 &
background_pids+=($!)
wait_for 60 xdotool search --classname panel >/dev/null || fail "trayer did not start"
dunst -print >"$work/notifications" 2>"$work/dunst.log" &
background_pids+=($!)
notifications_served() {
  dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Notifications 2>/dev/null | grep -q true
}
wait_for 60 notifications_served || fail "dunst did not take the notification service"

start_agent
rss_kb() { awk -v key="$1:" '$1 == key {print $2}' "/proc/$agent_pid/status"; }
rest_rss=$(rss_kb VmRSS)

mkdir -p "$work/flood"
for i in $(seq "$files"); do printf '%s' "$eicar" >"$work/flood/infected-$i.com"; done
start=$(date +%s.%N)
mv "$work/flood" "$watched/flood"
all_found() { [ "$(grep -cF -- "$finding" "$log" 2>/dev/null || true)" -ge "$files" ]; }
peak=$rest_rss
until all_found; do
  [ $(($(date +%s) - ${start%.*})) -lt 3600 ] || fail "not every file was found within an hour"
  expect_alive "during the flood"
  now=$(rss_kb VmRSS)
  [ "$now" -le "$peak" ] || peak=$now
  sleep 0.2
done
finish=$(date +%s.%N)
# Every dialog is up once its scanner is done with the batch.
settle

count_windows() { xdotool search --onlyvisible "$@" 2>/dev/null | wc -l; }
warnings=$(count_windows --name "virus found$")
summaries=$(count_windows --name "more viruses found$")
agent_windows=$(count_windows --pid "$agent_pid")
agent_window_names=$(for window in $(xdotool search --onlyvisible --pid "$agent_pid" 2>/dev/null); do
  name=$(xdotool getwindowname "$window" 2>/dev/null); echo "\"${name}\""; done | sort | uniq -c | awk '{$1 = $1 " x"; print}' | paste -sd, -)
root_children=$(xwininfo -root -children | awk '/child(ren)?:$/ {print $1; exit}')
hwm=$(rss_kb VmHWM)
end_rss=$(rss_kb VmRSS)
notified=$(grep -c "appname: 'Korvane Velgar'" "$work/notifications" || true)
last_count=$(grep -o "[0-9]* more infected files\? found" "$work/notifications" | tail -n 1)
quit_agent

mb() { awk -v kb="$1" 'BEGIN {printf "%.1f", kb / 1024}'; }
echo "| measure | result |"
echo "|---|---:|"
echo "| infected files, found and logged | $files in $(awk -v a="$start" -v b="$finish" 'BEGIN {printf "%.1f", b - a}') s |"
echo "| agent resident memory at rest, before the flood | $(mb "$rest_rss") MB |"
echo "| agent peak resident memory (VmHWM) | **$(mb "$hwm") MB** (sampled peak $(mb "$peak") MB, at the end $(mb "$end_rss") MB) |"
echo "| warning dialogs open | $warnings |"
echo "| summary windows open | $summaries |"
echo "| the agent's visible top-level windows (all) | $agent_windows: $agent_window_names |"
echo "| top-level windows on the display (xwininfo -root -children) | $root_children |"
echo "| notifications dunst received | $notified (last count: \"$last_count\") |"
