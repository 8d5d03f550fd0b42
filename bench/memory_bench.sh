#!/usr/bin/env bash
# What one shared clamd saves against one clamd per account.
#
#   sudo bench/memory_bench.sh [signatures] [accounts]   (defaults 500000 and 3)
#
# 1. Writes a signature database of SIGNATURES made-up signatures
#    (bench/make_signatures.sh: mostly MD5/SHA hashes, body patterns with
#    wildcards, logical signatures) into a scratch folder.
# 2. The service: one /usr/sbin/clamd started as Debian's clamav-daemon unit
#    starts it (--foreground=true -c CONF, as root, switching to the clamav
#    user), with Debian's /etc/clamav/clamd.conf copied and only its paths
#    changed (socket, database folder, pid and log file in the scratch
#    folder). Records the time from the start to the first PONG, resident
#    memory, then the peak while it reloads the database (clamdscan
#    --reload), then stops it.
# 3. Per-user: ACCOUNTS scratch accounts (useradd, removed at the end), each
#    with an engine prefix like the one `velgarctl setup --own-engine` writes
#    (its own copy of the database, its clamd.conf with the same lines),
#    whose clamd is started one after another as the account, the way the
#    agent starts it (PREFIX/sbin/clamd -c PREFIX/etc/clamd.conf, which
#    returns once the database is loaded). Memory of each once all run (so
#    that Pss shares the library pages among them), then each one's reload
#    peak.
#
# Memory comes from /proc/PID/status (VmRSS, VmHWM) and
# /proc/PID/smaps_rollup (Pss; Private_Clean + Private_Dirty). Of the
# system's clamd files only /etc/clamav/clamd.conf is read; nothing in
# /etc/clamav, /var/lib/clamav or /run/clamav is written. Everything this
# run starts or makes (daemons, accounts, folders) is removed on every exit,
# also on Ctrl-C.
# Root, for the accounts and for the service's switch to the clamav user.
set -euo pipefail
source "$(dirname "$0")/../tests/support/machine_lock.sh"
cd "$(dirname "$0")/.."
total=${1:-500000}
accounts=${2:-3}
[[ $total =~ ^[0-9]+$ && $total -ge 100 ]] || { echo "signatures: a number of at least 100"; exit 2; }
[[ $accounts =~ ^[0-9]+$ && $accounts -ge 1 && $accounts -le 20 ]] || { echo "accounts: 1 to 20"; exit 2; }
[ "$(id -u)" = 0 ] || { echo "run as root: it makes accounts and starts clamd as the clamav user"; exit 1; }
for tool in /usr/sbin/clamd clamdscan useradd userdel setpriv; do
  command -v "$tool" >/dev/null || { echo "needs $tool (Debian's clamav-daemon, clamdscan, passwd, util-linux)"; exit 1; }
done
id clamav >/dev/null 2>&1 || { echo "needs the clamav user of Debian's clamav-daemon"; exit 1; }

# Accounts carry this comment; one left behind by a run that was killed
# outright is recognised by it and removed, any other account of that name
# is never touched.
marker="Korvane Velgar memory benchmark"
limit=600  # seconds one daemon may take to load

work=$(mktemp -d /tmp/kv-memory-XXXXXX)
chmod 755 "$work"  # the clamav user and the accounts reach their folders through it
db=$work/db
service=$work/service
service_pid=''
starting_pid=''
made_users=()

stop_pid() {  # stop_pid PID: TERM, then KILL after 20 s
  local pid=$1
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 200); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
  kill -KILL "$pid" 2>/dev/null || true
}
stop_user_processes() {  # every process of one of this run's accounts
  local pid
  for pid in $(pgrep -u "$1" || true); do stop_pid "$pid"; done
}
remove_account() {
  stop_user_processes "$1"
  userdel "$1" 2>/dev/null || true
  if getent group "$1" >/dev/null; then groupdel "$1" 2>/dev/null || true; fi
}
cleanup() {
  set +e
  trap '' INT TERM  # a second Ctrl-C does not cut the clean-up short
  stop_pid "$starting_pid"
  stop_pid "$service_pid"
  wait "$service_pid" 2>/dev/null
  local user
  for user in "${made_users[@]}"; do remove_account "$user"; done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
trap 'echo "memory_bench.sh: line $LINENO failed: $BASH_COMMAND" >&2' ERR

# ------------------------------------------------------------------ helpers
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN {printf "%.2f", b - a}'; }
load() { cut -d' ' -f1-3 /proc/loadavg; }
mib() { awk -v k="$1" 'BEGIN {printf "%.1f", k / 1024}'; }
status_kb() { awk -v k="$2:" '$1 == k {print $2}' "/proc/$1/status"; }
rollup_kb() { awk -v k="$2:" '$1 == k {print $2}' "/proc/$1/smaps_rollup"; }
private_kb() { awk '$1 == "Private_Clean:" || $1 == "Private_Dirty:" {s += $2} END {print s}' "/proc/$1/smaps_rollup"; }
# memory PID: "VmRSS VmHWM Pss Private" in kB
memory() { echo "$(status_kb "$1" VmRSS) $(status_kb "$1" VmHWM) $(rollup_kb "$1" Pss) $(private_kb "$1")"; }
# in_background COMMAND...: runs it as a child that bash waits for with
# `wait`, which a signal interrupts at once. (Bash holds its traps while a
# foreground command runs, and forgets a Ctrl-C that the command survives,
# as clamd starting in the background does.)
in_background() {
  local status=0
  "$@" &
  starting_pid=$!
  wait "$starting_pid" || status=$?
  starting_pid=''
  return "$status"
}
pong() { clamdscan --config-file="$1" --ping 1 >/dev/null 2>&1; }
# wait_pong CONF PID START: until the daemon answers PING; fails when it
# dies first or takes longer than the limit.
wait_pong() {
  until pong "$1"; do
    kill -0 "$2" 2>/dev/null || { echo "clamd ($1) ended before it answered"; return 1; }
    awk -v s="$(since "$3")" -v l="$limit" 'BEGIN {exit !(s > l)}' && { echo "clamd ($1) did not answer within $limit s"; return 1; }
    sleep 0.05
  done
}
loaded() { sed -n 's/.*Loaded \([0-9]*\) signatures\..*/\1/p' "$1" | tail -1; }
# reload CONF PID LOG: asks the daemon to load the database again and waits
# until it says it has, and until it has let go of the old engine (its
# resident memory is back within 5 % of what it was, or 60 s pass). Prints
# "seconds VmHWM VmRSS".
reload() {
  local conf=$1 pid=$2 log=$3 before start rss
  before=$(grep -c 'Database correctly reloaded' "$log" || true)
  rss=$(status_kb "$pid" VmRSS)
  start=$(now)
  clamdscan --config-file="$conf" --reload >/dev/null
  until [ "$(grep -c 'Database correctly reloaded' "$log" || true)" -gt "$before" ]; do
    kill -0 "$pid" 2>/dev/null || { echo "clamd ($conf) ended during its reload" >&2; return 1; }
    awk -v s="$(since "$start")" -v l="$limit" 'BEGIN {exit !(s > l)}' && { echo "clamd ($conf) did not reload within $limit s" >&2; return 1; }
    sleep 0.05
  done
  local took; took=$(since "$start")
  for _ in $(seq 600); do
    [ "$(status_kb "$pid" VmRSS)" -le $((rss + rss / 20)) ] && break
    sleep 0.1
  done
  echo "$took $(status_kb "$pid" VmHWM) $(status_kb "$pid" VmRSS)"
}

echo "Memory of one clamd service against $accounts per-user daemons: $(date '+%Y-%m-%d %H:%M %Z')"
echo "$(nproc) cores ($(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | sort -u | paste -sd/)), $(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo), Linux $(uname -r), clamd $(/usr/sbin/clamd --version | cut -d/ -f1 | sed 's/ClamAV //')"
echo "load (1, 5, 15 min): $(load)"

# ------------------------------------------------------------------ database
echo
echo "== Signature database ($total signatures)"
start=$(now)
bench/make_signatures.sh "$db" "$total" | sed 's/^/  /'
echo "  written in $(since "$start") s: $(du -sb "$db" | awk '{printf "%.1f MiB", $1 / 1048576}') on disk"
for f in "$db"/*; do printf '  %-10s %8d lines %7.1f MiB\n' "$(basename "$f")" "$(wc -l < "$f")" "$(du -b "$f" | awk '{print $1 / 1048576}')"; done
chmod -R a+rX "$db"
db_bytes=$(du -sb "$db" | cut -f1)

# ------------------------------------------------------------------ service
echo
echo "== One service daemon (user clamav)"
mkdir -p "$service/run"
chown clamav:clamav "$service" "$service/run"
conf=$service/clamd.conf
# Debian's own configuration with the paths of this run in place of its own.
if [ -r /etc/clamav/clamd.conf ]; then
  grep -vE '^[[:space:]]*(LocalSocket|TCPSocket|TCPAddr|DatabaseDirectory|PidFile|LogFile|LogSyslog|TemporaryDirectory)([[:space:]]|$)' /etc/clamav/clamd.conf > "$conf"
  echo "  configuration: /etc/clamav/clamd.conf with this run's paths"
else
  echo "User clamav" > "$conf"
  echo "  configuration: no /etc/clamav/clamd.conf here; User clamav and this run's paths"
fi
cat >> "$conf" <<EOF
LocalSocket $service/run/clamd.ctl
DatabaseDirectory $db
PidFile $service/run/clamd.pid
LogFile $service/clamd.log
LogTime yes
EOF
grep -q '^User clamav' "$conf" || { echo "the service configuration has no 'User clamav'"; exit 1; }
echo "  load before: $(load)"
start=$(now)
/usr/sbin/clamd --foreground=true -c "$conf" > "$service/clamd.out" 2>&1 &
service_pid=$!
wait_pong "$conf" "$service_pid" "$start" || { cat "$service/clamd.out" "$service/clamd.log" 2>/dev/null; exit 1; }
service_load=$(since "$start")
sleep 1
[ "$(stat -c %U "/proc/$service_pid")" = clamav ] || { echo "the service daemon does not run as clamav"; exit 1; }
read -r s_rss s_hwm s_pss s_priv < <(memory "$service_pid")
s_sigs=$(loaded "$service/clamd.log")
echo "  PONG after $service_load s; clamd says: Loaded $s_sigs signatures; load after: $(load)"
echo "  VmRSS $(mib "$s_rss") MiB, VmHWM $(mib "$s_hwm") MiB, Pss $(mib "$s_pss") MiB, private $(mib "$s_priv") MiB"
service_reload=$(reload "$conf" "$service_pid" "$service/clamd.log")
read -r s_reload s_reload_hwm s_after <<<"$service_reload"
echo "  reload: $s_reload s, peak VmHWM $(mib "$s_reload_hwm") MiB, VmRSS afterwards $(mib "$s_after") MiB; load after: $(load)"
stop_pid "$service_pid"
wait "$service_pid" 2>/dev/null || true
service_pid=''

# ------------------------------------------------------------------ per user
echo
echo "== $accounts per-user daemons, one per account"
users=()
for i in $(seq "$accounts"); do
  user=kvmem$i
  if getent passwd "$user" >/dev/null; then
    if [ "$(getent passwd "$user" | cut -d: -f5)" = "$marker" ]; then
      echo "  removing $user, left behind by an earlier run"
      remove_account "$user"
    else
      echo "an account $user exists and is not this benchmark's; not touching it"; exit 1
    fi
  fi
  made_users+=("$user")
  useradd --comment "$marker" --home-dir "$work/home/$user" --create-home --shell /usr/sbin/nologin --user-group "$user"
  users+=("$user")
done
declare -A pid_of load_of sigs_of
for user in "${users[@]}"; do
  home=$work/home/$user
  prefix=$home/.local/share/korvane/clamav
  mkdir -p "$prefix"/{bin,sbin,etc,db,run,log,tmp}
  chmod 700 "$prefix/tmp"
  ln -s /usr/sbin/clamd "$prefix/sbin/clamd"
  cp "$db"/* "$prefix/db/"
  # The lines velgarctl setup writes (tools/EngineSetup.cpp).
  cat > "$prefix/etc/clamd.conf" <<EOF
# Korvane Velgar engine configuration, written by velgarctl setup.
# Running setup again rewrites it.
LocalSocket $prefix/run/clamd.ctl
LocalSocketMode 600
FixStaleSocket yes
DatabaseDirectory $prefix/db
Foreground no
PidFile $prefix/run/clamd.pid
TemporaryDirectory $prefix/tmp
LogFile $prefix/log/clamd.log
LogTime yes
EOF
  chown -R "$user:$user" "$home"
  echo "  $user: load before: $(load)"
  start=$(now)
  # The agent starts the daemon this way; it returns once the database is
  # loaded and the daemon has gone to the background.
  in_background setpriv --reuid="$user" --regid="$user" --init-groups env -i HOME="$home" PATH=/usr/bin:/bin \
    "$prefix/sbin/clamd" -c "$prefix/etc/clamd.conf" > "$work/$user.out" 2>&1 ||
    { echo "clamd of $user failed:"; cat "$work/$user.out" "$prefix/log/clamd.log" 2>/dev/null; exit 1; }
  for _ in $(seq 100); do [ -s "$prefix/run/clamd.pid" ] && break; sleep 0.1; done
  pid=$(cat "$prefix/run/clamd.pid")
  wait_pong "$prefix/etc/clamd.conf" "$pid" "$start"
  load_of[$user]=$(since "$start")
  pid_of[$user]=$pid
  [ "$(stat -c %U "/proc/$pid")" = "$user" ] || { echo "the daemon of $user runs as $(stat -c %U "/proc/$pid")"; exit 1; }
  sigs_of[$user]=$(loaded "$prefix/log/clamd.log")
  echo "  $user: PONG after ${load_of[$user]} s; clamd says: Loaded ${sigs_of[$user]} signatures; VmRSS $(mib "$(status_kb "$pid" VmRSS)") MiB; load after: $(load)"
done
sleep 1
echo "  all $accounts running:"
u_rss=0 u_pss=0 u_priv=0 u_hwm=0 u_reload_hwm=0
declare -A mem_of
for user in "${users[@]}"; do
  mem_of[$user]=$(memory "${pid_of[$user]}")
  read -r rss hwm pss priv <<<"${mem_of[$user]}"
  echo "  $user: VmRSS $(mib "$rss") MiB, VmHWM $(mib "$hwm") MiB, Pss $(mib "$pss") MiB, private $(mib "$priv") MiB"
  u_rss=$((u_rss + rss)) u_pss=$((u_pss + pss)) u_priv=$((u_priv + priv)) u_hwm=$((u_hwm + hwm))
done
declare -A reload_of
for user in "${users[@]}"; do
  prefix=$work/home/$user/.local/share/korvane/clamav
  reload_of[$user]=$(reload "$prefix/etc/clamd.conf" "${pid_of[$user]}" "$prefix/log/clamd.log")
  read -r took peak after <<<"${reload_of[$user]}"
  u_reload_hwm=$((u_reload_hwm + peak))
  echo "  $user reload: $took s, peak VmHWM $(mib "$peak") MiB, VmRSS afterwards $(mib "$after") MiB"
done
echo "  load after: $(load)"

# ------------------------------------------------------------------ summary
n=$accounts
echo
echo "== Summary ($(date '+%Y-%m-%d %H:%M'), $total signatures, database $(awk -v b="$db_bytes" 'BEGIN {printf "%.1f MiB", b / 1048576}') on disk)"
echo "| daemon | loaded signatures | start to PONG (s) | VmRSS (MiB) | Pss (MiB) | private (MiB) | VmHWM after load (MiB) | VmHWM after a reload (MiB) |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|"
echo "| service (clamav) | $s_sigs | $service_load | $(mib "$s_rss") | $(mib "$s_pss") | $(mib "$s_priv") | $(mib "$s_hwm") | $(mib "$s_reload_hwm") |"
for user in "${users[@]}"; do
  read -r rss hwm pss priv <<<"${mem_of[$user]}"
  read -r _ peak _ <<<"${reload_of[$user]}"
  echo "| per-user ($user) | ${sigs_of[$user]} | ${load_of[$user]} | $(mib "$rss") | $(mib "$pss") | $(mib "$priv") | $(mib "$hwm") | $(mib "$peak") |"
done
echo "| **$n per-user, together** | | | $(mib "$u_rss") | $(mib "$u_pss") | $(mib "$u_priv") | $(mib "$u_hwm") | $(mib "$u_reload_hwm") if all reload at once |"
echo
echo "one service: Pss $(mib "$s_pss") MiB whatever the number of accounts"
echo "$n per-user daemons: Pss $(mib "$u_pss") MiB, $(mib $((u_pss / n))) MiB per account, $(awk -v u="$u_pss" -v s="$s_pss" 'BEGIN {printf "%.2f", u / s}') times the service's"
echo "the one service saves: $(mib $((u_pss - s_pss))) MiB of Pss"
echo "disk: the service's one database $(awk -v b="$db_bytes" 'BEGIN {printf "%.1f", b / 1048576}') MiB; per-user, one copy per account: $(awk -v b="$db_bytes" -v n="$n" 'BEGIN {printf "%.1f", b * n / 1048576}') MiB"
echo "load (1, 5, 15 min) at the end: $(load)"
