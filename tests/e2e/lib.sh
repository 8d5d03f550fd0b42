# Shared by the end-to-end tests, which run the real agent as a user meets
# it: the built korvane-velgar with its gfslogger, Debian's clamd and
# clamdscan over an engine prefix holding the test signatures, a private
# session bus, and preferences written through velgarctl.
#
# Sourced by a test script that was called as SCRIPT BUILD_DIR SOURCE_DIR.
# It leaves a scratch home in $work, removed with everything the test
# started when the script ends.
#
# Each script runs in a PID namespace of its own, with its own /proc, in a
# mount namespace of its own: the daemons of the machine, a clamd service
# among them, and those of other users are not in its process table, and
# whatever it mounts stays in it. The script's bash is the namespace's first
# process, so it reaps every orphan, and when it ends the kernel ends every
# process the test left. The namespace needs root, as the tests do.

source "$(dirname "${BASH_SOURCE[0]}")/../support/machine_lock.sh"
if [ $$ -ne 1 ] || [ "${KV_E2E_NAMESPACE:-}" != own ]; then
  # Should unshare itself be killed, --kill-child tells the script, whose
  # trap below then clears up.
  exec env KV_E2E_NAMESPACE=own unshare --pid --fork --mount-proc --kill-child=TERM bash "$0" "$@"
fi

build=$(realpath "$1")
source_dir=$(realpath "$2")
agent_bin=$build/bin/korvane-velgar
ctl=$build/bin/velgarctl

work=$(mktemp -d /tmp/kv-e2e.XXXXXX)
prefix=$work/prefix
agent_pid=
bus_pid=
declare -a background_pids=()
# Functions a script adds to run at its end, before the scratch folder goes.
declare -a cleanup_steps=()
# What runs a program as the account under test (accounts.sh sets it); empty
# for the test's own user. The helpers below write files, run velgarctl and
# start the agent through it.
declare -a runner=()

e2e_cleanup() {
  local status=$?
  set +e
  local step
  for step in "${cleanup_steps[@]}"; do "$step"; done
  [ -n "$agent_pid" ] && kill -KILL "$agent_pid" 2>/dev/null
  for pid in "${background_pids[@]}"; do kill "$pid" 2>/dev/null; done
  pkill -KILL -f "^$prefix/sbin/clamd " 2>/dev/null
  pkill -KILL -f "^$work/" 2>/dev/null
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null
  # Mounts a test made under the scratch folder, deepest first.
  grep -o " $work/[^ ]*" /proc/self/mounts 2>/dev/null | sort -r | while read -r mount; do umount -l "$mount"; done
  chattr -R -i "$work" 2>/dev/null
  rm -rf "$work"
  exit $status
}
trap e2e_cleanup EXIT
# As the namespace's first process bash ignores a signal it has no handler for.
trap 'exit 143' TERM INT HUP

export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
export XDG_RUNTIME_DIR=$work/run QT_QPA_PLATFORM=offscreen
unset DISPLAY WAYLAND_DISPLAY
mkdir -p "$HOME/watched" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
log=$HOME/Library/Logs/KorvaneVelgar-scan.log
watched=$HOME/watched
agent_out=$work/agent.out
# Shown when the test fails; accounts.sh adds each account's.
declare -a shown_files=("$log" "$agent_out")

start_session_bus() {
  read -r DBUS_SESSION_BUS_ADDRESS bus_pid < <(dbus-daemon --session --fork --print-address=1 --print-pid=1 | paste -sd' ')
  export DBUS_SESSION_BUS_ADDRESS
}

# Ends the test, with the ends of the logs and what the script's own
# failure_notes function prints when it has one.
fail() {
  local file
  echo "FAIL: $*"
  ! declare -F failure_notes >/dev/null || failure_notes
  for file in "${shown_files[@]}"; do
    [ -e "$file" ] || continue
    echo "--- $file (last 50 lines):"
    tail -n 50 "$file"
  done
  exit 1
}

# wait_for SECONDS COMMAND...: polls the command until it succeeds.
wait_for() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

# The scan log, whole: fixed strings only, since paths hold odd characters.
logged() { grep -qF -- "$1" "$log" 2>/dev/null; }
log_count() {
  local count
  count=$(grep -cF -- "$1" "$log" 2>/dev/null)
  echo "${count:-0}"
}
expect_logged() {  # expect_logged SECONDS TEXT [WHAT]
  wait_for "$1" logged "$2" || fail "${3:-the log does not say \"$2\"}"
}

eicar='X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*'
finding=": Eicar-Test-Signature.UNOFFICIAL FOUND"
# write_file PATH TEXT, as the account under test.
write_file() { "${runner[@]}" sh -c 'printf %s "$2" >"$1"' sh "$1" "$2" || fail "could not write $1"; }
write_eicar() { write_file "$1" "$eicar${2:-}"; }
# finds PATH [SECONDS] [WHAT]: an infected file written there is found.
finds() { write_eicar "$1"; expect_logged "${2:-60}" "$1$finding" "${3:-}"; }

# An engine prefix like the one velgarctl setup makes, with the test
# signatures; its clamd is launched by the agent.
make_prefix() {
  mkdir -p "$prefix"/{bin,sbin,etc,db,run}
  ln -sf /usr/sbin/clamd "$prefix/sbin/clamd"
  cp "$source_dir/resources/clamav/korvane-test.ndb" "$prefix/db/"
  printf 'LocalSocket %s/run/clamd.ctl\nDatabaseDirectory %s/db\nPidFile %s/run/clamd.pid\nForeground no\n' \
    "$prefix" "$prefix" "$prefix" >"$prefix/etc/clamd.conf"
  printf '#!/bin/sh\nexec /usr/bin/clamdscan --config-file=%s/etc/clamd.conf "$@"\n' "$prefix" >"$prefix/bin/clamdscan"
  chmod 755 "$prefix/bin/clamdscan"
}
daemon_pid() { cat "$prefix/run/clamd.pid" 2>/dev/null; }
daemon_alive() {
  local pid
  pid=$(daemon_pid) && [ -n "$pid" ] && [ -d "/proc/$pid" ] && ! grep -q '^State:.*Z' "/proc/$pid/status"
}
daemon_gone() { ! daemon_alive; }

# The live clamd processes of the namespace, one a line: pid, real user id,
# then the arguments, NUL bytes turned into blanks.
clamd_processes() {
  local status pid
  for status in /proc/[0-9]*/status; do
    pid=${status#/proc/}
    pid=${pid%/status}
    grep -q '^State:.*Z' "$status" 2>/dev/null && continue
    [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = /usr/sbin/clamd ] || continue
    echo "$pid $(awk '/^Uid:/ {print $2}' "$status") $(tr '\0' ' ' <"/proc/$pid/cmdline" | sed 's/ $//')"
  done
}
# clamd_besides PID: a live clamd other than that one runs.
clamd_besides() { clamd_processes | awk -v old="$1" '$1 != old {found = 1} END {exit !found}'; }

# Preferences of the main application, as the user's settings write them.
pref() { "${runner[@]}" "$ctl" defaults write com.korvane.Korvane "$@" >/dev/null || fail "velgarctl could not write $1"; }
watch_folders() {  # watch_folders DIR... (with subfolders)
  local json="" dir
  for dir in "$@"; do json+="${json:+,}{\"pathName\": \"$dir\", \"WatchSubdirs\": true}"; done
  pref VelgarFolderArray -json "[$json]"
}

default_setup() {
  start_session_bus
  make_prefix
  pref PathToClamav -string "$prefix"
  pref PathToUpdateLog -string "$HOME/update.log"
  watch_folders "~/watched"
}

# Starts the agent and waits until it watches (or until TEXT is logged).
start_agent() {
  local until=${1:-Watching started}
  local starts
  starts=$(log_count "$until")
  "${runner[@]}" "$agent_bin" >>"$agent_out" 2>&1 &
  agent_pid=$!
  started() { [ "$(log_count "$until")" -gt "$starts" ]; }
  wait_for 60 started || fail "the agent did not log \"$until\""
  [ "$until" != "Watching started" ] || wait_until_watching
}
# Waits until the agent really watches: gfslogger may still be marking the
# file systems when "Watching started" is logged (much longer in a sanitizer
# build), so a probe file is written again every two seconds until its
# result line appears in the scan log (or in FILE).
probes=0
wait_until_watching() {  # wait_until_watching [FILE]
  probes=$((probes + 1))
  local probe=$watched/.watching-probe-$probes results=${1:-$log}
  local deadline=$((SECONDS + 90)) next=0
  until grep -qF -- "$probe: OK" "$results" 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || fail "the agent did not scan a probe file within 90 s"
    if [ $SECONDS -ge $next ]; then
      write_file "$probe" "probe $probes"
      next=$((SECONDS + 2))
    fi
    sleep 0.05
  done
  rm -f "$probe"
}

agent_alive() { [ -n "$agent_pid" ] && kill -0 "$agent_pid" 2>/dev/null; }
expect_alive() { agent_alive || fail "the agent died: $*"; }

# Restarts watching through velgarctl and waits for the new start.
restart_agent() {
  local starts
  starts=$(log_count "Watching started")
  "${runner[@]}" "$ctl" restart >/dev/null || fail "velgarctl restart failed"
  restarted() { [ "$(log_count "Watching started")" -gt "$starts" ]; }
  wait_for 60 restarted || fail "no new start of watching after a restart"
  wait_until_watching
}

# Quits through velgarctl; the agent must end with status 0.
quit_agent() {
  "${runner[@]}" "$ctl" quit >/dev/null || fail "velgarctl quit failed"
  local status=0
  wait_for 30 bash -c "! kill -0 $agent_pid 2>/dev/null" || fail "the agent did not quit"
  wait "$agent_pid" || status=$?
  agent_pid=
  [ $status -eq 0 ] || fail "the agent exited with status $status"
}

# Waits until every file written so far has been through the queue: a probe
# written now is scanned, and no scan of an earlier batch still runs. A file
# that must not be scanned (yet) would have been by then.
no_scan_running() { ! pgrep -P "$agent_pid" -x clamdscan >/dev/null; }
settle() {
  wait_until_watching
  wait_for 60 no_scan_running || fail "a scan did not end"
}
