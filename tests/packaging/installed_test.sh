#!/usr/bin/env bash
# The Debian package as it is installed: unpacked into a scratch root, its
# maintainer scripts run there as dpkg runs them on another root (postinst
# makes the helper set-user-ID root, a purge forgets that), and the agent
# from there, which finds its resources beside itself, launches clamd, finds
# an infected file and quits. Runs in the end-to-end tests' namespaces
# (tests/e2e/lib.sh).
#
#   installed_test.sh PACKAGE_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/../e2e/lib.sh"

packages=("$build"/korvane-velgar_*.deb)
deb=${packages[0]}
[ -f "$deb" ] || fail "no package in $build"
root=$work/root
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$work/control"
agent_bin=$root/usr/bin/korvane-velgar
ctl=$root/usr/bin/velgarctl
helper=$root/usr/share/korvane-velgar/gfslogger
unset KORVANE_VELGAR_RESOURCES

echo "== postinst makes the helper set-user-ID root"
mkdir -p "$root/var/lib/dpkg"
export DPKG_ROOT=$root DPKG_ADMINDIR=$root/var/lib/dpkg
"$work/control/postinst" configure
[ "$(stat -c '%U %a' "$helper")" = "root 4755" ] || fail "postinst did not make the helper set-user-ID root"

echo "== The installed agent launches clamd, finds an infected file and quits"
default_setup
start_agent
logged "clamd launched successfully.  Continuing..." || fail "the installed agent did not launch clamd"
finds "$watched/infected.com"
quit_agent
wait_for 15 daemon_gone || fail "the clamd the installed agent launched still runs"

echo "== A purge forgets the helper's mode"
"$work/control/postrm" purge
[ ! -s "$DPKG_ADMINDIR/statoverride" ] || fail "purging left the helper's override: $(cat "$DPKG_ADMINDIR/statoverride")"
echo "all installed-package checks passed"
