#!/usr/bin/env bash
# Two real accounts on one machine. The neighbour runs programs called
# clamd whose command lines name the user's engine configuration, before
# the user's agent starts. The agent takes none of them for its own: it
# launches its engine prefix's clamd, finds an infected file with it,
# relaunches that same daemon when it dies, and never runs the neighbour's
# program, as the user or as root. The neighbour's own file activity costs
# the user's agent no walk, and the user cannot run a second event helper.
#
#   neighbour_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/accounts.sh"

make_account user
make_account neighbour
install_resources
home=${account_home[$user]}
prefix=$home/.local/share/korvane/clamav
conf=$prefix/etc/clamd.conf

# Anyone but the neighbour who runs the neighbour's clamd writes a line
# here, which only root can read.
foreign_runs=$shared/foreign-runs
install -m 622 /dev/null "$foreign_runs"
failure_notes() {
  [ ! -s "$foreign_runs" ] || { echo "--- the neighbour's programs ran as others:"; head -n 5 "$foreign_runs"; }
}

echo "== The neighbour's programs called clamd name $user's engine"
# The neighbour's folder, which every user can read and run programs from.
nest=$shared/neighbour
install -d -o "$neighbour" -g "$neighbour" -m 755 "$nest" "$nest/x"
fake=$nest/x/clamd
as_user "$neighbour" sh -c 'cat >"$1" && chmod 755 "$1"' sh "$fake" <<EOF
#!/bin/sh
# Waits as long as its owner runs it; anyone else who runs it is written down.
if [ "\$(id -u)" != ${account_uid[$neighbour]} ] || [ "\$(id -ru)" != ${account_uid[$neighbour]} ]; then
  echo "run as uid \$(id -u) (real \$(id -ru)): \$0 \$*" >>$foreign_runs
  exit 1
fi
while sleep 1; do :; done
EOF
# The record itself: a run as anyone else is written down.
setpriv --reuid=nobody --regid=nogroup --clear-groups "$fake" -c "$conf" || true
grep -q "^run as uid $(id -u nobody) " "$foreign_runs" || fail "the neighbour's program does not write down a run as another user"
: >"$foreign_runs"
printf 'LocalSocket %s/x/clamd.ctl\nDatabaseDirectory %s/x\n' "$nest" "$nest" |
  as_user "$neighbour" sh -c 'cat >"$1"' sh "$nest/x/c.conf"

# Each line one process: the name it goes by (argv[0]), then the arguments
# the script gets, "|" between words. An empty name runs the script as it
# is, which the process table shows as "/bin/sh SCRIPT ARGUMENTS"; the
# others run it under that name, as any program may choose its argv[0], and
# show as "NAME SCRIPT ARGUMENTS". Among the names are clamd, the path of
# the user's own daemon and Debian's; among the arguments, the user's
# configuration in each spelling clamd takes, and a configuration of the
# neighbour's (c.conf) before it or instead of it.
fake_command_lines=(
  "|-c|$conf"
  "clamd|-c|$conf"
  "$fake|-c|$conf"
  "$prefix/sbin/clamd|-c|$conf"
  "/usr/sbin/clamd|--config-file=$conf"
  "clamd|-c$conf"
  "clamd|-c|$nest/x/c.conf"
  "clamd|-c|$nest/x/c.conf|-c|$conf"
  "$fake -c $nest/x/c.conf|-c|$conf"
)
for line in "${fake_command_lines[@]}"; do
  IFS='|' read -r -a words <<<"$line"
  if [ -z "${words[0]}" ]; then
    account_command "$neighbour" "$fake" "${words[@]:1}"
  else
    account_command "$neighbour" bash -c 'exec -a "$0" /bin/sh "$@"' "${words[0]}" "$fake" "${words[@]:1}"
  fi
  "${account_words[@]}" &
  disown
done
# And a process whose argv[0] alone reads as a daemon's command line, the
# script and the user's configuration: what a reader of the process table's
# text, cutting it at "-c", would run as the user.
account_command "$neighbour" bash -c 'exec -a "$0" sleep 100000' "$fake -c $conf"
"${account_words[@]}" &
disown
fakes_running() { [ "$(pgrep -c -U "${account_uid[$neighbour]}" -f -- "$fake")" -eq $((${#fake_command_lines[@]} + 1)) ]; }
wait_for 30 fakes_running || fail "the neighbour's programs did not all start"
[ "$(pgrep -c -U "${account_uid[$neighbour]}" -x clamd)" -ge 1 ] || fail "no neighbour's process is called clamd"

echo "== $user's agent launches its own clamd and finds an infected file"
start_session "$user"
make_prefix
chown -hR "$user:$user" "$home/.local"
use_account "$user"
pref PathToClamav -string "$prefix"
pref PathToUpdateLog -string "$home/update.log"
watch_folders "~/watched"
start_agent
logged "clamd launched successfully.  Continuing..." || fail "the agent took another process for its own clamd"
finds "$watched/infected.com"

# Every live clamd in the namespace must be the user's, run as the engine
# prefix's daemon with its configuration.
check_daemons() {
  local pid uid args
  while read -r pid uid args; do
    [ "$uid" = "${account_uid[$user]}" ] && [ "$args" = "$prefix/sbin/clamd -c $conf" ] ||
      fail "clamd $pid runs as uid $uid with the command line \"$args\""
  done < <(clamd_processes)
}
check_daemons
first_daemon=$(daemon_pid)
daemon_alive || fail "the pid file of $user's clamd names no process"

echo "== A second gfslogger of $user's is refused while the agent's watches"
helper_status=0
helper_said=$(as_user "$user" "$resources/gfslogger" </dev/null 2>&1 | tr '\0' '\n'; exit "${PIPESTATUS[0]}") || helper_status=$?
[ "$helper_status" -eq 3 ] && [[ $helper_said == "gfslogger: another gfslogger already watches for this user"* ]] ||
  fail "a second gfslogger of $user's ended with status $helper_status, saying: $helper_said"

echo "== The neighbour makes 100,000 files of its own: no walk for $user's agent"
walks_logged() { grep -cE "File events were lost|is scanned whole|every file in the watched folders is scanned" "$log"; }
# CPU time of all of a process's threads in milliseconds, from the
# scheduler's own count in nanoseconds.
cpu_ms() { cat /proc/"$1"/task/*/schedstat | awk '{ns += $1} END {printf "%.1f", ns / 1e6}'; }
helper_pid=$(pgrep -P "$agent_pid" -x gfslogger) || fail "no gfslogger under $user's agent"
walks_before=$(walks_logged || true)
agent_cpu=$(cpu_ms "$agent_pid")
helper_cpu=$(cpu_ms "$helper_pid")
# The helper is stopped meanwhile, as a busy machine may starve it: it
# finds whatever the kernel queued for it when it goes on, and a queue that
# overflowed would cost a walk.
kill -STOP "$helper_pid"
flood_start=$SECONDS
as_user "$neighbour" sh -c 'mkdir "$HOME/flood" && cd "$HOME/flood" && seq 100000 | xargs touch' ||
  fail "the neighbour could not make its files"
flood_seconds=$((SECONDS - flood_start))
kill -CONT "$helper_pid"
settle
echo "   while the neighbour made 100,000 files ($flood_seconds s), $user's agent used" \
  "$(awk -v a="$(cpu_ms "$agent_pid")" -v b="$agent_cpu" 'BEGIN {printf "%.1f", a - b}') ms of CPU" \
  "and its gfslogger $(awk -v a="$(cpu_ms "$helper_pid")" -v b="$helper_cpu" 'BEGIN {printf "%.1f", a - b}') ms"
[ "$(walks_logged || true)" -eq "$walks_before" ] || fail "the neighbour's files made $user's agent walk its folders"

echo "== Its clamd killed: the relaunch is the prefix's daemon again"
kill -KILL "$first_daemon"
write_eicar "$watched/after-crash.com"
expect_logged 120 "clamd appears to have died - attempting restart..." "the dead daemon was not noticed"
wait_for 60 clamd_besides "$first_daemon" || fail "clamd was not launched again"
check_daemons
# The batch that found the daemon dead is scanned again on the new one.
expect_logged 120 "$watched/after-crash.com$finding" "the file written while clamd was dead was never scanned"
finds "$watched/after-relaunch.com" 120 "no finding after the relaunch"

echo "== Nobody but the neighbour ran the neighbour's programs"
quit_agent
logged "trying to quit clamd" || fail "the agent did not stop the clamd it launched"
[ ! -s "$foreign_runs" ] || fail "the neighbour's clamd ran as another user"
fakes_running || fail "the neighbour's programs did not all outlive the agent"

echo "== A socket the neighbour could take over is refused, before and after it does, and nothing is sent to it"
# The user's engine listens in a folder everyone may write to, where the
# neighbour can put a socket of its own in place of the daemon's: refused
# even while the user's own daemon answers there.
sockets=$shared/sockets
install -d -m 777 "$sockets"
socket=$sockets/clamd.ctl
as_user "$user" sed -i "s#^LocalSocket .*#LocalSocket $socket#" "$conf"
# No probe file is scanned here: files are written until one is refused.
start_agent "Watching started: "
refusal="Refusing the clamd socket $socket: $sockets may be written by other users"
refused_after_writing() { write_eicar "$watched/before-takeover-$SECONDS.com"; wait_for 2 logged "$refusal"; }
wait_for 60 refused_after_writing || fail "the agent used a socket in a folder others may write"
# The neighbour's server writes down every request it gets, and would
# answer PONG to a PING and OK to anything else.
heard=$nest/heard
account_command "$neighbour" /usr/bin/python3 -c '
import os, socket, sys
path, heard = sys.argv[1:]
os.unlink(path)
server = socket.socket(socket.AF_UNIX)
server.bind(path)
os.chmod(path, 0o777)
server.listen(16)
while True:
    connection, _ = server.accept()
    connection.settimeout(2)
    try:
        request = connection.recv(4096)
        with open(heard, "a") as record:
            record.write(repr(request) + "\n")
        if request:
            connection.sendall(b"PONG\0" if request[1:5] == b"PING" else b"stream: OK\0")
    except OSError:
        pass
    connection.close()
' "$socket" "$heard"
"${account_words[@]}" &
disown
taken() { [ "$(stat -c %U "$socket" 2>/dev/null)" = "$neighbour" ]; }
wait_for 30 taken || fail "the neighbour could not take the socket"
refusals=$(log_count "$refusal")
write_eicar "$watched/after-takeover.com"
refused_again() { [ "$(log_count "$refusal")" -gt "$refusals" ]; }
wait_for 60 refused_again || fail "the agent did not refuse the neighbour's socket"
expect_logged 60 "files are not scanned: the engine's socket is not trusted"
grep -F -- "$finding" "$log" | grep -qF -- "-takeover-" && fail "a socket in a folder others may write was used"
logged "$watched/after-takeover.com: OK" && fail "a file was called clean by the neighbour's server"
expect_alive "after the takeover"
quit_agent
grep -v -x "b''" "$heard" && fail "the neighbour's server was sent the requests above"
[ ! -s "$foreign_runs" ] || fail "the neighbour's clamd ran as another user"
echo "all neighbour checks passed"
