#!/usr/bin/env bash
# Debian's clamd service shared by two real accounts at once. Each user runs
# velgarctl setup, which adopts the service, and then the agent; both have
# their infected files found by the service, which reads the files of the
# 0700 homes through the descriptors clamdscan passes it. Neither agent
# stops, relaunches or replaces the service, and neither user's log names
# the other's files. (The stand-in of a user's own for a silent service is
# the SystemServiceEngine tests', with the same daemons.)
#
# The service is /usr/sbin/clamd as Debian's unit runs it: started by root
# with --foreground=true, reading /etc/clamav/clamd.conf, switching to the
# user clamav. Its database, socket and log folders are the test's own,
# mounted in the test's mount namespace over /var/lib/clamav, /run and
# /var/log/clamav, so a service the machine runs is left alone.
#
#   service_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/accounts.sh"

# The folders below are Debian's; a machine whose configuration names others
# is told so.
socket=/var/run/clamav/clamd.ctl
service_log=/var/log/clamav/clamav.log
for setting in "LocalSocket $socket" "LogFile $service_log" "DatabaseDirectory /var/lib/clamav" "User clamav"; do
  [ "$(awk -v name="${setting%% *}" '$1 == name {value = $2} END {print name, value}' /etc/clamav/clamd.conf)" = "$setting" ] ||
    fail "/etc/clamav/clamd.conf does not say \"$setting\", as Debian's does"
done

make_account first
make_account second
install_resources

echo "== Debian's clamd service, with the test signatures"
service_files=$work/service
install -d -o clamav -g clamav -m 755 "$service_files" "$service_files/db" "$service_files/log"
install -o clamav -g clamav -m 644 "$source_dir/resources/clamav/korvane-test.ndb" "$service_files/db/"
mount --bind "$service_files/db" /var/lib/clamav
mount --bind "$service_files/log" /var/log/clamav
mount -t tmpfs -o mode=755 tmpfs /run
install -d -o clamav -g clamav -m 755 /run/clamav
/usr/sbin/clamd --foreground=true >"$work/service.out" 2>&1 &
service_pid=$!

# ping: the pid of the process serving the socket (SO_PEERCRED) and its
# answer to PING.
ping_service() {
  /usr/bin/python3 - "$socket" <<'EOF'
import socket, struct, sys
connection = socket.socket(socket.AF_UNIX)
connection.settimeout(5)
connection.connect(sys.argv[1])
pid, _, _ = struct.unpack("3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
connection.sendall(b"zPING\0")
print(pid, connection.recv(64).rstrip(b"\0").decode())
EOF
}
answers() { [ "$(ping_service 2>/dev/null)" = "$service_pid PONG" ]; }
wait_for 60 answers || { cat "$work/service.out"; fail "the service did not answer PING at $socket"; }
[ "$(awk '/^Uid:/ {print $2}' "/proc/$service_pid/status")" = "$(id -u clamav)" ] ||
  fail "the service does not run as clamav"

echo "== Each user's setup adopts the service"
for account in "$first" "$second"; do
  start_session "$account"
  home=${account_home[$account]}
  as_user "$account" "$ctl" setup --watch "$home/watched" >"$work/setup-$account.out" 2>&1 ||
    { cat "$work/setup-$account.out"; fail "velgarctl setup failed for $account"; }
  # What setup wrote (the socket, clamdscan passing descriptors) shows below:
  # the agent uses the service, which finds files it could not open itself.
  grep -qF "The system's clamd service answers at $socket" "$work/setup-$account.out" ||
    { cat "$work/setup-$account.out"; fail "setup did not say that it uses the service, for $account"; }
done

echo "== Both agents at once: each user's files found by the service, and only that user's"
infected_names=(plain.com "private/in a private folder.com" "private/deeper/third.com")
for account in "$first" "$second"; do
  use_account "$account"
  start_agent
  logged "Using the system's clamd service at $socket" || fail "the agent of $account did not use the service"
  "${runner[@]}" mkdir -m 700 -p "$watched/private/deeper"
done
for name in "${infected_names[@]}"; do
  for account in "$first" "$second"; do use_account "$account"; write_eicar "$watched/$name" " $account"; done
done
for account in "$first" "$second"; do
  use_account "$account"
  for name in "${infected_names[@]}"; do
    file=$watched/$name
    expect_logged 60 "$file$finding" "no finding for $file in the log of $account"
    # Read by the service, which could not have opened the file itself.
    grep -qF "$file: Eicar-Test-Signature.UNOFFICIAL" "$service_log" || fail "the service did not scan $file"
    setpriv --reuid=clamav --regid=clamav --clear-groups test -r "$file" 2>/dev/null &&
      fail "the service's user can read $file by itself"
  done
done
use_account "$first"
logged "${account_home[$second]}" && fail "the log of $first names files of $second"
use_account "$second"
logged "${account_home[$first]}" && fail "the log of $second names files of $first"

# No clamd in the namespace but the service.
only_the_service() {
  local daemons
  daemons=$(clamd_processes)
  [ "${daemons%% *}" = "$service_pid" ] && [ "$(wc -l <<<"$daemons")" -eq 1 ]
}
only_the_service || fail "clamd processes other than the service's ($service_pid) run: $(clamd_processes)"

echo "== A restart of one agent while the other scans; then both quit"
use_account "$first"
"${runner[@]}" "$ctl" restart >/dev/null || fail "velgarctl restart failed for $first"
use_account "$second"
finds "$watched/during-restart.com"
use_account "$first"
restarted() { [ "$(log_count "Watching started")" -ge 2 ]; }
wait_for 60 restarted || fail "the agent of $first did not start watching again"
wait_until_watching
finds "$watched/after-restart.com"

# The agent runs as the user here: a file of mode 0 is unreadable until its
# owner changes the mode, which the agent must notice.
echo "== A file written unreadable is found once it is made readable"
unreadable=$watched/made-readable.com
"${runner[@]}" sh -c 'umask 777 && printf %s "$2" >"$1"' sh "$unreadable" "$eicar"
expect_logged 60 "$unreadable: " "the unreadable file got no result line"
"${runner[@]}" chmod 644 "$unreadable"
expect_logged 60 "$unreadable$finding" "the file made readable was not scanned again"

for account in "$first" "$second"; do
  use_account "$account"
  quit_agent
  logged "trying to quit clamd" && fail "the agent of $account sent QUIT to the service"
done
answers || fail "the service ($service_pid) no longer answers PING after the agents quit: $(ping_service 2>&1)"
only_the_service || fail "clamd processes other than the service's ($service_pid) run: $(clamd_processes)"

echo "all service checks passed"
