#!/usr/bin/env bash
# Tests of the Debian package, as users get it (installed_test.sh installs
# and runs it).
#
#   package_test.sh build BUILD_DIR OUT_DIR   make the package with cpack into OUT_DIR
#   package_test.sh contents OUT_DIR          check its control data, its files and
#                                             its desktop entry
set -euo pipefail

fail() { echo "FAIL: $*" >&2; exit 1; }

package_in() {
  local packages=("$1"/korvane-velgar_*.deb)
  [ -f "${packages[0]}" ] || fail "no package in $1"
  echo "${packages[0]}"
}

build() {
  local build_dir=$1 out=$2
  rm -rf "$out"
  cpack -G DEB -B "$out" --config "$build_dir/CPackConfig.cmake" >"$out.log" 2>&1 || { cat "$out.log"; fail "cpack"; }
  echo "built $(package_in "$out")"
}

contents() {
  local deb info listing
  deb=$(package_in "$1")
  info=$(dpkg-deb --info "$deb")
  listing=$(dpkg-deb --contents "$deb" | awk '{ print $1, $6 }')

  grep -q '^ Package: korvane-velgar$' <<<"$info" || fail "package name"
  local depends
  depends=$(sed -n 's/^ Depends: //p' <<<"$info")
  # The programs the agent runs, and the Qt libraries dpkg-shlibdeps found.
  for package in clamav-daemon clamdscan clamav-freshclam pkexec logrotate bzip2 xdg-utils libglib2.0-bin \
                 dbus procps libqt6core6 libqt6widgets6 libqt6dbus6; do
    grep -Eq "(^|, )$package( |,|$)" <<<"$depends" || fail "Depends lacks $package: $depends"
  done
  # The maintainer scripts are run by installed_test.sh.

  local expected=(
    "-rwxr-xr-x ./usr/bin/korvane-velgar"
    "-rwxr-xr-x ./usr/bin/velgarctl"
    "-rwxr-xr-x ./usr/bin/korvane"
    # Unpacked plain; postinst gives it its set-user-ID mode.
    "-rwxr-xr-x ./usr/share/korvane-velgar/gfslogger"
    "-rwxr-xr-x ./usr/libexec/korvane-velgar/install-gfslogger"
    "-rw-r--r-- ./usr/share/polkit-1/actions/com.korvane.KorvaneVelgar.install-gfslogger.policy"
    "-rw-r--r-- ./usr/share/korvane-velgar/KorvaneVelgar.ui"
    "-rw-r--r-- ./usr/share/korvane-velgar/WarningDialog.ui"
    "-rw-r--r-- ./usr/share/korvane-velgar/QuarantinedDialog.ui"
    "-rw-r--r-- ./usr/share/korvane-velgar/translations/korvane-velgar_en.qm"
    "-rw-r--r-- ./usr/share/korvane-velgar/images/default.png"
    "-rw-r--r-- ./usr/share/korvane-velgar/images/dock_default.png"
    "-rw-r--r-- ./usr/share/korvane-velgar/clamav/korvane-test.ndb"
    "-rw-r--r-- ./usr/share/applications/com.korvane.KorvaneVelgar.desktop"
    "-rw-r--r-- ./usr/share/icons/hicolor/48x48/apps/com.korvane.KorvaneVelgar.png"
    "-rw-r--r-- ./usr/share/icons/hicolor/96x96/apps/com.korvane.KorvaneVelgar.png"
    "-rw-r--r-- ./usr/share/man/man1/korvane-velgar.1.gz"
    "-rw-r--r-- ./usr/share/man/man1/velgarctl.1.gz"
    "-rw-r--r-- ./usr/share/man/man1/korvane.1.gz"
    "-rw-r--r-- ./usr/share/applications/com.korvane.Korvane.desktop"
    "-rw-r--r-- ./usr/share/icons/hicolor/scalable/apps/com.korvane.Korvane.svg"
    "-rw-r--r-- ./usr/share/doc/korvane-velgar/copyright"
    "-rw-r--r-- ./usr/share/doc/korvane-velgar/changelog.gz"
    "-rw-r--r-- ./usr/share/nautilus-python/extensions/korvane-scan.py"
    "-rwxr-xr-x ./usr/share/kio/servicemenus/korvane-scan.desktop"
    "-rw-r--r-- ./usr/share/nemo/actions/korvane-scan.nemo_action"
    "-rw-r--r-- ./usr/share/korvane/thunar-uca.xml"
  )
  for entry in "${expected[@]}"; do
    grep -qxF -- "$entry" <<<"$listing" || fail "missing: $entry"
  done
  # Everything lives under /usr: nothing in /etc, and never a home folder.
  if grep -v ' ./usr/' <<<"$listing" | grep -v ' ./$'; then
    fail "files outside /usr"
  fi

  local scratch
  scratch=$(mktemp -d)
  dpkg-deb -x "$deb" "$scratch"
  for entry in com.korvane.KorvaneVelgar com.korvane.Korvane; do
    desktop-file-validate "$scratch/usr/share/applications/$entry.desktop" || { rm -rf "$scratch"; fail "desktop entry $entry"; }
  done
  file "$scratch/usr/share/icons/hicolor/48x48/apps/com.korvane.KorvaneVelgar.png" | grep -q '48 x 48' ||
    { rm -rf "$scratch"; fail "48 px icon"; }
  rm -rf "$scratch"
  echo "package contents are complete"
}

case "${1:-}" in
  build) build "$2" "$3" ;;
  contents) contents "$2" ;;
  *) echo "usage: $0 build BUILD_DIR OUT_DIR | contents OUT_DIR" >&2; exit 2 ;;
esac
