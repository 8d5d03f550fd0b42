#!/usr/bin/env bash
# The running agent on a desktop: a virtual X display (Xvfb) with a tray
# (trayer) and a notification daemon (dunst) on the test's private session
# bus. Its icon docks, a finding shows a dialog and a notification in warn
# and quarantine mode; the Korvane application's Scan page, opened by
# `korvane --scan`, scans a folder already on disk. (What the tray menu's items do is tested on the menu
# itself, tests/desktop/StatusMenuTest.cpp.)
#
#   desktop_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

for tool in Xvfb trayer dunst xdotool; do
  command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing (scripts/deps.sh installs it)"; exit 1; }
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

panel() { xdotool search --classname panel | head -n 1; }
# The tray panel grows from its empty width once an icon docks.
icon_docked() {
  local WINDOW X Y WIDTH HEIGHT SCREEN
  eval "$(xdotool getwindowgeometry --shell "$(panel)")"
  [ "$WIDTH" -ge 20 ]
}
visible_window() { xdotool search --onlyvisible --name "$1" 2>/dev/null | head -n 1; }
expect_window() {
  wait_for 60 bash -c "xdotool search --onlyvisible --name '$1' >/dev/null 2>&1" || fail "no window \"$1\" appeared"
}
# Closes a dialog the way a user would: focus it, press Escape.
dismiss() {
  local window
  window=$(visible_window "$1")
  xdotool windowfocus --sync "$window" key Escape
  wait_for 60 bash -c "! xdotool search --onlyvisible --name '$1' >/dev/null 2>&1" || fail "\"$1\" did not close"
}

start_agent
wait_for 60 icon_docked || fail "the agent's icon did not dock in the tray"
logged "No display" && fail "the agent ran without the display"

echo "== Warn mode: a dialog and a notification"
finds "$watched/warned.com"
expect_window "virus found"
wait_for 60 grep -q "warned.com" "$work/notifications" || fail "dunst showed no notification naming the file"
grep -q "appname: 'Korvane Velgar'" "$work/notifications" || fail "the notification does not come from Korvane Velgar"
dismiss "virus found"

echo "== Quarantine mode: the quarantine dialog"
pref VelgarQuarantineFiles -bool true
pref QuarantineFolder -string "~/Quarantine"
restart_agent
write_eicar "$watched/quarantined.com"
expect_logged 60 "$watched/quarantined.com: moved to '$HOME/Quarantine/quarantined.com'"
expect_window "infected file quarantined"
dismiss "infected file quarantined"

echo "== korvane --scan on the display: the Scan page finds a file already on disk"
"${runner[@]}" mkdir -p "$HOME/Old projects"
write_eicar "$HOME/Old projects/old.com"
"${runner[@]}" "$build/bin/korvane" --scan "$HOME/Old projects" >"$work/korvane.out" 2>&1 &
background_pids+=($!)
expect_window "^Korvane$"
expect_logged 60 "$HOME/Old projects/old.com: moved to '$HOME/Quarantine/old.com'"
kill "${background_pids[-1]}"

quit_agent
echo "all desktop checks passed"
