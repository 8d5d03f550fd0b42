# Real accounts for the end-to-end tests of a machine shared by several
# users: accounts made for the test (homes of mode 0700) and removed with
# everything they own when it ends, the agent's resources installed where
# only root can change them with gfslogger set-user-ID root, and for each
# account a session of its own: runtime folder, session bus, preferences
# written by velgarctl as the user, and the agent run as the user.
#
# Sourced after lib.sh.

# A set-user-ID program must never let its environment steer it, and a
# sanitizer's runtime reads its options, log file among them, from there.
if grep -q '^KV_SANITIZE:STRING=.' "$build/CMakeCache.txt" 2>/dev/null; then
  echo "FAIL: $build is a sanitizer build, whose gfslogger is never made set-user-ID; run this test on a plain build"
  exit 1
fi

declare -a accounts=()
declare -A account_home=() account_uid=() account_agent=()

# Root's own, readable by all: the installed resources and what the tests
# share with the accounts.
shared=$(mktemp -d /tmp/kv-e2e-shared.XXXXXX)
chmod 755 "$shared"
resources=$shared/share/korvane-velgar

remove_accounts() {
  local account
  for account in "${accounts[@]}"; do
    # The namespace holds no process of these accounts but the test's own.
    pkill -KILL -U "${account_uid[$account]}" 2>/dev/null
  done
  for account in "${accounts[@]}"; do
    wait_for 10 bash -c "! pgrep -U ${account_uid[$account]} >/dev/null"
    userdel --force --remove "$account" 2>/dev/null || echo "could not remove the test account $account"
  done
  rm -rf "$shared"
}
cleanup_steps+=(remove_accounts)

# make_account VAR: a new account with a home of mode 0700; its name goes
# into VAR. The names hold "-c", as does every path in their homes: a
# command line read as one text, rather than argument by argument, would be
# cut there.
make_account() {
  local name
  name=kvtest-c$(printf '%04x%04x' $RANDOM $RANDOM)
  useradd --create-home --user-group --shell /bin/sh "$name" || fail "useradd $name failed"
  accounts+=("$name")
  account_uid[$name]=$(id -u "$name")
  account_home[$name]=$(getent passwd "$name" | cut -d: -f6)
  chmod 700 "${account_home[$name]}"
  printf -v "$1" %s "$name"
}

# account_command ACCOUNT COMMAND...: sets $account_words to the command
# run as the account, in its session. Each program of it executes the next,
# so the command keeps the process id that bash reports for it in $!. The
# machine's system bus, where there is one, is kept out of the test.
account_command() {
  local account=$1 home=${account_home[$1]}
  shift
  account_words=(setpriv --reuid="$account" --regid="$account" --init-groups
    env -i HOME="$home" USER="$account" LOGNAME="$account" PATH=/usr/bin:/bin
    XDG_RUNTIME_DIR="$home/.run" DBUS_SESSION_BUS_ADDRESS="unix:path=$home/.run/bus"
    DBUS_SYSTEM_BUS_ADDRESS="unix:path=$home/.run/no-system-bus"
    QT_QPA_PLATFORM=offscreen KORVANE_VELGAR_RESOURCES="$resources" "$@")
}
# as_user ACCOUNT COMMAND...: runs the command as the account and waits.
as_user() {
  account_command "$@"
  "${account_words[@]}"
}

# write_as ACCOUNT FILE TEXT: the account writes a file.
write_as() { as_user "$1" sh -c 'printf %s "$2" >"$1"' sh "$2" "$3" || fail "$1 could not write $2"; }
eicar_as() { write_as "$1" "$2" "$eicar${3:-}"; }

# The agent's resources as an installation has them: owned by root in
# folders only root may change, gfslogger set-user-ID root, so the agent
# watches for an ordinary user.
# The programs go there too: the accounts cannot reach into a checkout
# under /root (0700), and the agent finds its resources beside itself.
install_resources() {
  mkdir -p "$shared/share" "$shared/bin"
  cp -r "$build/share/korvane-velgar" "$resources"
  cp "$agent_bin" "$ctl" "$shared/bin/"
  agent_bin=$shared/bin/korvane-velgar
  ctl=$shared/bin/velgarctl
  chown -R root:root "$shared/share" "$shared/bin"
  chmod -R go-w "$shared/share" "$shared/bin"
  chmod 4755 "$resources/gfslogger"
}

# start_session ACCOUNT: the account's runtime folder and session bus.
start_session() {
  local home=${account_home[$1]}
  as_user "$1" mkdir -m 700 "$home/.run" "$home/watched" || fail "$1 could not make its folders"
  as_user "$1" dbus-daemon --session --address="unix:path=$home/.run/bus" --fork --print-pid=1 >/dev/null ||
    fail "no session bus for $1"
}

account_log() { echo "${account_home[$1]}/Library/Logs/KorvaneVelgar-scan.log"; }
logged_for() { grep -qF -- "$2" "$(account_log "$1")" 2>/dev/null; }
log_count_for() {
  local count
  count=$(grep -cF -- "$2" "$(account_log "$1")" 2>/dev/null)
  echo "${count:-0}"
}
expect_logged_for() {  # expect_logged_for ACCOUNT SECONDS TEXT [WHAT]
  wait_for "$2" logged_for "$1" "$3" || fail "${4:-the log of $1 does not say \"$3\"}"
}

# Every account's log and agent output, and what the script's own
# failure_notes function prints when it has one, then the end of the test.
fail() {
  local account
  echo "FAIL: $*"
  ! declare -F failure_notes >/dev/null || failure_notes
  for account in "${accounts[@]}"; do
    echo "--- scan log of $account (last 40 lines):"
    tail -n 40 "$(account_log "$account")" 2>/dev/null || true
    echo "--- agent output of $account:"
    tail -n 20 "$work/agent-$account.out" 2>/dev/null || true
  done
  exit 1
}

# start_agent_as ACCOUNT: the account's agent, waited for until it watches.
start_agent_as() {
  local account=$1 starts
  starts=$(log_count_for "$account" "Watching started")
  account_command "$account" "$agent_bin"
  "${account_words[@]}" >>"$work/agent-$account.out" 2>&1 &
  account_agent[$account]=$!
  started() { [ "$(log_count_for "$account" "Watching started")" -gt "$starts" ]; }
  wait_for 60 started || fail "the agent of $account did not start watching"
  wait_until_watching_as "$account"
}

# Writes a probe file as the account every two seconds until the account's
# agent logs its result: gfslogger may still be marking the file systems
# when "Watching started" is logged.
wait_until_watching_as() {
  probes=$((probes + 1))
  local probe=${account_home[$1]}/watched/.watching-probe-$probes
  local deadline=$((SECONDS + 90)) next=0
  until logged_for "$1" "$probe: OK"; do
    [ $SECONDS -lt $deadline ] || fail "the agent of $1 did not scan a probe file within 90 s"
    if [ $SECONDS -ge $next ]; then
      write_as "$1" "$probe" "probe $probes"
      next=$((SECONDS + 2))
    fi
    sleep 0.05
  done
  rm -f "$probe"
}

# quit_agent_as ACCOUNT: velgarctl quit as the account; the agent must end
# with status 0.
quit_agent_as() {
  local pid=${account_agent[$1]} status=0
  as_user "$1" "$ctl" quit >/dev/null || fail "velgarctl quit failed for $1"
  wait_for 30 bash -c "! kill -0 $pid 2>/dev/null" || fail "the agent of $1 did not quit"
  wait "$pid" || status=$?
  account_agent[$1]=
  [ $status -eq 0 ] || fail "the agent of $1 exited with status $status"
}

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
