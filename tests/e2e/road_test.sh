#!/usr/bin/env bash
# The road of single files through the running agent: from the file system
# event to the result line, in each infected-file mode, for files that must
# wait, and through restarts and a quit from velgarctl.
#
#   road_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

default_setup
pref ExcludePatterns -json '[{"excludeEnabled": true, "excludePattern": "not-for-scanning"},
                              {"excludeEnabled": true, "excludeRegEx": true, "excludePattern": "\\.partial[0-9]+$"},
                              {"excludeEnabled": false, "excludePattern": "disabled-record"}]'
start_agent

echo "== Warn mode: a clean file, an infected one left in place, excluded ones"
echo "just text" >"$watched/clean.txt"
for name in infected.com not-for-scanning.com download.partial7 disabled-record.com; do write_eicar "$watched/$name"; done
expect_logged 60 "$watched/clean.txt: OK"
expect_logged 60 "$watched/infected.com$finding"
expect_logged 60 "$watched/disabled-record.com$finding" "a disabled exclusion record excluded a file"
[ -f "$watched/infected.com" ] || fail "warn mode moved the infected file"
for name in not-for-scanning.com download.partial7; do logged "$name" && fail "the excluded $name was scanned"; done

echo "== A file still growing is scanned again once it is complete"
# A download held open and written in steps. A scan may catch it between two
# steps (the readiness rule only sees the size hold for a moment); the close
# queues it again, so its last result comes after the last write.
exec 3>"$watched/growing.log"
for _ in $(seq 12); do head -c 65536 /dev/urandom >&3; sleep 0.25; done
before_close=$(log_count "$watched/growing.log: OK")
exec 3>&-
scanned_after_close() { [ "$(log_count "$watched/growing.log: OK")" -gt "$before_close" ]; }
wait_for 60 scanned_after_close || fail "the complete file was not scanned after its last write"

echo "== An empty file waits until it has content"
: >"$watched/empty.dat"
settle
logged "empty.dat" && fail "an empty file was scanned"
finds "$watched/empty.dat" 60 "the once-empty file was not scanned after it filled"

echo "== A new folder and the files made in it"
mkdir -p "$watched/new folder/deeper"
finds "$watched/new folder/deeper/inside.com"

echo "== Quarantine mode, after a restart from velgarctl"
pref VelgarQuarantineFiles -bool true
pref QuarantineFolder -string "~/Quarantine"
restart_agent
logged "I will quarantine infected files" || fail "the restart did not read the quarantine mode"
[ -d "$HOME/Quarantine" ] || fail "the quarantine folder was not created at the start of watching"
write_eicar "$watched/quarantine-me.com" " (one)"
expect_logged 60 "$watched/quarantine-me.com: moved to '$HOME/Quarantine/quarantine-me.com'"
[ -f "$HOME/Quarantine/quarantine-me.com" ] && [ ! -e "$watched/quarantine-me.com" ] || fail "the file is not in quarantine"
# A second file of the same name takes a numbered name beside the first.
write_eicar "$watched/quarantine-me.com" " (two)"
expect_logged 60 "$watched/quarantine-me.com: moved to '$HOME/Quarantine/quarantine-me.com.001'"
echo "fine" >"$watched/stays.txt"
expect_logged 60 "$watched/stays.txt: OK"
[ -f "$watched/stays.txt" ] || fail "quarantine mode moved a clean file"

echo "== Trash mode: the desktop can restore the file"
pref VelgarQuarantineFiles -bool false
pref VelgarTrashFiles -bool true
restart_agent
logged "I will delete infected files" || fail "the restart did not read the trash mode"
write_eicar "$watched/trash me.com"
trash=$XDG_DATA_HOME/Trash
expect_logged 60 "$watched/trash me.com: moved to '$trash/files/trash me.com'"
[ -f "$trash/files/trash me.com" ] && [ ! -e "$watched/trash me.com" ] || fail "the file is not in the Trash"
info="$trash/info/trash me.com.trashinfo"
wait_for 5 test -f "$info" || fail "no .trashinfo for the trashed file"
grep -qx "Path=$(printf '%s' "$watched" | sed 's/ /%20/g')/trash%20me.com" "$info" || fail "the .trashinfo names another path: $(cat "$info")"
grep -qE '^DeletionDate=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}$' "$info" || fail "the .trashinfo has no deletion date"

echo "== A quit leaves the clamd that the last load found running"
# Only the load that launched clamd stops it at a quit; after the restarts
# above the daemon counts as found, and it is left for the next start.
quit_agent
logged "trying to quit clamd" && fail "a quit after restarts stopped a daemon the last load found running"
daemon_alive || fail "clamd did not outlive the agent"
echo "all road checks passed"
