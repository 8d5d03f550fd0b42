#!/usr/bin/env bash
# Installs what is missing, builds Korvane Velgar, sets up a per-user ClamAV
# engine with default preferences when none exist, and runs the agent.
# Extra arguments are passed to `velgarctl setup` on that first setup, for
# example: scripts/run.sh --watch ~/Downloads --watch ~/Desktop
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

# The programs alone: the tests and benchmarks are scripts/test.sh's.
scripts/deps.sh run
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$jobs"

config_home=${XDG_CONFIG_HOME:-$HOME/.config}
if [ ! -f "$config_home/korvane/com.korvane.Korvane.json" ]; then
  echo "== First run: setting up the scanning engine and default preferences"
  build/bin/velgarctl setup "$@"
fi

# The agent talks to velgarctl and the desktop over the session bus. Where
# none runs (a bare console or container), start one and say how to reach it.
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ] && [ ! -S "${XDG_RUNTIME_DIR:-/nonexistent}/bus" ]; then
  address_file="${XDG_RUNTIME_DIR:-/tmp}/korvane-velgar-bus.$(id -u)"
  DBUS_SESSION_BUS_ADDRESS=$(dbus-daemon --session --fork --print-address=1 | head -n 1)
  export DBUS_SESSION_BUS_ADDRESS
  echo "$DBUS_SESSION_BUS_ADDRESS" > "$address_file"
  echo "No session bus was running; started one. To reach the agent from another terminal:"
  echo "  export DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS'"
fi

# The agent opens the Korvane application through its desktop entry; the
# build tree's own comes first.
export XDG_DATA_DIRS="$PWD/build/share:${XDG_DATA_DIRS:-/usr/local/share:/usr/share}"

echo "== Korvane Velgar is running. Scan log: ~/Library/Logs/KorvaneVelgar-scan.log"
echo "   Settings, quarantine and history: build/bin/korvane (or the menu's Korvane Preferences…)"
echo "   Stop it with: build/bin/velgarctl quit   (or Ctrl-C)"
exec build/bin/korvane-velgar
