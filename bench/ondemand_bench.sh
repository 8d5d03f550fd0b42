#!/usr/bin/env bash
# Scans on demand beside ClamAV's own: one home-like tree of 20,000 files
# (bench/make_home_tree, fixed seed: mostly small files, some up to 10 MB,
# 200 .tar.gz archives), scanned by
#   clamdscan --multiscan --fdpass   (ClamAV's fastest client: the files
#                                     opened by the client, many at once)
#   clamscan -r                      (no daemon: loads the definitions itself)
#   velgarctl scan, first            (an empty verdict cache)
#   velgarctl scan, second           (the tree unchanged)
# against one clamd with the tests' signatures, started afresh before every
# scan, so its own cache of clean files never helps.
#
#   bench/ondemand_bench.sh [build folder] [rounds]     (default: build, 3)
#
# Takes the machine-wide test lock and waits (up to BENCH_LOAD_WAIT s) for
# the 1-minute load to fall below BENCH_MAX_LOAD before each scan, and says
# what the load was. BENCH_FILES overrides the file count.
set -euo pipefail
source "$(dirname "$0")/../tests/support/machine_lock.sh"
cd "$(dirname "$0")/.."
build=${1:-build}
rounds=${2:-3}
files=${BENCH_FILES:-20000}
max_load=${BENCH_MAX_LOAD:-0.7}
load_wait=${BENCH_LOAD_WAIT:-120}
ctl=$build/bin/velgarctl
maker=$build/bin/make_home_tree
for tool in "$ctl" "$maker"; do
  [ -x "$tool" ] || { echo "missing $tool: build it first (cmake --build $build --target velgarctl make_home_tree)"; exit 1; }
done

work=$(mktemp -d /tmp/kv-ondemand-XXXXXX)
prefix=$work/prefix
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share XDG_RUNTIME_DIR=$work/run
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$prefix"/{bin,sbin,etc,run,db,tmp}
chmod 700 "$HOME" "$XDG_RUNTIME_DIR"
cleanup() {
  set +e
  [ -f "$prefix/run/clamd.pid" ] && kill "$(cat "$prefix/run/clamd.pid")" 2>/dev/null
  sleep 1
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

ln -s /usr/sbin/clamd "$prefix/sbin/clamd"
cp resources/clamav/korvane-test.ndb "$prefix/db/"
cat > "$prefix/etc/clamd.conf" <<CONF
LocalSocket $prefix/run/clamd.ctl
DatabaseDirectory $prefix/db
PidFile $prefix/run/clamd.pid
TemporaryDirectory $prefix/tmp
Foreground no
LogFile $prefix/clamd.log
CONF
printf '#!/bin/sh\nexec /usr/bin/clamdscan --config-file=%s "$@"\n' "$prefix/etc/clamd.conf" > "$prefix/bin/clamdscan"
chmod 755 "$prefix/bin/clamdscan"
"$ctl" defaults write com.korvane.Korvane PathToClamav -string "$prefix" >/dev/null

echo "building the tree ($files files)..."
tree=$work/tree
"$maker" "$tree" "$files" > "$work/archives"
while read -r pack; do
  tar czf "$pack.tar.gz" -C "$(dirname "$pack")" "$(basename "$pack")" && rm -rf "$pack"
done < "$work/archives"
sync
echo "  $(find "$tree" -type f | wc -l) files, $(du -sh "$tree" | cut -f1); clamd MaxThreads 10 (its default)"

load() { cut -d' ' -f1-3 /proc/loadavg; }
quiet_machine() {
  local deadline=$((SECONDS + load_wait))
  while awk -v m="$max_load" '{exit !($1 >= m)}' /proc/loadavg && [ $SECONDS -lt $deadline ]; do sleep 5; done
}
restart_daemon() {
  if [ -f "$prefix/run/clamd.pid" ]; then
    kill "$(cat "$prefix/run/clamd.pid")" 2>/dev/null || true
    for _ in $(seq 100); do [ -S "$prefix/run/clamd.ctl" ] || break; sleep 0.1; done
  fi
  "$prefix/sbin/clamd" -c "$prefix/etc/clamd.conf"
  for _ in $(seq 300); do [ -S "$prefix/run/clamd.ctl" ] && break; sleep 0.1; done
}
# timed NAME COMMAND...: one scan, its wall time in seconds and the load before it.
timed() {
  local name=$1; shift
  quiet_machine
  local before; before=$(load)
  local start end
  start=$(date +%s.%N)
  "$@" > "$work/out" 2>&1 || true
  end=$(date +%s.%N)
  printf '%-31s %8.2f s   load before: %s\n' "$name" "$(awk -v a="$start" -v b="$end" 'BEGIN {print b - a}')" "$before"
}

# Read once, so every scan finds the tree in the page cache.
cat $(find "$tree" -type f) > /dev/null
for round in $(seq "$rounds"); do
  echo "round $round"
  restart_daemon
  timed "clamdscan --multiscan --fdpass" "$prefix/bin/clamdscan" --multiscan --fdpass --no-summary "$tree"
  restart_daemon
  timed "clamscan -r" clamscan -r --no-summary --database="$prefix/db" "$tree"
  restart_daemon
  rm -f "$XDG_DATA_HOME/korvane/verdicts.sqlite"
  timed "velgarctl scan (first)" "$ctl" scan "$tree"
  grep -E '^(Scanned|Infected|Unreadable|Skipped)' "$work/out" | tr '\n' ' '; echo
  timed "velgarctl scan (second)" "$ctl" scan "$tree"
  grep -E '^(Scanned|Skipped as unchanged)' "$work/out" | tr '\n' ' '; echo
done
