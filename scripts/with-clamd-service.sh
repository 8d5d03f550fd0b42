#!/usr/bin/env bash
# Runs a command while Debian's clamd service runs, as on a desktop where
# clamav-daemon is enabled: /usr/sbin/clamd --foreground=true, configured by
# /etc/clamav/clamd.conf, started by root and running as clamav. For
# machines without systemd (containers, CI roots), to show that the tests
# pass beside the service:
#
#   sudo scripts/with-clamd-service.sh scripts/test.sh
#
# When the service's database folder holds no signatures (no network for
# freshclam), the project's test signatures are put there for the run and
# taken away after it. A service that already answers is used as it is.
set -euo pipefail
[ "$(id -u)" -eq 0 ] || { echo "with-clamd-service: run as root" >&2; exit 2; }
[ $# -gt 0 ] || { echo "usage: $0 COMMAND..." >&2; exit 2; }
project=$(cd "$(dirname "$0")/.." && pwd)
[ -x /usr/sbin/clamd ] || bash "$project/scripts/deps.sh"

conf=/etc/clamav/clamd.conf
socket=$(sed -n 's/^LocalSocket[[:space:]]\+//p' "$conf" | head -n 1)
database=$(sed -n 's/^DatabaseDirectory[[:space:]]\+//p' "$conf" | head -n 1)
database=${database:-/var/lib/clamav}
answers() { [ -S "$socket" ] && [ "$(clamdscan --config-file="$conf" --ping 1 2>/dev/null)" = PONG ]; }

service_pid= added_signatures=
finish() {
  local status=$?
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
  [ -n "$added_signatures" ] && rm -f "$added_signatures"
  exit $status
}
trap finish EXIT

if ! answers; then
  if ! compgen -G "$database/*.[cn]vd" >/dev/null && ! compgen -G "$database/*.[hln]db" >/dev/null; then
    added_signatures=$database/korvane-test.ndb
    install -m 0644 -o clamav -g clamav "$project/resources/clamav/korvane-test.ndb" "$added_signatures"
  fi
  install -d -o clamav -g clamav "$(dirname "$socket")"
  # Its own messages go to a log of their own, out of the command's output.
  /usr/sbin/clamd --foreground=true >"${TMPDIR:-/tmp}/clamd-service.log" 2>&1 &
  service_pid=$!
  for _ in $(seq 1 300); do answers && break; sleep 0.2; done
  answers || { echo "with-clamd-service: the service did not answer on $socket" >&2; exit 1; }
fi
echo "with-clamd-service: Debian's clamd service answers on $socket (pid $(pgrep -xo clamd))"
"$@"
