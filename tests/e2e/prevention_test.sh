#!/usr/bin/env bash
# Opens held until their verdict, as an ordinary user meets them with the
# set-user-ID gfslogger and a real clamd: a program that writes the EICAR
# test file into a watched folder and opens it at once is refused and reads
# nothing, every time; an infected script does not run; a clean file reads
# whole; and however the engine, the agent or its helper are stopped or
# killed, no open waits longer than "BlockAtMostSeconds", and opens outside
# the watched folders never wait.
#
#   prevention_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/accounts.sh"

make_account user
install_resources
home=${account_home[$user]}
prefix=$home/.local/share/korvane/clamav
probe=$shared/bin/kv_open_probe
install -m 755 "$build/bin/kv_open_probe" "$probe"
printf %s "$eicar" >"$shared/eicar.src"
echo "clean text" >"$shared/clean.src"
chmod 644 "$shared/eicar.src" "$shared/clean.src"
limit=2

start_session "$user"
make_prefix
chown -hR "$user:$user" "$home/.local"
use_account "$user"
pref PathToClamav -string "$prefix"
pref PathToUpdateLog -string "$home/update.log"
pref VelgarQuarantineFiles -bool true
pref QuarantineFolder -string "~/Quarantine"
pref BlockUntilScanned -bool true
pref BlockAtMostSeconds -int "$limit"
watch_folders "~/watched"
start_agent
expect_logged 10 "Opens of new files wait for their verdict, at most $limit seconds"

# probe MODE PATH [SOURCE]: what the user's program meets.
probe() { "${runner[@]}" "$probe" "$@"; }
# The milliseconds an open of PATH took, which must read the whole file.
read_ms() {
  local said
  said=$(probe read "$1")
  [[ $said == "read 11 "* ]] || fail "reading $1: $said"
  echo "${said##* }"
}
within_limit() {  # within_limit MS WHAT
  [ "$1" -le $((limit * 1000 + 500)) ] || fail "$2 waited $1 ms, more than $limit s and a half"
}

echo "== An infected file opened the moment it is written: refused, nothing read, 100 times out of 100"
for i in $(seq 100); do
  said=$(probe write "$watched/eicar-$i.com" "$shared/eicar.src")
  [[ $said == denied* ]] || fail "open $i of a new infected file: $said"
done
expect_logged 60 "Blocked kv_open_probe (pid "
expect_logged 60 "$watched/eicar-100.com: moved to '$home/Quarantine/eicar-100.com'"
[ "$(log_count "from opening $watched/eicar-")" -eq 100 ] || fail "not every refusal was logged"

echo "== An infected script does not run"
"${runner[@]}" sh -c 'printf "#!/bin/sh\n: %s\necho ran\n" "$1" >"$2" && chmod 755 "$2"' sh "$eicar" "$watched/script.sh"
said=$(probe exec "$watched/script.sh")
[[ $said == denied* ]] || fail "running an infected script: $said"

echo "== A clean file written and read at once reads whole"
said=$(probe write "$watched/clean.txt" "$shared/clean.src")
[[ $said == "read 11 "* ]] || fail "a new clean file: $said"

echo "== A FIFO in a held folder passes its data, and the opens after it are still answered"
"${runner[@]}" mkfifo "$watched/pipe"
said=$("${runner[@]}" timeout 10 sh -c 'echo through >"$1" & cat "$1"' sh "$watched/pipe") ||
  fail "a FIFO in a held folder did not pass its data: $said"
[ "$said" = through ] || fail "a FIFO passed '$said'"
said=$(probe write "$watched/after-pipe.txt" "$shared/clean.src")
[[ $said == "read 11 "* ]] || fail "a clean file after the FIFO: $said"

echo "== clamd stopped: an open waits $limit s at most, and the file is scanned later"
daemon=$(daemon_pid)
kill -STOP "$daemon"
echo "clean text" | "${runner[@]}" tee "$watched/while-stopped.txt" >/dev/null
within_limit "$(read_ms "$watched/while-stopped.txt")" "an open while clamd was stopped"
ms=$(read_ms "$shared/clean.src")
[ "$ms" -le 100 ] || fail "a file outside the watched folders waited $ms ms while clamd was stopped"
kill -CONT "$daemon"
expect_logged 30 "No verdict for $watched/while-stopped.txt (opened by kv_open_probe"
expect_logged 60 "$watched/while-stopped.txt: OK"

echo "== The agent and its helper stopped: the same bound"
helper=$(pgrep -P "$agent_pid" -x gfslogger)
holder=$(pgrep -P "$helper" -x gfslogger)
[ -n "$holder" ] || fail "no holder runs beside gfslogger"
# The holder is root's: the user can neither stop nor kill it.
! "${runner[@]}" kill -STOP "$holder" 2>/dev/null || fail "the user stopped the holder"
"${runner[@]}" kill -STOP "$agent_pid" "$helper"
echo "clean text" | "${runner[@]}" tee "$watched/agent-stopped.txt" >/dev/null
within_limit "$(read_ms "$watched/agent-stopped.txt")" "an open while the agent and its helper were stopped"
"${runner[@]}" kill -CONT "$agent_pid" "$helper"

echo "== The agent and its helper killed: opens go on at once"
"${runner[@]}" kill -KILL "$agent_pid" "$helper"
wait_for 10 bash -c "! kill -0 $holder 2>/dev/null" || fail "the holder outlived the agent and its helper"
agent_pid=
echo "clean text" | "${runner[@]}" tee "$watched/after-kill.txt" >/dev/null
ms=$(read_ms "$watched/after-kill.txt")
[ "$ms" -le 100 ] || fail "an open waited $ms ms with nothing left to answer it"
echo "all prevention checks passed"
