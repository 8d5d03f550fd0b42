#!/usr/bin/env bash
# Tests of the Debian package, as users get it.
#
#   package_test.sh build BUILD_DIR OUT_DIR   make the package with cpack into OUT_DIR
#   package_test.sh contents OUT_DIR          check its control data, its files and
#                                             its desktop entry
#   package_test.sh run OUT_DIR               unpack it into a scratch root, run its
#                                             maintainer scripts there, and run the
#                                             agent from there: it starts clamd, scans
#                                             a file and quits; velgarctl setup
#                                             --autostart touches only its own entry
#
# "run" needs root (the maintainer scripts and the set-user-ID helper) and
# fails without it. CTest runs it in a PID namespace of its own, so clamd
# daemons elsewhere on the machine are out of its sight.
set -euo pipefail
source "$(dirname "$0")/../support/machine_lock.sh"

fail() { echo "FAIL: $*" >&2; exit 1; }

package_in() {
  local packages=("$1"/korvane-velgar_*.deb)
  [ -f "${packages[0]}" ] || fail "no package in $1"
  echo "${packages[0]}"
}

build() {
  local build_dir=$1 out=$2
  rm -rf "$out"
  cpack -G DEB -B "$out" --config "$build_dir/CPackConfig.cmake" >"$out.log" 2>&1 || { cat "$out.log"; fail "cpack"; }
  echo "built $(package_in "$out")"
}

contents() {
  local deb info listing
  deb=$(package_in "$1")
  info=$(dpkg-deb --info "$deb")
  listing=$(dpkg-deb --contents "$deb" | awk '{ print $1, $6 }')

  grep -q '^ Package: korvane-velgar$' <<<"$info" || fail "package name"
  local depends
  depends=$(sed -n 's/^ Depends: //p' <<<"$info")
  # The programs the agent runs, and the Qt libraries dpkg-shlibdeps found.
  for package in clamav-daemon clamdscan clamav-freshclam pkexec logrotate bzip2 xdg-utils libglib2.0-bin \
                 dbus procps libqt6core6 libqt6widgets6 libqt6dbus6; do
    grep -Eq "(^|, )$package( |,|$)" <<<"$depends" || fail "Depends lacks $package: $depends"
  done
  grep -Eq ' postinst +#!/bin/sh' <<<"$info" || fail "no postinst"
  grep -Eq ' postrm +#!/bin/sh' <<<"$info" || fail "no postrm"
  dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./postinst | grep -q 'dpkg-statoverride --update --add root root 4755 "\$helper"' ||
    fail "postinst does not make the helper set-user-ID root"

  local expected=(
    "-rwxr-xr-x ./usr/bin/korvane-velgar"
    "-rwxr-xr-x ./usr/bin/velgarctl"
    # Unpacked plain; postinst gives it its set-user-ID mode.
    "-rwxr-xr-x ./usr/share/korvane-velgar/gfslogger"
    "-rwxr-xr-x ./usr/libexec/korvane-velgar/install-gfslogger"
    "-rw-r--r-- ./usr/share/polkit-1/actions/com.korvane.KorvaneVelgar.install-gfslogger.policy"
    "-rw-r--r-- ./usr/share/korvane-velgar/KorvaneVelgar.ui"
    "-rw-r--r-- ./usr/share/korvane-velgar/WarningDialog.ui"
    "-rw-r--r-- ./usr/share/korvane-velgar/QuarantinedDialog.ui"
    "-rw-r--r-- ./usr/share/korvane-velgar/translations/korvane-velgar_en.qm"
    "-rw-r--r-- ./usr/share/korvane-velgar/images/default.png"
    "-rw-r--r-- ./usr/share/korvane-velgar/images/dock_default.png"
    "-rw-r--r-- ./usr/share/korvane-velgar/clamav/korvane-test.ndb"
    "-rw-r--r-- ./usr/share/applications/com.korvane.KorvaneVelgar.desktop"
    "-rw-r--r-- ./usr/share/icons/hicolor/48x48/apps/com.korvane.KorvaneVelgar.png"
    "-rw-r--r-- ./usr/share/icons/hicolor/96x96/apps/com.korvane.KorvaneVelgar.png"
    "-rw-r--r-- ./usr/share/man/man1/korvane-velgar.1.gz"
    "-rw-r--r-- ./usr/share/man/man1/velgarctl.1.gz"
    "-rw-r--r-- ./usr/share/doc/korvane-velgar/copyright"
    "-rw-r--r-- ./usr/share/doc/korvane-velgar/changelog.gz"
  )
  for entry in "${expected[@]}"; do
    grep -qxF -- "$entry" <<<"$listing" || fail "missing: $entry"
  done
  # Everything lives under /usr: nothing in /etc, and never a home folder.
  if grep -v ' ./usr/' <<<"$listing" | grep -v ' ./$'; then
    fail "files outside /usr"
  fi

  local scratch
  scratch=$(mktemp -d)
  dpkg-deb -x "$deb" "$scratch"
  desktop-file-validate "$scratch/usr/share/applications/com.korvane.KorvaneVelgar.desktop" || { rm -rf "$scratch"; fail "desktop entry"; }
  file "$scratch/usr/share/icons/hicolor/48x48/apps/com.korvane.KorvaneVelgar.png" | grep -q '48 x 48' ||
    { rm -rf "$scratch"; fail "48 px icon"; }
  rm -rf "$scratch"
  echo "package contents are complete"
}

# Waits up to $1 seconds for the command after it to succeed.
wait_until() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.2
  done
}

run() {
  local deb
  deb=$(package_in "$1")
  [ "$(id -u)" -eq 0 ] || fail "the maintainer scripts and the set-user-ID helper need root"

  # A short folder: clamd's socket path must stay within 104 bytes.
  tmp=$(mktemp -d /tmp/kvpkg.XXXXXX)
  agent_pid= bus_pid=
  trap cleanup EXIT

  local root=$tmp/root engine=$tmp/engine
  dpkg-deb -x "$deb" "$root"
  local agent=$root/usr/bin/korvane-velgar velgarctl=$root/usr/bin/velgarctl
  local helper=$root/usr/share/korvane-velgar/gfslogger

  # The maintainer scripts, run on the scratch root as dpkg runs them on
  # another root: the helper becomes set-user-ID root.
  dpkg-deb -e "$deb" "$tmp/control"
  mkdir -p "$root/var/lib/dpkg"
  export DPKG_ROOT=$root DPKG_ADMINDIR=$root/var/lib/dpkg
  "$tmp/control/postinst" configure
  [ "$(stat -c '%U %a' "$helper")" = "root 4755" ] || fail "postinst did not make the helper set-user-ID root"

  # An engine prefix laid out as the agent expects it, around Debian's clamd
  # and the package's own test database.
  mkdir -p "$engine"/{bin,sbin,etc,db,run}
  ln -s /usr/sbin/clamd "$engine/sbin/clamd"
  cp "$root/usr/share/korvane-velgar/clamav/korvane-test.ndb" "$engine/db/"
  cat >"$engine/etc/clamd.conf" <<EOF
LocalSocket $engine/run/clamd.ctl
DatabaseDirectory $engine/db
PidFile $engine/run/clamd.pid
Foreground no
LogFile $engine/clamd.log
TemporaryDirectory /tmp
EOF
  printf '#!/bin/sh\nexec /usr/bin/clamdscan --config-file=%s "$@"\n' "$engine/etc/clamd.conf" >"$engine/bin/clamdscan"
  chmod 755 "$engine/bin/clamdscan"

  # A user of its own, on a session bus of its own.
  export HOME=$tmp/home XDG_CONFIG_HOME=$tmp/home/.config XDG_DATA_HOME=$tmp/home/.local/share
  export XDG_RUNTIME_DIR=$tmp/run QT_QPA_PLATFORM=offscreen
  unset KORVANE_VELGAR_RESOURCES DISPLAY WAYLAND_DISPLAY
  mkdir -p "$HOME/Watched" && mkdir -m 0700 "$XDG_RUNTIME_DIR"
  local bus
  bus=$(dbus-daemon --session --fork --print-address=1 --print-pid=1)
  export DBUS_SESSION_BUS_ADDRESS=${bus%%$'\n'*}
  bus_pid=${bus##*$'\n'}

  "$velgarctl" defaults write com.korvane.Korvane PathToClamav -string "$engine" >/dev/null
  "$velgarctl" defaults write com.korvane.Korvane PathToUpdateLog -string "$HOME/Library/Logs/KorvaneVelgar-update.log" >/dev/null
  "$velgarctl" defaults write com.korvane.Korvane VelgarFolderArray \
    -json "[{\"pathName\": \"~/Watched\", \"WatchSubdirs\": true}]" >/dev/null

  scan_log=$HOME/Library/Logs/KorvaneVelgar-scan.log
  "$agent" >"$tmp/agent.out" 2>&1 &
  agent_pid=$!
  # "scan email files" follows the agent's search for a running clamd.
  wait_until 60 grep -q 'scan email files' "$scan_log" 2>/dev/null || fail "the agent did not start watching"
  grep -q 'clamd not running' "$scan_log" || fail "the agent took another clamd for its own"
  grep -q 'clamd launched successfully' "$scan_log" || fail "the agent did not launch clamd"
  echo "the installed agent started and launched clamd"

  # The file-event intake starts after clamd; a file written before it
  # watches goes unseen, so write a new one until one is found.
  local eicar='X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*' n=0
  found() { grep -q "/Watched/eicar-[0-9]*\.com: Eicar-Test-Signature\.UNOFFICIAL FOUND$" "$scan_log"; }
  write_and_look() {
    n=$((n + 1))
    printf '%s' "$eicar" >"$HOME/Watched/eicar-$n.com"
    wait_until 5 found
  }
  wait_until 60 write_and_look || fail "the EICAR file was not found"
  echo "the installed agent scanned a file: $(grep -m1 'UNOFFICIAL FOUND$' "$scan_log")"

  local clamd_pid
  clamd_pid=$(cat "$engine/run/clamd.pid")
  "$velgarctl" quit >/dev/null
  agent_gone() { ! kill -0 "$agent_pid" 2>/dev/null; }
  wait_until 30 agent_gone || fail "the agent did not quit"
  local status=0
  wait "$agent_pid" || status=$?
  agent_pid=
  [ "$status" -eq 0 ] || fail "the agent quit with status $status"
  clamd_gone() { ! kill -0 "$clamd_pid" 2>/dev/null; }
  wait_until 15 clamd_gone || fail "the clamd the agent launched still runs"
  echo "the installed agent quit with status 0 and stopped its clamd"

  # Starting at login changes the autostart entry and nothing else.
  local before after entry=$XDG_CONFIG_HOME/autostart/com.korvane.KorvaneVelgar.desktop
  before=$(listing "$HOME")
  "$velgarctl" setup --autostart >/dev/null
  grep -qxF "Exec=$agent" "$entry" || fail "the autostart entry does not run $agent"
  grep -qxF "X-GNOME-Autostart-enabled=true" "$entry" || fail "the autostart entry is not enabled"
  after=$(listing "$HOME")
  local changes
  changes=$(diff <(echo "$before") <(echo "$after") | grep '^[<>]' || true)
  local only_entry='^> [0-9a-f]+  \./\.config/autostart/com\.korvane\.KorvaneVelgar\.desktop$'
  [[ $changes =~ $only_entry ]] || fail "setup --autostart changed more than its entry, or not it: $changes"
  "$velgarctl" setup --no-autostart >/dev/null
  [ "$(listing "$HOME")" = "$before" ] || fail "setup --no-autostart left changes behind"
  echo "velgarctl setup --autostart and --no-autostart changed only the autostart entry"

  "$tmp/control/postrm" purge
  [ ! -s "$DPKG_ADMINDIR/statoverride" ] || fail "purging left the helper's override: $(cat "$DPKG_ADMINDIR/statoverride")"
  echo "postinst made the helper set-user-ID root; purging forgot it"
}

# Every file below $1 with a digest of its contents; folders alone do not count.
listing() { (cd "$1" && find . -type f -exec md5sum {} + | sort -k2); }

# Ends what run() started, whichever way it ends.
cleanup() {
  local status=$?
  set +e
  if [ $status -ne 0 ]; then
    [ -s "$tmp/agent.out" ] && { echo "--- agent output before its scan log" >&2; cat "$tmp/agent.out" >&2; }
    [ -f "${scan_log:-}" ] && { echo "--- scan log" >&2; tail -n 40 "$scan_log" >&2; }
  fi
  [ -n "$agent_pid" ] && kill -KILL "$agent_pid" 2>/dev/null
  [ -f "$tmp/engine/run/clamd.pid" ] && kill "$(cat "$tmp/engine/run/clamd.pid")" 2>/dev/null
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null
  rm -rf "$tmp"
  exit $status
}

case "${1:-}" in
  build) build "$2" "$3" ;;
  contents) contents "$2" ;;
  run) run "$2" ;;
  *) echo "usage: $0 build BUILD_DIR OUT_DIR | contents OUT_DIR | run OUT_DIR" >&2; exit 2 ;;
esac
