# Real accounts for the end-to-end tests of a machine shared by several
# users: accounts made for the test (homes of mode 0700) and removed with
# everything they own when it ends, the agent's resources installed where
# only root can change them with gfslogger set-user-ID root, and for each
# account a session of its own: runtime folder, session bus, preferences
# written by velgarctl as the user, and the agent run as the user.
#
# Sourced after lib.sh. After use_account ACCOUNT, lib.sh's helpers act as
# that account: they write its files, run its velgarctl and its agent, and
# read its scan log.

# A set-user-ID program must never let its environment steer it, and a
# sanitizer's runtime reads its options, log file among them, from there.
if grep -q '^KV_SANITIZE:STRING=.' "$build/CMakeCache.txt" 2>/dev/null; then
  echo "FAIL: $build is a sanitizer build, whose gfslogger is never made set-user-ID; run this test on a plain build"
  exit 1
fi

declare -a accounts=()
declare -A account_home=() account_uid=() account_agent=()
current_account=

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
  shown_files+=("${account_home[$name]}/Library/Logs/KorvaneVelgar-scan.log" "$work/agent-$name.out")
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

# use_account ACCOUNT: lib.sh's helpers act as the account, on its watched
# folder, its log and its agent, until the next use_account.
use_account() {
  [ -z "$current_account" ] || account_agent[$current_account]=$agent_pid
  current_account=$1
  account_command "$1"
  runner=("${account_words[@]}")
  log=${account_home[$1]}/Library/Logs/KorvaneVelgar-scan.log
  watched=${account_home[$1]}/watched
  agent_out=$work/agent-$1.out
  agent_pid=${account_agent[$1]:-}
}

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
