#!/usr/bin/env bash
# The running agent on a desktop: a virtual X display (Xvfb) with a tray
# (trayer) and a notification daemon (dunst) on the test's private session
# bus. Its icon docks, a finding shows a dialog and a notification in warn
# and quarantine mode, and the tray menu stops a large scan in progress.
#
#   desktop_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

for tool in Xvfb trayer dunst xdotool; do
  command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing (scripts/deps.sh installs it)"; exit 1; }
done
# Debian's own Python, which python3-pyatspi is for.
/usr/bin/python3 -c 'import pyatspi' 2>/dev/null || { echo "FAIL: python3-pyatspi is missing (scripts/deps.sh installs it)"; exit 1; }
default_setup
# Menu items are found by their titles through the accessibility bus, which
# the private session bus starts on demand; Qt offers its widgets there
# only when asked to.
export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1

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
write_eicar "$watched/warned.com"
expect_logged 60 "$watched/warned.com$finding"
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

echo "== The tray menu stops a large scan in progress"
mkdir -p "$watched/large"
for i in $(seq 40); do head -c 10M /dev/urandom >"$work/large-$i.bin"; done
mv "$work"/large-*.bin "$watched/large/"
scanning() { pgrep -P "$agent_pid" -x clamdscan >/dev/null; }
wait_for 60 scanning || fail "the large batch did not start"
# The menu, opened from the icon; its stop item, enabled while a scan runs,
# has a submenu that asks once more.
WINDOW= X= Y= WIDTH= HEIGHT= SCREEN=
eval "$(xdotool getwindowgeometry --shell "$(panel)")"
# The machine is busy scanning 400 MB meanwhile (under a sanitizer, very
# busy): the menu gets longer than usual to come up.
KV_MENU_WAIT=45 /usr/bin/python3 "$source_dir/tests/e2e/choose_menu_item.py" "Korvane Velgar" $((X + WIDTH / 2)) $((Y + HEIGHT / 2)) \
  "Stop the Scans in Progress" "Stop Them Now (the files are scanned when they next change)" ||
  fail "the stop items could not be chosen from the tray menu"
stopped() { ! scanning; }
wait_for 60 stopped || fail "the scan went on after the stop was chosen"
scanned=$(grep -c "/large/large-.*: OK" "$log" || true)
echo "   $scanned of 40 large files were scanned before the stop"
[ "$scanned" -lt 40 ] || fail "every large file was scanned: the stop came too late to tell"
expect_alive "after the stop"
write_eicar "$watched/after-the-stop.com"
expect_logged 60 "$watched/after-the-stop.com: moved to '$HOME/Quarantine/after-the-stop.com'"
# The stop also emptied the queue: nothing of the batch is scanned later.
settle
[ "$(grep -c "/large/large-.*: OK" "$log" || true)" -eq "$scanned" ] || fail "large files were still scanned after the stop"
quit_agent
echo "all desktop checks passed"
