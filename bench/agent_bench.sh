#!/usr/bin/env bash
# Start-up time and idle cost of the agent.
#
# Measures, with a clamd that already runs (so the daemon's own database load
# is left out): the time from the agent's process start to the end of its
# first start of watching, over several runs; then the agent's CPU time and
# resident memory over an idle period.
#
#   bench/agent_bench.sh [build folder] [idle seconds]
set -euo pipefail
source "$(dirname "$0")/../tests/support/machine_lock.sh"
cd "$(dirname "$0")/.."
build=${1:-build}
idle=${2:-60}
runs=10

work=$(mktemp -d /tmp/kv-bench-XXXXXX)
trap 'kill $(cat "$work/prefix/run/clamd.pid" 2>/dev/null) 2>/dev/null || true; kill "${bus_pid:-}" 2>/dev/null || true; rm -rf "$work"' EXIT
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share XDG_RUNTIME_DIR=$work/run
mkdir -p "$HOME/watched" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
eval "$(dbus-daemon --session --fork --print-address=1 --print-pid=1 | { read -r a; read -r p; echo "export DBUS_SESSION_BUS_ADDRESS='$a'; bus_pid=$p"; })"

"$build/bin/velgarctl" setup --prefix "$work/prefix" --watch "$HOME/watched" >/dev/null 2>&1 || true
"$work/prefix/sbin/clamd" -c "$work/prefix/etc/clamd.conf"
log=$HOME/Library/Logs/KorvaneVelgar-scan.log

echo "Start-up to the end of the first start of watching ($runs runs):"
times=()
for _ in $(seq "$runs"); do
  rm -f "$log"
  start=$(date +%s.%N)
  QT_QPA_PLATFORM=offscreen "$build/bin/korvane-velgar" &
  agent=$!
  until grep -q 'Watching started' "$log" 2>/dev/null; do sleep 0.005; done
  stamp=$(grep -m1 'Watching started' "$log" | awk '{print $1" "$2}')
  finish=$(date -d "$stamp" +%s.%N)
  times+=("$(echo "$finish - $start" | bc)")
  "$build/bin/velgarctl" quit >/dev/null
  wait "$agent" || true
done
printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR]=$1} END {printf "  median %.3f s, max %.3f s\n", a[int((NR+1)/2)], a[NR]}'

echo "Idle for ${idle} s:"
QT_QPA_PLATFORM=offscreen "$build/bin/korvane-velgar" &
agent=$!
until grep -q 'Watching started' "$log" 2>/dev/null; do sleep 0.05; done
sleep 2
ticks=$(getconf CLK_TCK)
before=$(awk '{print $14+$15}' "/proc/$agent/stat")
sleep "$idle"
after=$(awk '{print $14+$15}' "/proc/$agent/stat")
rss=$(awk '/VmRSS/ {print $2}' "/proc/$agent/status")
threads=$(ls "/proc/$agent/task" | wc -l)
echo "  CPU: $(echo "scale=4; ($after - $before) * 100 / $ticks / $idle" | bc) % of one core"
echo "  resident memory: $((rss / 1024)) MB, threads: $threads"
"$build/bin/velgarctl" quit >/dev/null
wait "$agent" || true
