#!/usr/bin/env bash
# "Scan with Korvane" as `cmake --install` puts it in place for the four
# file managers: each file where its file manager looks, readable as that
# file manager reads it (Python for GNOME Files' extension, key files for
# Dolphin's service menu and Nemo's action, XML for Thunar's), and Thunar's
# action added to a user's uca.xml by velgarctl setup without losing what
# the user has there, once, and never into a file it cannot read whole.
# (desktop-file-validate does not apply: a KIO service menu is Type=Service,
# and a Nemo action is no desktop entry.)
#
#   filemanagers_test.sh BUILD_DIR
set -euo pipefail

fail() { echo "FAIL: $*" >&2; exit 1; }
for tool in python3 xmllint; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/deps.sh installs it)"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR="$work/root" cmake --install "$1" --prefix /usr >"$work/install.log" 2>&1 || { cat "$work/install.log"; fail "install"; }
share="$work/root/usr/share"
for entry in "-rw-r--r-- nautilus-python/extensions/korvane-scan.py" \
             "-rwxr-xr-x kio/servicemenus/korvane-scan.desktop" \
             "-rw-r--r-- nemo/actions/korvane-scan.nemo_action" \
             "-rw-r--r-- korvane/thunar-uca.xml"; do
  set -- $entry
  [ "$(stat -c %A "$share/$2")" = "$1" ] || fail "$2 is not there as $1"
done
python3 -c 'import ast, sys; ast.parse(open(sys.argv[1]).read(), sys.argv[1])' \
  "$share/nautilus-python/extensions/korvane-scan.py" || fail "the Nautilus extension does not parse"
# Each key file has its group, and its command line takes the selection as
# separate local paths after "--", which each file manager quotes itself.
# Nemo splits its command line at blanks after putting the names in, so it
# is given URIs, which hold no blanks.
python3 - "$share/kio/servicemenus/korvane-scan.desktop" "Desktop Action scanWithKorvane" "%F" \
          "$share/nemo/actions/korvane-scan.nemo_action" "Nemo Action" "%U" <<'PY' || fail "a key file"
import configparser, sys
for path, group, selection in zip(sys.argv[1::3], sys.argv[2::3], sys.argv[3::3]):
    keys = configparser.ConfigParser(interpolation=None, strict=True)
    keys.optionxform = str
    keys.read(path, encoding="utf-8")
    assert keys[group]["Exec"] == "korvane --scan -- " + selection, path
    assert keys[group]["Name"] == "Scan with Korvane", path
PY
xmllint --noout "$share/korvane/thunar-uca.xml" || fail "Thunar's action is not XML"

setup() {
  env -i HOME="$work/home" PATH=/usr/bin:/bin XDG_CONFIG_DIRS="$work/xdg" \
    "$work/root/usr/bin/velgarctl" setup --engine 127.0.0.1:9 2>/dev/null
}
uca="$work/home/.config/Thunar/uca.xml"
mkdir -p "$(dirname "$uca")" "$work/xdg/Thunar"

# No file of the user's: Thunar's own defaults come first, then the action.
printf '<?xml version="1.0"?>\n<actions><action><unique-id>open-terminal</unique-id></action></actions>\n' \
  >"$work/xdg/Thunar/uca.xml"
setup | grep -q "action is added" || fail "no action added beside the system's"
grep -q "open-terminal" "$uca" && grep -q "korvane-scan" "$uca" || fail "the system's actions were not kept"

# The user's own file: their action stays, ours is added once.
printf '<?xml version="1.0" encoding="UTF-8"?>\n<!-- mine -->\n<actions>\n<action>\n\t<name>Caf\xc3\xa9</name>\n\t<unique-id>1-mine</unique-id>\n</action>\n</actions>\n' >"$uca"
cp "$uca" "$work/before"
setup | grep -q "action is added" || fail "no action added to the user's file"
xmllint --noout "$uca" || fail "the merged file is not XML"
[ "$(head -c "$(($(stat -c %s "$work/before") - 11))" "$uca")" = "$(head -c -11 "$work/before")" ] ||
  fail "what the user had was changed"
[ "$(grep -c '<unique-id>' "$uca")" = 2 ] || fail "not two actions"
cp "$uca" "$work/merged"
setup | grep -q "already" || fail "a second setup did not find the action"
cmp -s "$uca" "$work/merged" || fail "a second setup changed the file"

# A file it cannot read whole is left as it is, with a message.
for broken in '<actions><action>' '<menu></menu>' $'<actions><action><name>caf\xe9</name></action></actions>'; do
  printf '%s' "$broken" >"$uca"
  setup | grep -q "is left as it is" || fail "no message for: $broken"
  [ "$(cat "$uca")" = "$broken" ] || fail "changed: $broken"
done

# Without Thunar nothing is written.
rm -rf "$work/home/.config/Thunar" "$work/xdg/Thunar"
setup | grep -q "Thunar is not installed" || fail "no word that Thunar is missing"
[ ! -e "$work/home/.config/Thunar" ] || fail "a Thunar folder was made"
echo "file-manager menus are in place"
