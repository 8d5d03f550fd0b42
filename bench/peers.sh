#!/usr/bin/env bash
# The agent beside ClamAV's own on-access scanner, clamonacc, on the same
# files and the same kind of clamd.
#
#   sudo bench/peers.sh [build folder]      (default: build)
#
# 1. Idle cost: the agent watching one folder, 60 s at rest (CPU share of one
#    core, resident memory), with clamonacc and gfslogger beside it.
# 2. Detection latency: the agent and clamonacc watch the same folder at the
#    same time; 50 EICAR files (each with its own tail) are written one at a
#    time by "nobody"; for each scanner, the time from the file's close to its
#    FOUND line in that scanner's log.
# 3. Flood: 10,000 clean files of 64 bytes (all different) written at once
#    into the watched folder, three rounds: the agent's time from the last
#    close to the last result line, then one direct `clamdscan --file-list`
#    over the same files against a freshly started clamd (empty cache), and
#    the same files again in lists of 200, two clamdscan runs at a time, the
#    way the agent's two scanners hand them over. Then clamonacc alone on a
#    new set of 10,000; it is expected to die ("bit out of range 0 -
#    FD_SETSIZE on fd_set"), and what it scanned before is counted in the
#    daemon's log (clamonacc logs nothing for clean files).
#
# One clamd, started as root before everyone else, serves both scanners. The
# agent is started again after the latency part, so the memory it reports
# after the floods does not count the warning dialogs still open.
# Root, because clamonacc needs it. Overrides for trial runs:
# PEERS_LATENCY_FILES, PEERS_FLOOD_FILES, PEERS_ROUNDS, PEERS_IDLE_SECONDS,
# PEERS_MAX_LOAD (the 1-minute load each phase waits for, up to
# PEERS_LOAD_WAIT seconds); PEERS_WRITER (options for the latency writer,
# e.g. "--stall-before-write 50"); PEERS_KEEP=1 keeps the logs of the run.
set -euo pipefail
source "$(dirname "$0")/../tests/support/machine_lock.sh"
cd "$(dirname "$0")/.."
build=${1:-build}
latency_files=${PEERS_LATENCY_FILES:-50}
flood_files=${PEERS_FLOOD_FILES:-10000}
rounds=${PEERS_ROUNDS:-3}
idle=${PEERS_IDLE_SECONDS:-60}
max_load=${PEERS_MAX_LOAD:-0.7}
load_wait=${PEERS_LOAD_WAIT:-90}
pause=2.5

agent=$build/bin/korvane-velgar
ctl=$build/bin/velgarctl
bench=$build/bin/peers_bench
for tool in "$agent" "$ctl" "$bench"; do
  [ -x "$tool" ] || { echo "missing $tool: build the tree first (cmake --build $build)"; exit 1; }
done
[ "$(id -u)" = 0 ] || { echo "run as root: clamonacc needs it"; exit 1; }
if ! command -v clamonacc >/dev/null || [ ! -x /usr/sbin/clamd ]; then
  echo "needs Debian's clamav-daemon (clamd, clamonacc)"; exit 1
fi
id nobody >/dev/null

# ------------------------------------------------------------------ cleanup
work=$(mktemp -d /tmp/kv-peers-XXXXXX)
# The folder both scanners watch: written by nobody, who cannot enter $work.
drop=$(mktemp -d /tmp/kv-peers-drop-XXXXXX)
prefix=$work/prefix
agent_pid='' onacc_pid='' bus_pid='' helper_pid='' measure_pid=''

daemon_pids() {  # the clamd of this run only: by its pid file and its unique prefix
  { cat "$prefix/run/clamd.pid" 2>/dev/null || true; pgrep -f "^$prefix/sbin/clamd " || true; } | sort -u
}
stop_pid() {  # stop_pid PID: TERM, then KILL after 10 s
  local pid=$1
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
  kill -KILL "$pid" 2>/dev/null || true
}
stop_daemon() {
  local pid
  for pid in $(daemon_pids); do stop_pid "$pid"; done
  rm -f "$prefix/run/clamd.pid"
}
stop_onacc() { stop_pid "$onacc_pid"; wait "$onacc_pid" 2>/dev/null || true; onacc_pid=''; }
stop_agent() {
  if [ -n "$agent_pid" ] && kill -0 "$agent_pid" 2>/dev/null; then
    timeout 10 "$ctl" quit >/dev/null 2>&1 || true
    for _ in $(seq 100); do kill -0 "$agent_pid" 2>/dev/null || break; sleep 0.1; done
    stop_pid "$agent_pid"
  fi
  wait "$agent_pid" 2>/dev/null || true
  agent_pid=''
  stop_pid "$helper_pid"; helper_pid=''
}
cleanup() {
  set +e
  stop_pid "$measure_pid"
  stop_agent
  stop_onacc
  stop_daemon
  stop_pid "$bus_pid"
  if [ -n "$(daemon_pids)" ]; then echo "WARNING: a clamd of this run still runs: $(daemon_pids)"; fi
  if [ "${PEERS_KEEP:-}" = 1 ]; then echo "kept $work"; rm -rf "$work/prefix"; else rm -rf "$work"; fi
  rm -rf "$drop"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
trap 'echo "peers.sh: line $LINENO failed: $BASH_COMMAND" >&2' ERR

# ------------------------------------------------------------------ helpers
# measured OUTPUT COMMAND...: runs a measurement in the background, so that a
# signal ends the run at once (bash holds its traps while a foreground command
# runs), then shows its output.
measured() {
  local out=$1 status=0; shift
  "$@" > "$out" 2>&1 &
  measure_pid=$!
  wait "$measure_pid" || status=$?
  measure_pid=''
  cat "$out"
  return $status
}
load() { cut -d' ' -f1-3 /proc/loadavg; }
wait_for() {  # wait_for SECONDS COMMAND...
  local deadline=$((SECONDS + $1)); shift
  until "$@"; do [ $SECONDS -lt $deadline ] || return 1; sleep 0.05; done
}
# Waits (up to load_wait seconds) for the 1-minute load to fall below max_load.
quiet_machine() {
  local deadline=$((SECONDS + load_wait))
  while awk -v m="$max_load" '{exit !($1 >= m)}' /proc/loadavg && [ $SECONDS -lt $deadline ]; do sleep 5; done
  echo "  load before $1: $(load)"
}
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
# Own and reaped children's CPU seconds: "own children"
cpu_split() { awk -v hz="$(getconf CLK_TCK)" '{printf "%.2f %.2f\n", ($14 + $15) / hz, ($16 + $17) / hz}' "/proc/$1/stat"; }
helper_cpu() { if [ -n "$helper_pid" ]; then cpu_split "$helper_pid" | cut -d' ' -f1; else echo 0; fi; }
daemon_cpu() { awk -v hz="$(getconf CLK_TCK)" '{printf "%.2f", ($14 + $15) / hz}' "/proc/$(cat "$prefix/run/clamd.pid")/stat"; }
# On-CPU nanoseconds of all of a process's threads (finer than the ticks).
cpu_ns() { cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{s += $1} END {printf "%.0f", s}'; }
status_kb() { awk -v k="$2:" '$1 == k {print $2}' "/proc/$1/status"; }
mb() { awk -v k="$1" 'BEGIN {printf "%.1f", k / 1024}'; }
start_daemon() {
  "$prefix/sbin/clamd" -c "$prefix/etc/clamd.conf"
  wait_for 30 test -S "$prefix/run/clamd.ctl" || { echo "clamd did not start"; exit 1; }
}
restart_daemon() { stop_daemon; wait_for 15 test ! -S "$prefix/run/clamd.ctl" || rm -f "$prefix/run/clamd.ctl"; start_daemon; }
started_count() { cat "$log" 2>/dev/null | grep -c 'Watching started' || true; }
start_agent() {
  local lines
  lines=$(started_count)
  "$agent" >>"$work/agent.out" 2>&1 &
  agent_pid=$!
  wait_for 30 bash -c "[ \$(cat '$log' 2>/dev/null | grep -c 'Watching started') -gt $lines ]" ||
    { echo "the agent did not start watching:"; cat "$log" "$work/agent.out"; exit 1; }
  helper_pid=$(pgrep -P "$agent_pid" -x gfslogger || true)
}
start_onacc() {  # start_onacc LOG
  clamonacc -c "$prefix/etc/clamd.conf" --foreground --verbose --log="$1" >"$1.out" 2>&1 &
  onacc_pid=$!
  wait_for 30 grep -qs 'waiting to consume events' "$1" || { echo "clamonacc did not start:"; cat "$1.out"; exit 1; }
  # Its directory marks are set by a second thread after that line.
  sleep 2
}

# ------------------------------------------------------------------ set-up
chown nobody:nogroup "$drop"
chmod 755 "$drop"
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
export XDG_RUNTIME_DIR=$work/run QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
read -r DBUS_SESSION_BUS_ADDRESS bus_pid < <(dbus-daemon --session --fork --print-address=1 --print-pid=1 | paste -sd' ')
export DBUS_SESSION_BUS_ADDRESS
log=$HOME/Library/Logs/KorvaneVelgar-scan.log

# An engine prefix like the one velgarctl setup makes, with the test database.
# The daemon runs as root, so its own reads must not wake clamonacc again.
mkdir -p "$prefix"/{bin,sbin,etc,db,run}
ln -s /usr/sbin/clamd "$prefix/sbin/clamd"
cp resources/clamav/korvane-test.ndb "$prefix/db/"
cat > "$prefix/etc/clamd.conf" <<EOF
LocalSocket $prefix/run/clamd.ctl
DatabaseDirectory $prefix/db
PidFile $prefix/run/clamd.pid
Foreground no
LogFile $work/engine.log
OnAccessIncludePath $drop
OnAccessExcludeRootUID yes
EOF
printf '#!/bin/sh\nexec /usr/bin/clamdscan --config-file=%s/etc/clamd.conf "$@"\n' "$prefix" > "$prefix/bin/clamdscan"
chmod 755 "$prefix/bin/clamdscan"
# clamonacc reads the same configuration as the agent's daemon.

if ! wait_for 30 bash -c '! pgrep -x clamd >/dev/null && ! pgrep -x clamonacc >/dev/null'; then
  echo "another clamd or clamonacc runs on this machine; stop it first"; exit 1
fi

"$ctl" defaults write com.korvane.Korvane PathToClamav -string "$prefix" >/dev/null
"$ctl" defaults write com.korvane.Korvane PathToUpdateLog -string "$HOME/update.log" >/dev/null
"$ctl" defaults write com.korvane.Korvane VelgarFolderArray -json "[{\"pathName\": \"$drop\", \"WatchSubdirs\": true}]" >/dev/null

echo "Korvane Velgar beside clamonacc: $(date '+%Y-%m-%d %H:%M'), $(nproc) cores, $(uname -r), clamd $(/usr/sbin/clamd --version | cut -d/ -f1)"
echo "watched folder $drop"
start_daemon
start_onacc "$work/onacc.log"
start_agent

# ------------------------------------------------------------------ idle
echo
echo "== Idle for $idle s"
sleep 5
quiet_machine idle
ticks=$(getconf CLK_TCK)
a0=$(cpu_ticks "$agent_pid"); an0=$(cpu_ns "$agent_pid")
o0=$(cpu_ticks "$onacc_pid"); h0=$( [ -n "$helper_pid" ] && cpu_ns "$helper_pid" || echo 0)
sleep "$idle" & wait $!
a1=$(cpu_ticks "$agent_pid"); an1=$(cpu_ns "$agent_pid")
o1=$(cpu_ticks "$onacc_pid"); h1=$( [ -n "$helper_pid" ] && cpu_ns "$helper_pid" || echo 0)
idle_cpu=$(awk -v n=$((an1 - an0)) -v s="$idle" 'BEGIN {printf "%.4f", n / 1e9 / s * 100}')
idle_ticks_cpu=$(awk -v t=$((a1 - a0)) -v hz="$ticks" -v s="$idle" 'BEGIN {printf "%.3f", t / hz / s * 100}')
helper_cpu=$(awk -v n=$((h1 - h0)) -v s="$idle" 'BEGIN {printf "%.4f", n / 1e9 / s * 100}')
onacc_cpu=$(awk -v t=$((o1 - o0)) -v hz="$ticks" -v s="$idle" 'BEGIN {printf "%.3f", t / hz / s * 100}')
idle_rss=$(status_kb "$agent_pid" VmRSS)
idle_threads=$(ls "/proc/$agent_pid/task" | wc -l)
helper_rss=$( [ -n "$helper_pid" ] && status_kb "$helper_pid" VmRSS || echo 0)
onacc_rss=$(status_kb "$onacc_pid" VmRSS)
idle_load=$(load)
echo "  agent: ${idle_cpu} % of one core (schedstat; ${idle_ticks_cpu} % from /proc ticks), RSS $(mb "$idle_rss") MB, $idle_threads threads"
echo "  gfslogger: ${helper_cpu} % of one core, RSS $(mb "$helper_rss") MB"
echo "  clamonacc: ${onacc_cpu} % of one core, RSS $(mb "$onacc_rss") MB"
echo "  load after: $idle_load"

# ------------------------------------------------------------------ latency
echo
echo "== Detection latency: $latency_files files, one every $pause s, both scanners watching"
quiet_machine latency
# shellcheck disable=SC2086 # PEERS_WRITER: extra writer options, split on purpose
measured "$work/latency.txt" "$bench" latency "$drop" "$latency_files" "$pause" ${PEERS_WRITER:-} agent="$log" clamonacc="$work/onacc.log"
latency_load=$(load)
echo "  load after: $latency_load"
reported=$(grep -c 'lat-.*Eicar-Test-Signature' "$log" || true)
echo "  agent FOUND lines for the $((latency_files + 1)) files (the first one included): $reported"
scans_per_file=$(awk -v n=$((latency_files + 1)) '/performing scanning on file .*lat-/ {c++} END {printf "%.1f", c / n}' "$work/onacc.log")
echo "  clamonacc scans per file: $scans_per_file"
rss_after_latency=$(status_kb "$agent_pid" VmRSS)
# Findings past the first few go into one summary window, not a dialog each.
findings=$(grep -c 'Eicar-Test-Signature' "$log" || true)
dialogs="the warnings of $findings findings"
echo "  agent RSS with $dialogs open: $(mb "$rss_after_latency") MB"
stop_onacc
# The floods start from a fresh agent, so its memory counts the floods alone
# and not the open warning dialogs.
stop_agent
start_agent

# ------------------------------------------------------------------ flood
echo
echo "== Flood: $flood_files clean files, $rounds rounds of the agent and one direct clamdscan run"
for round in $(seq "$rounds"); do
  restart_daemon
  quiet_machine "agent round $round"
  read -r own0 kids0 < <(cpu_split "$agent_pid"); dc0=$(daemon_cpu)
  hc0=$(helper_cpu); b0=$(grep -c 'Start Date:' "$log" || true)
  measured "$work/flood-agent-$round.txt" "$bench" flood "$drop" "$flood_files" "r$round" --arrivals "$work/arrivals-$round" agent="$log"
  sleep 0.5  # the last clamdscan is reaped
  read -r own1 kids1 < <(cpu_split "$agent_pid"); dc1=$(daemon_cpu)
  hc1=$(helper_cpu); b1=$(grep -c 'Start Date:' "$log" || true)
  echo "  CPU s: agent $(awk -v a="$own0" -v b="$own1" 'BEGIN {print b - a}'), its clamdscan runs $(awk -v a="$kids0" -v b="$kids1" 'BEGIN {print b - a}') ($((b1 - b0)) batches), gfslogger $(awk -v a="$hc0" -v b="$hc1" 'BEGIN {print b - a}'), clamd $(awk -v a="$dc0" -v b="$dc1" 'BEGIN {print b - a}')"
  echo "  agent VmRSS $(mb "$(status_kb "$agent_pid" VmRSS)") MB, VmHWM $(mb "$(status_kb "$agent_pid" VmHWM)") MB"
  echo "  load after: $(load)"
  restart_daemon
  find "$drop" -name "r$round-*" | sort > "$work/list-$round"
  quiet_machine "direct round $round"
  dc0=$(daemon_cpu)
  begin=$(date +%s.%N)
  TIMEFORMAT='%U %S'
  { time "$prefix/bin/clamdscan" --stdout --file-list="$work/list-$round" > "$work/direct-$round.out" 2>&1 || true; } 2> "$work/direct-$round.cpu"
  end=$(date +%s.%N)
  dc1=$(daemon_cpu)
  ok=$(grep -c ': OK$' "$work/direct-$round.out" || true)
  direct=$(awk -v a="$begin" -v b="$end" 'BEGIN {printf "%.3f", b - a}')
  echo "RESULT direct results=$ok of $(wc -l < "$work/list-$round") s=$direct"
  echo "$direct" > "$work/direct-$round"
  echo "  CPU s: clamdscan $(awk '{print $1 + $2}' "$work/direct-$round.cpu"), clamd $(awk -v a="$dc0" -v b="$dc1" 'BEGIN {print b - a}')"
  echo "  load after: $(load)"
  # The same files the way the agent hands them over: lists of 200, two
  # clamdscan runs at a time, each through the prefix's wrapper.
  restart_daemon
  rm -rf "$work/batches" && mkdir "$work/batches"
  split -l 200 "$work/list-$round" "$work/batches/list-"
  quiet_machine "batched direct round $round"
  dc0=$(daemon_cpu)
  begin=$(date +%s.%N)
  { time find "$work/batches" -name 'list-*' -print0 | sort -z |
      xargs -0 -P 2 -I LIST sh -c '"$1" --stdout --file-list="$2" > "$2.out" 2>&1 || true' sh "$prefix/bin/clamdscan" LIST; } 2> "$work/batched-$round.cpu"
  end=$(date +%s.%N)
  dc1=$(daemon_cpu)
  ok=$(cat "$work"/batches/list-*.out | grep -c ': OK$' || true)
  batched=$(awk -v a="$begin" -v b="$end" 'BEGIN {printf "%.3f", b - a}')
  echo "RESULT batched results=$ok batches=$(find "$work/batches" -name 'list-*' ! -name '*.out' | wc -l) s=$batched"
  echo "$batched" > "$work/batched-$round"
  echo "  CPU s: clamdscan runs $(awk '{print $1 + $2}' "$work/batched-$round.cpu"), clamd $(awk -v a="$dc0" -v b="$dc1" 'BEGIN {print b - a}')"
  echo "  load after: $(load)"
  # How the agent's results came: per 0.5 s after the first close.
  echo "  agent results per 0.5 s after the first close:"
  awk '{b = int($1 / 0.5); c[b]++; if (b > m) m = b} END {for (i = 0; i <= m; i++) printf "%s%d", (i ? " " : "    "), c[i]; print ""}' "$work/arrivals-$round"
done
hwm=$(status_kb "$agent_pid" VmHWM)
rss_after_flood=$(status_kb "$agent_pid" VmRSS)
echo "  agent after the floods: VmRSS $(mb "$rss_after_flood") MB, VmHWM $(mb "$hwm") MB"
summary_lines=$(grep -c -e 'Start Date:' -e 'End Date:' "$log" || true)
stop_agent

echo
echo "== Flood: clamonacc alone on $flood_files new clean files"
# clamonacc logs nothing for a clean file: the daemon's log counts its scans.
echo "LogClean yes" >> "$prefix/etc/clamd.conf"
restart_daemon
start_onacc "$work/onacc-flood.log"
quiet_machine "clamonacc flood"
measured "$work/flood-onacc.txt" "$bench" flood "$drop" "$flood_files" onacc --pid "$onacc_pid" --quiet 20 clamonacc="$work/engine.log"
echo "  load after: $(load)"
if kill -0 "$onacc_pid" 2>/dev/null; then onacc_state="still running"; else onacc_state="died"; fi
onacc_events=$(grep -c 'performing scanning on file .*onacc-' "$work/onacc-flood.log" || true)
onacc_error=$(grep -m1 -iE 'FD_SETSIZE|error|abort' "$work/onacc-flood.log.out" "$work/onacc-flood.log" 2>/dev/null | head -1 || true)
echo "  clamonacc $onacc_state; scans started: $onacc_events; first error: ${onacc_error:-none}"
stop_onacc

# ------------------------------------------------------------------ summary
field() { sed -n "s/.*$1=\([^ ]*\).*/\1/p"; }
agent_p50=$(grep 'RESULT latency agent ' "$work/latency.txt" | field p50)
agent_p95=$(grep 'RESULT latency agent ' "$work/latency.txt" | field p95)
agent_missed=$(grep 'RESULT latency agent ' "$work/latency.txt" | field missed)
onacc_p50=$(grep 'RESULT latency clamonacc ' "$work/latency.txt" | field p50)
onacc_p95=$(grep 'RESULT latency clamonacc ' "$work/latency.txt" | field p95)
onacc_missed=$(grep 'RESULT latency clamonacc ' "$work/latency.txt" | field missed)
onacc_caught=$(grep 'RESULT flood clamonacc ' "$work/flood-onacc.txt" | field results)

echo
echo "== Summary ($(date '+%Y-%m-%d %H:%M'))"
echo "| measure | Korvane Velgar | clamonacc | direct clamdscan | target |"
echo "|---|---:|---:|---:|---:|"
echo "| detection latency p50 / p95 ($latency_files files) | $agent_p50 / $agent_p95 s ($agent_missed missed) | $onacc_p50 / $onacc_p95 s ($onacc_missed missed) | | p50 under 1.5 s |"
for round in $(seq "$rounds"); do
  res=$(grep 'RESULT flood agent ' "$work/flood-agent-$round.txt")
  t=$(field last_after_last_close_s <<<"$res")
  n=$(field results <<<"$res")
  d=$(cat "$work/direct-$round")
  bd=$(cat "$work/batched-$round")
  echo "| flood round $round ($flood_files files): last close to last result | $t s ($n results), $(awk -v t="$t" -v d="$d" 'BEGIN {printf "%.0f", d / t * 100}') % of direct; minus the 1 s wait: $(awk -v t="$t" 'BEGIN {printf "%.3f", t - 1}') s, $(awk -v t="$t" -v d="$d" 'BEGIN {printf "%.0f", d / (t - 1) * 100}') % of direct | | $d s (in 200-file lists, two at a time: $bd s) | agent at least 90 % of direct |"
done
echo "| flood ($flood_files files) | | $onacc_caught scanned, $onacc_state | | |"
echo "| idle CPU over $idle s | $idle_cpu % (gfslogger $helper_cpu %) | $onacc_cpu % | | under 0.1 % |"
echo "| agent resident memory: idle; with $dialogs open; fresh agent after $rounds floods (VmHWM) | $(mb "$idle_rss"); $(mb "$rss_after_latency"); $(mb "$rss_after_flood") ($(mb "$hwm")) MB; gfslogger $(mb "$helper_rss") MB | $(mb "$onacc_rss") MB | | agent under 60 MB |"
echo "load (1, 5, 15 min): idle $idle_load, after latency $latency_load"
echo "agent scan log: $summary_lines 'Start Date:' / 'End Date:' lines (clamdscan's summary, two per batch)"
