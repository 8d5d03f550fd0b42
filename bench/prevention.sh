#!/usr/bin/env bash
# What holding opens until their verdict costs the programs that open files:
# the agent with "BlockUntilScanned" off, the agent with it on, and ClamAV's
# clamonacc with OnAccessPrevention, each watching the same kind of folder
# and serving the same workloads, with nothing watching as a floor.
#
#   sudo bench/prevention.sh [build folder]      (default: build)
#
# Every workload runs in a fresh folder inside the watched one; the opener
# is build/bin/prevention_bench running as "nobody", which times every
# open(2) it makes.
# 1. Reopening verified files: 10,000 files of 4 KiB are written, the
#    scanner's work on them is let settle, every file is read once (the
#    first reads, which the agent holds and scans), and then every file is
#    opened and read again, several rounds; then as many rounds over the
#    same number of files outside the watched folder, on the same file
#    system (what holding costs everything else there).
# 2. First opens: 50 new clean files of 1 MiB, one at a time: each written,
#    closed, and opened and read at once; the open's wait.
# 3. Unpacking: a ustar archive of 10,000 files of 4 KiB in 100 folders,
#    extracted into the watched folder and every extracted file read at
#    once, several rounds.
# 4. The longest any open waited, over all of them.
#
# Modes, in this order unless PREVENTION_MODES says otherwise:
#   none       nothing watches (the floor)
#   off        the agent, "BlockUntilScanned" false
#   on         the agent, "BlockUntilScanned" true, "BlockAtMostSeconds" 5
#   clamonacc  clamonacc --fdpass, OnAccessPrevention yes
# The agent runs as root with its gfslogger (the holder holds every opener's
# opens there but the agent's own and its children's); clamonacc needs root.
# One clamd, started again for each mode (so no mode inherits another's
# cache of clean files), as root, serves both.
#
# Overrides for trial runs: PREVENTION_MODES, PREVENTION_FILES,
# PREVENTION_FILE_SIZE, PREVENTION_REOPEN_ROUNDS, PREVENTION_FRESH_FILES,
# PREVENTION_FRESH_SIZE, PREVENTION_FRESH_PAUSE, PREVENTION_UNPACK_ROUNDS,
# PREVENTION_MAX_LOAD (the 1-minute load each part waits for, up to
# PREVENTION_LOAD_WAIT seconds); PREVENTION_KEEP=1 keeps the logs;
# PREVENTION_ENGINE_TMP (clamd's TemporaryDirectory, made for the run);
# PREVENTION_PROFILE=1 samples 20 more reopening passes with perf(1) and
# says what share of them the kernel's notification hooks took.
set -euo pipefail
source "$(dirname "$0")/../tests/support/machine_lock.sh"
cd "$(dirname "$0")/.."
build=${1:-build}
modes=${PREVENTION_MODES:-none off on clamonacc}
files=${PREVENTION_FILES:-10000}
file_size=${PREVENTION_FILE_SIZE:-4096}
reopen_rounds=${PREVENTION_REOPEN_ROUNDS:-21}
fresh_files=${PREVENTION_FRESH_FILES:-50}
fresh_size=${PREVENTION_FRESH_SIZE:-1048576}
fresh_pause=${PREVENTION_FRESH_PAUSE:-1.5}
unpack_rounds=${PREVENTION_UNPACK_ROUNDS:-5}
max_load=${PREVENTION_MAX_LOAD:-0.7}
load_wait=${PREVENTION_LOAD_WAIT:-90}
hold_seconds=5
# clamd makes and removes a folder of its own for every scan, in /tmp unless
# told otherwise: PREVENTION_ENGINE_TMP names another (say, on a tmpfs).
engine_tmp=${PREVENTION_ENGINE_TMP:-}

agent=$build/bin/korvane-velgar
ctl=$build/bin/velgarctl
bench=$build/bin/prevention_bench
for tool in "$agent" "$ctl" "$bench"; do
  [ -x "$tool" ] || { echo "missing $tool: build the tree first (cmake --build $build)"; exit 1; }
done
[ "$(id -u)" = 0 ] || { echo "run as root: clamonacc needs it"; exit 1; }
if ! command -v clamonacc >/dev/null || [ ! -x /usr/sbin/clamd ]; then
  echo "needs Debian's clamav-daemon (clamd, clamonacc)"; exit 1
fi
id nobody >/dev/null

# ------------------------------------------------------------------ cleanup
work=$(mktemp -d /tmp/kv-prevention-XXXXXX)
# The watched folder and the archive's, both nobody's; root's $work is not.
drop=$(mktemp -d /tmp/kv-prevention-drop-XXXXXX)
stage=$(mktemp -d /tmp/kv-prevention-stage-XXXXXX)
prefix=$work/prefix
agent_pid='' onacc_pid='' bus_pid='' helper_pid='' holder_pid='' measure_pid='' engine_tmp_made=''

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
  # The holder ends with the helper; either left over is stopped here.
  stop_pid "$helper_pid"; helper_pid=''
  stop_pid "$holder_pid"; holder_pid=''
}
cleanup() {
  set +e
  stop_pid "$measure_pid"
  stop_agent
  stop_onacc
  stop_daemon
  stop_pid "$bus_pid"
  if [ -n "$(daemon_pids)" ]; then echo "WARNING: a clamd of this run still runs: $(daemon_pids)"; fi
  if [ "${PREVENTION_KEEP:-}" = 1 ]; then echo "kept $work"; rm -rf "$work/prefix"; else rm -rf "$work"; fi
  rm -rf "$drop" "$stage"
  [ -z "$engine_tmp_made" ] || rm -rf "$engine_tmp_made"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
trap 'echo "prevention.sh: line $LINENO failed: $BASH_COMMAND" >&2' ERR

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
# Waits until the scanners' logs have not grown for 3 s (at most 180 s):
# the agent's scans of what a workload wrote are over.
settle() {
  local last='' now quiet=0 deadline=$((SECONDS + 180))
  while [ $SECONDS -lt $deadline ]; do
    now=$(stat -c %s "$log" "$work/engine.log" "$work/onacc.log" 2>/dev/null | paste -sd' ' || true)
    if [ "$now" = "$last" ]; then quiet=$((quiet + 1)); else quiet=0; last=$now; fi
    [ $quiet -lt 6 ] || return 0
    sleep 0.5
  done
  echo "  (the logs still grew after 180 s)"
}
# The daemon's clean scans so far (its log has a line for each in the
# clamonacc mode, LogClean).
engine_scans() { grep -c ': OK$' "$work/engine.log" 2>/dev/null || true; }
# A process's CPU time in ns (user and system, in clock ticks: its threads
# that have ended still count, which the threads' schedstat would not).
cpu_ns() {
  awk -v hz="$(getconf CLK_TCK)" '{printf "%.0f", ($14 + $15) / hz * 1e9}' "/proc/$1/stat" 2>/dev/null || echo 0
}
daemon_pid() { cat "$prefix/run/clamd.pid" 2>/dev/null || true; }
# cpu_sample: the on-CPU ns of the agent, its helper, the holder, clamd and
# clamonacc, in that order.
cpu_sample() {
  echo "$(cpu_ns "$agent_pid") $(cpu_ns "$helper_pid") $(cpu_ns "$holder_pid") $(cpu_ns "$(daemon_pid)") $(cpu_ns "$onacc_pid")"
}
cpu_report() {  # cpu_report BEFORE AFTER
  awk -v a="$1" -v b="$2" 'BEGIN {
    split(a, x, " "); split(b, y, " "); split("agent gfslogger holder clamd clamonacc", n, " ")
    line = "  CPU s:"
    for (i = 1; i <= 5; i++) if (y[i] > 0) line = line sprintf(" %s %.2f", n[i], (y[i] - x[i]) / 1e9)
    print line
  }'
}
field() { sed -n "s/.*[ ]$1=\([^ ]*\).*/\1/p"; }
median() { sort -g | awk '{v[NR] = $1} END {if (NR) print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2)}'; }
# values MODE FILE-GLOB RESULT-KIND FIELD: one value per matching file.
# shellcheck disable=SC2086 # FILE-GLOB: a pattern, expanded here
values() { cat $2 2>/dev/null | grep "^RESULT $3 " | field "$4"; }
new_folder() { install -d -o nobody -g nogroup -m 755 "$1"; }

start_daemon() {
  "$prefix/sbin/clamd" -c "$prefix/etc/clamd.conf"
  wait_for 30 test -S "$prefix/run/clamd.ctl" || { echo "clamd did not start"; exit 1; }
}
restart_daemon() { stop_daemon; wait_for 15 test ! -S "$prefix/run/clamd.ctl" || rm -f "$prefix/run/clamd.ctl"; start_daemon; }
log_count() { grep -cF -- "$1" "$log" 2>/dev/null || true; }
start_agent() {
  local starts
  starts=$(log_count 'Watching started')
  "$agent" >>"$work/agent.out" 2>&1 &
  agent_pid=$!
  wait_for 30 bash -c "[ \$(grep -cF 'Watching started' '$log' 2>/dev/null) -gt $starts ]" ||
    { echo "the agent did not start watching:"; cat "$log" "$work/agent.out"; exit 1; }
  wait_for 10 bash -c "pgrep -P $agent_pid -x gfslogger >/dev/null" || { echo "no gfslogger"; exit 1; }
  helper_pid=$(pgrep -P "$agent_pid" -x gfslogger)
  holder_pid=$(pgrep -P "$helper_pid" -x gfslogger || true)
  # The agent scans a probe file: its marks are in place.
  local probe=$drop/.probe-$RANDOM deadline=$((SECONDS + 60))
  until grep -qF -- "$probe: OK" "$log" 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || { echo "the agent did not scan a probe file within 60 s"; exit 1; }
    [ -e "$probe" ] || runuser -u nobody -- sh -c "echo probe > '$probe'"
    sleep 0.1
  done
  rm -f "$probe"
}
start_onacc() {  # start_onacc LOG
  clamonacc -c "$prefix/etc/clamd.conf" --fdpass --foreground --verbose --log="$1" >"$1.out" 2>&1 &
  onacc_pid=$!
  wait_for 30 grep -qs 'waiting to consume events' "$1" || { echo "clamonacc did not start:"; cat "$1.out"; exit 1; }
  # Its folder marks are set by a second thread after that line.
  sleep 2
}

# ------------------------------------------------------------------ set-up
chown nobody:nogroup "$drop" "$stage"
chmod 755 "$drop" "$stage"
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
export XDG_RUNTIME_DIR=$work/run QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
read -r DBUS_SESSION_BUS_ADDRESS bus_pid < <(dbus-daemon --session --fork --print-address=1 --print-pid=1 | paste -sd' ')
export DBUS_SESSION_BUS_ADDRESS
log=$HOME/Library/Logs/KorvaneVelgar-scan.log

# An engine prefix like the one velgarctl setup makes, with the test
# database; clamonacc reads the same configuration. The daemon runs as root,
# so root's own opens must not wake clamonacc again.
mkdir -p "$prefix"/{bin,sbin,etc,db,run}
ln -s /usr/sbin/clamd "$prefix/sbin/clamd"
cp resources/clamav/korvane-test.ndb "$prefix/db/"
write_daemon_conf() {  # write_daemon_conf [MORE LINES]
  cat > "$prefix/etc/clamd.conf" <<EOF
LocalSocket $prefix/run/clamd.ctl
DatabaseDirectory $prefix/db
PidFile $prefix/run/clamd.pid
Foreground no
LogFile $work/engine.log
LogFileMaxSize 0
OnAccessIncludePath $drop
OnAccessPrevention yes
OnAccessExcludeRootUID yes
${engine_tmp:+TemporaryDirectory $engine_tmp}
${1:-}
EOF
}
if [ -n "$engine_tmp" ]; then
  engine_tmp_made=$(mktemp -d "$engine_tmp/kv-prevention-engine-XXXXXX")
  engine_tmp=$engine_tmp_made
fi
write_daemon_conf
printf '#!/bin/sh\nexec /usr/bin/clamdscan --config-file=%s/etc/clamd.conf "$@"\n' "$prefix" > "$prefix/bin/clamdscan"
chmod 755 "$prefix/bin/clamdscan"

# Another clamonacc would hold opens too. Another clamd (a run that holds
# no lock left it) is only load: said, and the run goes on.
if ! wait_for 30 bash -c '! pgrep -x clamonacc >/dev/null'; then
  echo "a clamonacc runs on this machine; stop it first"; exit 1
fi
if pgrep -x clamd >/dev/null; then
  echo "note: other clamd daemons run: $(pgrep -x clamd | paste -sd' ') (their CPU is load like any other)"
fi

"$ctl" defaults write com.korvane.Korvane PathToClamav -string "$prefix" >/dev/null
"$ctl" defaults write com.korvane.Korvane PathToUpdateLog -string "$HOME/update.log" >/dev/null
"$ctl" defaults write com.korvane.Korvane VelgarFolderArray -json "[{\"pathName\": \"$drop\", \"WatchSubdirs\": true}]" >/dev/null
"$ctl" defaults write com.korvane.Korvane BlockAtMostSeconds -int "$hold_seconds" >/dev/null

echo "Holding opens, beside prevention off and clamonacc: $(date '+%Y-%m-%d %H:%M'), $(nproc) cores, $(uname -r), clamd $(/usr/sbin/clamd --version | cut -d/ -f1), commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
echo "watched folder $drop; modes: $modes; clamd's temporary folders in ${engine_tmp:-/tmp}"

# The archive: made once, outside the watched folder.
# Its files stay, for reading outside the watched folder on the same file
# system.
outside=$stage/tree
install -d -o nobody -g nogroup -m 755 "$outside"
"$bench" make "$outside" "$files" "$file_size" >/dev/null
(cd "$outside" && runuser -u nobody -- tar --format=ustar -cf ../archive.tar d[0-9]*)
echo "archive: $(tar -tf "$stage/archive.tar" | grep -vc '/$') files, $(du -m "$stage/archive.tar" | cut -f1) MB"

start_mode() {
  local mode=$1
  case $mode in
    clamonacc)
      # clamonacc logs nothing for a clean file: the daemon's log counts its scans.
      write_daemon_conf "LogClean yes"
      restart_daemon
      start_onacc "$work/onacc.log" ;;
    off|on)
      write_daemon_conf
      restart_daemon
      "$ctl" defaults write com.korvane.Korvane BlockUntilScanned -bool "$([ "$mode" = on ] && echo true || echo false)" >/dev/null
      start_agent
      if [ "$mode" = on ]; then
        if ! grep -qF 'Opens of new files wait for their verdict' "$log" || [ -z "$holder_pid" ]; then
          echo "the agent does not hold opens:"; tail -5 "$log"; exit 1
        fi
      fi ;;
    none)
      write_daemon_conf
      restart_daemon ;;
    *) echo "unknown mode $mode"; exit 1 ;;
  esac
}
stop_mode() {
  stop_agent
  if [ -n "$onacc_pid" ]; then
    if kill -0 "$onacc_pid" 2>/dev/null; then onacc_state="still running"; else onacc_state="died"; fi
    echo "  clamonacc $onacc_state; $(grep -ic 'error' "$work/onacc.log.out" "$work/onacc.log" 2>/dev/null | paste -sd' ') error lines (out, log); first: $(grep -hm1 -iE 'FD_SETSIZE|error|abort' "$work/onacc.log.out" "$work/onacc.log" 2>/dev/null | head -1)"
    stop_onacc
  fi
}

# ------------------------------------------------------------------ the runs
for mode in $modes; do
  echo
  echo "==== $mode"
  start_mode "$mode"

  echo "== 1. Reopening $files verified files of $file_size bytes, $reopen_rounds rounds"
  folder=$drop/$mode-reopen
  new_folder "$folder"
  measured "$work/$mode-make.txt" "$bench" make "$folder" "$files" "$file_size"
  settle
  quiet_machine "first reads"
  e0=$(engine_scans)
  c0=$(cpu_sample)
  profiling=''
  if [ "${PREVENTION_PROFILE:-}" = 1 ] && [ "$mode" = on ] && command -v perf >/dev/null; then
    # Where a held open's time goes: the holder, the agent and clamd sampled
    # while they serve the first reads.
    perf record -q -F 2000 -o "$work/on-first.perf" -p "$holder_pid,$agent_pid,$(daemon_pid)" 2>/dev/null &
    profiling=$!
    sleep 1
  fi
  measured "$work/$mode-first.txt" "$bench" read "$folder"
  cpu_report "$c0" "$(cpu_sample)"
  if [ -n "$profiling" ]; then
    kill -INT "$profiling"; wait "$profiling" || true
    echo "  samples by process:"
    perf report -q -i "$work/on-first.perf" --stdio --no-children --sort pid 2>/dev/null | head -3 | sed 's/^ */    /' || true
    for pid in "$holder_pid" "$agent_pid" "$(daemon_pid)"; do
      perf report -q -i "$work/on-first.perf" --stdio --no-children --percentage relative --pid "$pid" --sort dso,sym 2>/dev/null |
        head -8 > "$work/on-first-$pid.profile" || true
      echo "  profile of $(cat "/proc/$pid/comm") $pid while it served the first reads, its top eight:"
      sed 's/^ */    /' "$work/on-first-$pid.profile"
    done
  fi
  [ "$mode" != clamonacc ] || echo "  the daemon's clean scans: $(( $(engine_scans) - e0 ))"
  settle
  # clamonacc scans every open and read: a few rounds tell as much.
  rounds=$reopen_rounds
  [ "$mode" != clamonacc ] || rounds=$(( reopen_rounds < 3 ? reopen_rounds : 3 ))
  e0=$(engine_scans)
  quiet_machine "reopening"
  c0=$(cpu_sample)
  for round in $(seq "$rounds"); do
    measured "$work/$mode-reopen-$round.txt" "$bench" read "$folder"
  done
  cpu_report "$c0" "$(cpu_sample)"
  [ "$mode" != clamonacc ] || echo "  the daemon's clean scans: $(( $(engine_scans) - e0 ))"
  echo "  the same reading outside the watched folder:"
  for round in $(seq "$reopen_rounds"); do
    "$bench" read "$outside" > "$work/$mode-outside-$round.txt"
  done
  echo "  median $(values "$mode" "$work/$mode-outside-*.txt" read s | median) s over $reopen_rounds rounds"
  if [ "${PREVENTION_PROFILE:-}" = 1 ] && [ "$mode" != clamonacc ] && command -v perf >/dev/null; then
    # Where a reopen's time goes in the kernel: 20 more passes sampled, and
    # the share of the samples in the notification hooks.
    # shellcheck disable=SC2016 # expanded by the inner shell
    perf record -q -F 20000 -o "$work/$mode-reopen.perf" -- \
      sh -c 'for i in $(seq 20); do "$1" read "$2" >/dev/null; done' sh "$bench" "$folder" 2>/dev/null
    perf report -q -i "$work/$mode-reopen.perf" --stdio --no-children --sort sym 2>/dev/null > "$work/$mode-reopen.profile" || true
    echo "  profile of 20 passes: $(awk '/fsnotify|fanotify/ {s += $1} END {printf "%.1f", s}' "$work/$mode-reopen.profile") % of the samples in fsnotify and fanotify; the top five there:"
    grep -E 'fsnotify|fanotify' "$work/$mode-reopen.profile" | head -5 | sed 's/^ */    /'
  fi
  if [ "$mode" = none ]; then
    # The engine alone on the same files: what it adds to each held open.
    echo "  the same files scanned by descriptor, one connection each, one at a time:"
    measured "$work/none-fildes-reopen.txt" "$bench" fildes "$prefix/run/clamd.ctl" "$folder"
  fi
  echo "  load after: $(load)"
  rm -rf "$folder"
  settle

  echo "== 2. First opens of $fresh_files new files of $fresh_size bytes, one every $fresh_pause s"
  folder=$drop/$mode-fresh
  new_folder "$folder"
  quiet_machine "first opens"
  c0=$(cpu_sample); e0=$(engine_scans)
  measured "$work/$mode-fresh.txt" "$bench" fresh "$folder" "$fresh_files" "$fresh_size" "$fresh_pause"
  cpu_report "$c0" "$(cpu_sample)"
  [ "$mode" != clamonacc ] || echo "  the daemon's clean scans: $(( $(engine_scans) - e0 ))"
  if [ "$mode" = none ]; then
    echo "  the same files scanned by descriptor, one connection each, one at a time:"
    measured "$work/none-fildes-fresh.txt" "$bench" fildes "$prefix/run/clamd.ctl" "$folder"
  fi
  echo "  load after: $(load)"
  settle
  rm -rf "$folder"

  echo "== 3. Unpacking $files files and reading them, $unpack_rounds rounds"
  for round in $(seq "$unpack_rounds"); do
    folder=$drop/$mode-unpack-$round
    new_folder "$folder"
    quiet_machine "unpacking, round $round"
    c0=$(cpu_sample); e0=$(engine_scans)
    measured "$work/$mode-unpack-$round.txt" "$bench" unpack "$stage/archive.tar" "$folder"
    cpu_report "$c0" "$(cpu_sample)"
    [ "$mode" != clamonacc ] || echo "  the daemon's clean scans: $(( $(engine_scans) - e0 ))"
    c0=$(cpu_sample)
    settle
    echo "  after it, until the logs rest:"
    cpu_report "$c0" "$(cpu_sample)"
    echo "  load after: $(load)"
    rm -rf "$folder"
  done
  stop_mode
done

# ------------------------------------------------------------------ summary
reopen() { values "$1" "$work/$1-reopen-*.txt" read s | median; }
unpack() { values "$1" "$work/$1-unpack-*.txt" unpack total_s | median; }
longest() {
  cat "$work/$1"-*.txt 2>/dev/null | grep '^RESULT ' | field open_max_ms | sort -g | tail -1
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (a != "" && b > 0) printf "%.3f", a / b}'; }

echo
echo "== Summary ($(date '+%Y-%m-%d %H:%M'), load $(load))"
echo "| measure | ${modes// / | } |"
echo "|---$(for _ in $modes; do printf '|---:'; done)|"
row() {  # row TITLE FUNCTION
  local line="| $1 |" mode
  for mode in $modes; do line="$line $($2 "$mode") |"; done
  echo "$line"
}
reopen_cell() {
  local s; s=$(reopen "$1")
  echo "$s s (x$(ratio "$s" "$(reopen off)") of off), rounds $(values "$1" "$work/$1-reopen-*.txt" read s | paste -sd' ')"
}
first_cell() { values "$1" "$work/$1-first.txt" read s | sed 's/$/ s/'; }
reopen_wait_cell() { echo "p50 $(values "$1" "$work/$1-reopen-*.txt" read open_p50_ms | median) ms, max $(values "$1" "$work/$1-reopen-*.txt" read open_max_ms | sort -g | tail -1) ms"; }
fresh_cell() {
  local r; r=$(grep '^RESULT fresh ' "$work/$1-fresh.txt")
  echo "$(field open_p50_ms <<<"$r") / $(field open_p95_ms <<<"$r") ms (max $(field open_max_ms <<<"$r"))"
}
unpack_cell() {
  local s; s=$(unpack "$1")
  echo "$s s (x$(ratio "$s" "$(unpack off)") of off; extract $(values "$1" "$work/$1-unpack-*.txt" unpack extract_s | median), read $(values "$1" "$work/$1-unpack-*.txt" unpack read_s | median))"
}
longest_cell() {
  echo "$(longest "$1") ms (one read call: $(cat "$work/$1"-*.txt 2>/dev/null | grep '^RESULT ' | field read_call_max_ms | sort -g | tail -1) ms)"
}
row "1. reopening $files verified files, median of $reopen_rounds" reopen_cell
outside_cell() {
  local s; s=$(values "$1" "$work/$1-outside-*.txt" read s | median)
  echo "$s s (x$(ratio "$s" "$(values off "$work/off-outside-*.txt" read s | median)") of off)"
}
row "1. their open waits" reopen_wait_cell
row "1. the same reading outside the watched folder, median of $reopen_rounds" outside_cell
row "1. the first reads of the same files" first_cell
row "2. first open of a new $fresh_size-byte file, p50 / p95 ($fresh_files)" fresh_cell
row "3. unpacking $files files and reading them, median of $unpack_rounds" unpack_cell
row "4. longest open wait" longest_cell
fildes_line() { grep -h '^RESULT fildes ' "$work/none-fildes-$1.txt" 2>/dev/null | sed 's/^RESULT fildes //'; }
echo "the engine alone, by descriptor, one connection a file: $file_size-byte files: $(fildes_line reopen); $fresh_size-byte files: $(fildes_line fresh)"
