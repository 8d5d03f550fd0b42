#!/bin/bash
# Photographs the agent's desktop on a virtual X display for the README: the
# tray icon at rest, watching and scanning (on a dark and on a light panel),
# the status menu, a warning dialog and a notification, first from the
# desktop parts driven step by step (kvdesktop_scene, built from
# scripts/scene/DesktopScene.cpp), then from the agent itself finding the
# EICAR test file with a real clamd, and last each page of the Korvane
# application on that agent. The display (Xvfb), the tray (trayer)
# and the notification daemon (dunst) run on a private session bus, so
# nothing reaches the user's own desktop.
#
#   scripts/screenshots.sh [BUILD_DIR] [OUT_DIR]
#
# BUILD_DIR defaults to ./build, OUT_DIR to BUILD_DIR/screenshots. Run by
# hand; the README's pictures are copied from OUT_DIR into docs/screenshots/.
# Fails when a tool is missing (scripts/deps.sh installs them all), when a
# step does not happen, or when the tray icon's pixels do not change between
# rest, watching and scanning. The agent's own run needs root, or a
# gfslogger installed set-user-ID root, for its event helper.
set -euo pipefail
source "$(dirname "$0")/../tests/support/machine_lock.sh"

build=$(realpath "${1:-build}")
out=$(realpath -m "${2:-$build/screenshots}")

fail() {
    echo "screenshots.sh: $*" >&2
    for log in "$work"/*.log "$work"/home/Library/Logs/*.log; do
        [ -s "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
    done
    exit 1
}

for tool in Xvfb trayer dunst xdotool import compare dbus-run-session /usr/sbin/clamd; do
    command -v "$tool" >/dev/null || { echo "screenshots.sh: $tool is missing (scripts/deps.sh installs it)" >&2; exit 1; }
done

if [ "${KV_SCREENSHOTS_PRIVATE_BUS:-}" != 1 ]; then
    exec env KV_SCREENSHOTS_PRIVATE_BUS=1 dbus-run-session -- bash "$0" "$build" "$out"
fi

scene="$build/bin/kvdesktop_scene"
gfslogger="$build/share/korvane-velgar/gfslogger"
for program in "$scene" "$build/bin/korvane-velgar" "$build/bin/velgarctl" "$gfslogger"; do
    [ -x "$program" ] || { echo "screenshots.sh: $program is not built" >&2; exit 1; }
done
[ "$(id -u)" = 0 ] || [ -u "$gfslogger" ] ||
    { echo "screenshots.sh: the agent's event helper needs root: run as root, or install gfslogger set-user-ID root" >&2; exit 1; }

work=$(mktemp -d /tmp/kv-screenshots-XXXXXX)
pids=()
cleanup() {
    exec 4>&- 2>/dev/null || true
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    # The agent's clamd, should the agent not have stopped it.
    pkill -f "^$work/" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$out"

# Polls a command until it succeeds, for at most $1 seconds.
wait_until() {
    local limit=$1
    shift
    local end=$((SECONDS + limit))
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.1
    done
}

Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
pids+=($!)
wait_until 30 test -s "$work/display" || fail "Xvfb did not start"
export DISPLAY=":$(cat "$work/display")"

start_tray() {
    trayer --edge top --align right --widthtype request --height 28 --SetDockType true \
        --transparent true --alpha 0 --tint "$1" >"$work/trayer.log" 2>&1 &
    tray_pid=$!
    pids+=("$tray_pid")
    wait_until 30 xdotool search --classname panel || fail "trayer did not start"
}

panel() { xdotool search --classname panel | head -n 1; }

# The panel's rectangle as WIDTHxHEIGHT+X+Y.
panel_rectangle() {
    local WINDOW X Y WIDTH HEIGHT SCREEN
    eval "$(xdotool getwindowgeometry --shell "$(panel)")"
    echo "${WIDTH}x${HEIGHT}+${X}+${Y}"
}

# The tray panel grows from its empty width once the icon docks.
icon_docked() {
    local WINDOW X Y WIDTH HEIGHT SCREEN
    eval "$(xdotool getwindowgeometry --shell "$(panel)")"
    [ "$WIDTH" -ge 20 ]
}

tray_shot() { import -window root -crop "$(panel_rectangle)" +repage "$1"; }

differs() { [ "$(compare -metric AE "$1" "$2" null: 2>&1 || true)" != 0 ]; }

# More than a flat background: something was drawn.
painted() { [ "$(convert "$1" -format %k info:)" -gt 2 ]; }

# Takes the tray into $1 once it shows an icon unlike the one in $2 (or any
# icon, when $2 is "-").
tray_shot_unlike() {
    local target=$1 previous=$2
    shot_differs() { tray_shot "$target" && painted "$target" && { [ "$previous" = - ] || differs "$target" "$previous"; }; }
    wait_until 30 shot_differs || fail "the tray icon in $(basename "$target") looks like $(basename "$previous")"
}

start_tray 0x2b2b2b

cat >"$work/dunstrc" <<'EOF'
[global]
    width = 380
    height = 140
    origin = top-right
    offset = 12x40
    font = DejaVu Sans 10
    frame_width = 1
    frame_color = "#5b6875"
    padding = 10
    horizontal_padding = 12
    markup = full
    format = "<b>%s</b>\n%b"
[urgency_low]
    background = "#23282e"
    foreground = "#eceff1"
    timeout = 0
[urgency_normal]
    background = "#23282e"
    foreground = "#eceff1"
    timeout = 0
[urgency_critical]
    background = "#23282e"
    foreground = "#eceff1"
    timeout = 0
EOF
dunst -config "$work/dunstrc" >"$work/dunst.log" 2>&1 &
pids+=($!)
notifications_served() {
    dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Notifications | grep -q true
}
wait_until 30 notifications_served || fail "dunst did not take the notification service"

# The agent's parts, with a home of their own.
export HOME="$work/home"
export XDG_CONFIG_HOME="$HOME/.config" XDG_DATA_HOME="$HOME/.local/share"
mkdir -p "$HOME/Downloads"
export KORVANE_VELGAR_RESOURCES="$build/share/korvane-velgar"
mkfifo "$work/commands"
"$scene" <"$work/commands" >"$work/answers" 2>"$work/scene.log" &
scene_pid=$!
pids+=("$scene_pid")
exec 4>"$work/commands"
sent=0

# Sends one command line to the scene and waits for its answer.
step() {
    echo "$*" >&4
    sent=$((sent + 1))
    answered() { [ "$(wc -l <"$work/answers")" -ge "$sent" ]; }
    wait_until 30 answered || fail "the scene did not answer \"$1\""
}

finding="/home/user/Downloads/invoice.pdf.exe: Win.Trojan.Agent-1234 FOUND"

step rest
wait_until 30 icon_docked || fail "the tray icon did not dock"
tray_shot_unlike "$out/tray-rest.png" -
step watching
tray_shot_unlike "$out/tray-watching.png" "$out/tray-rest.png"
step scanning
tray_shot_unlike "$out/tray-scanning-1.png" "$out/tray-watching.png"
tray_shot_unlike "$out/tray-scanning-2.png" "$out/tray-scanning-1.png"
step idle
# The scan's last cycle ends before the icon and the menu show watching again.
back_to_watching() { tray_shot "$work/tray.png" && ! differs "$work/tray.png" "$out/tray-watching.png"; }
wait_until 30 back_to_watching || fail "the tray icon did not return to watching"

menu_area=420x400+860+0
import -window root -crop "$menu_area" +repage "$work/before-menu.png"
step menu
menu_shot() { import -window root -crop "$menu_area" +repage "$out/menu.png" && differs "$out/menu.png" "$work/before-menu.png"; }
wait_until 30 menu_shot || fail "the menu did not open"
xdotool key Escape

step warning "$finding"
dialog_window() { xdotool search --onlyvisible --name 'virus found' | head -n 1; }
wait_until 30 dialog_window || fail "the warning dialog did not appear"
import -window "$(dialog_window)" "$out/warning-dialog.png"

step notify "$finding"
dunst_window() { xdotool search --onlyvisible --class Dunst | head -n 1; }
wait_until 30 dunst_window || fail "the notification did not appear"
notification_shot() {
    local WINDOW X Y WIDTH HEIGHT SCREEN
    eval "$(xdotool getwindowgeometry --shell "$(dunst_window)")"
    import -window root -crop "${WIDTH}x${HEIGHT}+${X}+${Y}" +repage "$out/notification.png"
    painted "$out/notification.png"
}
wait_until 30 notification_shot || fail "the notification was not drawn"
import -window root "$out/desktop.png"

# The same icons on a light panel: a new tray takes the icon over.
step rest
kill "$tray_pid"
start_tray 0xeeeeee
wait_until 30 icon_docked || fail "the tray icon did not dock on the light panel"
tray_shot_unlike "$out/tray-rest-light.png" -
step watching
tray_shot_unlike "$out/tray-watching-light.png" "$out/tray-rest-light.png"
step scanning
tray_shot_unlike "$out/tray-scanning-light.png" "$out/tray-watching-light.png"
step idle
echo quit >&4
exec 4>&-
ended() { ! kill -0 "$1"; }
wait_until 30 ended "$scene_pid" || fail "the scene did not quit"

# The agent itself, with a real clamd and the EICAR test file: the scanner's
# finding reaches the tray icon, a warning dialog and a notification.
dunstctl close-all
# The bundled test definitions, placed first, spare setup its download.
prefix="$XDG_DATA_HOME/korvane/clamav"
mkdir -p "$prefix/db"
cp "$KORVANE_VELGAR_RESOURCES/clamav/korvane-test.ndb" "$prefix/db/"
"$build/bin/velgarctl" setup --watch "$HOME/Downloads" >"$work/setup.log" 2>&1 || fail "velgarctl setup failed"
"$build/bin/korvane-velgar" >"$work/agent.log" 2>&1 &
agent_pid=$!
pids+=("$agent_pid")
agent_watching() { tray_shot "$work/tray.png" && ! differs "$work/tray.png" "$out/tray-watching-light.png"; }
wait_until 30 agent_watching || fail "the agent did not start watching"
printf '%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*' >"$HOME/Downloads/eicar.com"
tray_shot_unlike "$out/agent-tray-scanning.png" "$out/tray-watching-light.png"
wait_until 30 dialog_window || fail "the agent showed no warning dialog"
import -window "$(dialog_window)" "$out/agent-warning-dialog.png"
wait_until 30 dunst_window || fail "the agent's notification did not appear"
import -window root "$out/agent-desktop.png"
log="$HOME/Library/Logs/KorvaneVelgar-scan.log"
grep -q "eicar.com: Eicar-Test-Signature.UNOFFICIAL FOUND" "$log" || fail "the scan log lacks the finding"

# The Korvane application on the same agent, set up as a user would have it:
# two watched folders (one not there), infected files moved into quarantine,
# and two exclusions, one a regular expression that does not compile. A
# second EICAR file is quarantined first, so the Quarantine page lists it and
# History shows its finding first.
ctl() { "$build/bin/velgarctl" "$@" >>"$work/velgarctl.log" 2>&1 || fail "velgarctl $* failed"; }
ctl defaults write com.korvane.Korvane VelgarFolderArray -json \
    '[{"pathName": "~/Downloads", "WatchSubdirs": true}, {"pathName": "~/Shared/Inbox", "WatchSubdirs": false}]'
ctl defaults write com.korvane.Korvane VelgarQuarantineFiles -bool true
ctl defaults write com.korvane.Korvane QuarantineFolder -string "$HOME/Quarantine"
ctl defaults write com.korvane.Korvane ExcludePatterns -json \
    '[{"excludePattern": "~/VirtualMachines/", "excludeRegEx": false, "excludeEnabled": true},
      {"excludePattern": "\\.(iso|img$", "excludeRegEx": true, "excludeEnabled": true}]'
starts() { grep -c "Watching started" "$log"; }
starts_before=$(starts)
ctl restart
restarted() { [ "$(starts)" -gt "$starts_before" ]; }
wait_until 30 restarted || fail "the agent did not restart watching"
printf '%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*' >"$HOME/Downloads/invoice.pdf.exe"
quarantined() {
    [ ! -e "$HOME/Downloads/invoice.pdf.exe" ] && grep -q invoice.pdf.exe "$XDG_DATA_HOME/korvane/quarantine.jsonl"
}
wait_until 60 quarantined || fail "the agent did not quarantine invoice.pdf.exe"

korvane_window() { xdotool search --onlyvisible --name '^Korvane$' | head -n 1; }
# Takes the Korvane window into $1 once it shows something unlike $2 (or
# anything, when $2 is "-") and stays so for a second: some pages fill in
# what the engine answers a moment later. The agent's dialogs and
# notifications are put behind it first.
korvane_shot() {
    local target=$1 previous=$2
    settled() {
        local window
        window=$(korvane_window)
        dunstctl close-all
        xdotool windowraise "$window"
        import -window "$window" "$work/korvane.png" && painted "$work/korvane.png" &&
            { [ "$previous" = - ] || differs "$work/korvane.png" "$previous"; } || return 1
        sleep 1
        import -window "$window" "$target" && ! differs "$target" "$work/korvane.png"
    }
    wait_until 30 settled || fail "the Korvane page in $(basename "$target") did not settle"
}
"$build/bin/korvane" --page protection >"$work/korvane.log" 2>&1 &
korvane_pid=$!
pids+=("$korvane_pid")
wait_until 30 korvane_window || fail "Korvane did not open its window"
previous=-
for page in protection folders found exclusions definitions quarantine history advanced; do
    # A second korvane hands its page to the first one and exits.
    [ "$page" = protection ] || "$build/bin/korvane" --page "$page" >>"$work/korvane.log" 2>&1 ||
        fail "korvane --page $page did not hand its page over"
    korvane_shot "$out/korvane-$page.png" "$previous"
    previous="$out/korvane-$page.png"
done
kill -0 "$korvane_pid" 2>/dev/null || fail "Korvane ended while its pages were photographed"
# The Scan page, as a file manager's "Scan with Korvane" opens it: a
# window of its own scanning an old folder the agent does not watch, which
# holds the EICAR test file (quarantined, as the preferences say).
mkdir -p "$HOME/Old projects/2019"
printf '%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*' >"$HOME/Old projects/2019/setup.exe"
for name in notes.txt budget.ods 2019/photo.jpg 2019/readme.md; do echo "$name" >"$HOME/Old projects/$name"; done
mkfifo "$HOME/Old projects/pipe"
"$build/bin/korvane" --scan "$HOME/Old projects" >>"$work/korvane.log" 2>&1 &
scan_pid=$!
pids+=("$scan_pid")
scan_window() { xdotool search --all --onlyvisible --pid "$scan_pid" --name '^Korvane$' | head -n 1; }
wait_until 30 scan_window || fail "korvane --scan did not open its window"
scan_done() { grep -q "On-demand scan finished" "$log"; }
wait_until 60 scan_done || fail "korvane --scan did not finish"
korvane_window() { scan_window; }
korvane_shot "$out/korvane-scan.png" -
"$build/bin/velgarctl" quit >/dev/null
wait_until 20 ended "$agent_pid" || fail "the agent did not quit"

for pair in "rest watching" "watching scanning-1" "scanning-1 scanning-2"; do
    set -- $pair
    differs "$out/tray-$1.png" "$out/tray-$2.png" || fail "tray-$1.png and tray-$2.png are the same"
done
# One strip of every tray shot, twice the size, for the README.
convert "$out"/tray-{rest,watching,scanning-1,scanning-2}.png "$out"/tray-{rest,watching,scanning}-light.png \
    +append -filter point -resize 200% "$out/tray-states.png"
echo "screenshots in $out"
