#!/usr/bin/env bash
# Installs the Debian packages Korvane Velgar needs. Safe to run again: it
# installs only what is missing.
#
#   scripts/deps.sh run     what building and running the programs need
#   scripts/deps.sh [test]  that, and what the tests, the sanitizer builds
#                           and the Debian package's checks need
set -euo pipefail

packages=(
  # build
  cmake g++ make pkgconf libsqlite3-dev
  qt6-base-dev qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools qt6-svg-dev libqt6opengl6-dev libgl-dev
  # run
  clamav-daemon clamdscan clamav-freshclam pkexec logrotate bzip2 xdg-utils libglib2.0-bin dbus procps
)
options=()
case "${1:-test}" in
  # A user who only runs the agent gets nothing the packages merely recommend.
  run) options=(--no-install-recommends) ;;
  test)
    packages+=(
      # test
      libgtest-dev libgmock-dev dbus-x11 xxd xvfb trayer dunst xdotool imagemagick
      # systemd-analyze verify, for the scheduled scan's units
      systemd
      # the file-manager menus: the Nautilus extension parsed, Thunar's XML checked
      python3 libxml2-utils
      # the address sanitizer build (scripts/test.sh) is made with clang
      clang libclang-rt-14-dev
      # the Debian package: cpack's dependency list (dpkg-shlibdeps), its checks
      dpkg-dev lintian desktop-file-utils file
    ) ;;
  *) echo "usage: $0 [run | test]" >&2; exit 2 ;;
esac

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "Missing packages (${missing[*]}) and no way to install them: run this script as root or install sudo." >&2
  exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq "${options[@]}" "${missing[@]}" >/dev/null
