#!/usr/bin/env bash
# Every way an infected file can come to be in a watched folder, under every
# kind of name, through the running agent, helper and clamd in quarantine
# mode: each infected file must end in the quarantine folder and each clean
# neighbour stay where it is. Names built to look like result lines must act
# on nothing.
#
#   arrivals_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

default_setup
pref VelgarQuarantineFiles -bool true
pref QuarantineFolder -string "~/Quarantine"
quarantine=$HOME/Quarantine
outside=$HOME/elsewhere
mkdir -p "$outside"
start_agent

declare -a infected=() clean=()
plant() { write_eicar "$1"; infected+=("$1"); }       # plant PATH: an infected file, made in place
keep() { echo "clean: $1" >"$1"; clean+=("$1"); }     # keep PATH: a clean neighbour
# The python of the system, with the calls bash has no command for.
py() { /usr/bin/python3 -c "$@"; }

echo "== Names of every kind, created in place"
plant "$watched/"$'evil\r'
keep "$watched/evil"
plant "$watched/"$'line\nbreak.com'
keep "$watched/line"
plant "$watched/"$'latin1-\xe9t\xe9.com'
plant "$watched/"$'tab\tand\x01control.com'
plant "$watched/back\\slash.com"
plant "$watched/-leading-dash.com"
plant "$watched/ both ends .com "
plant "$watched/$(printf 'n%.0s' $(seq 251)).com"
plant "$watched/<img src=x>.com"

echo "== Names that spell result lines"
keep "$watched/victim.txt"
forger=$watched/$'f\n'$watched/"victim.txt$finding"$'\n'
mkdir -p "$forger"
plant "$forger/z.com"
mover=$watched/$'m\n'$watched/"victim.txt: moved to '$quarantine/victim.txt'"$'\n'
mkdir -p "$mover"
plant "$mover/z.com"

echo "== Arrivals: renamed in, hard link, unnamed file given a name, copy"
write_eicar "$outside/"$'moved\rin.com'
mv "$outside/"$'moved\rin.com' "$watched/"
infected+=("$watched/"$'moved\rin.com')
write_eicar "$outside/linked.com"
ln "$outside/linked.com" "$watched/linked.com"
infected+=("$watched/linked.com")
py 'import ctypes, os, sys
fd = os.open(sys.argv[1], os.O_TMPFILE | os.O_WRONLY, 0o644)
os.write(fd, sys.argv[2].encode())
AT_FDCWD, AT_SYMLINK_FOLLOW = -100, 0x400
libc = ctypes.CDLL(None, use_errno=True)
if libc.linkat(AT_FDCWD, f"/proc/self/fd/{fd}".encode(), AT_FDCWD, (sys.argv[1] + "/tmpfile.com").encode(),
               AT_SYMLINK_FOLLOW) != 0:
    sys.exit(os.strerror(ctypes.get_errno()))' "$watched" "$eicar"
infected+=("$watched/tmpfile.com")
cp "$outside/linked.com" "$watched/copied.com"
infected+=("$watched/copied.com")

echo "== Arrivals: folders moved in whole, and swapped in"
mkdir -p "$outside/payload/inner/"$'deeper\n'
write_eicar "$outside/payload/top.com"
write_eicar "$outside/payload/inner/"$'deeper\n/bottom.com'
echo clean >"$outside/payload/inner/readme.txt"
mv "$outside/payload" "$watched/"
infected+=("$watched/payload/top.com" "$watched/payload/inner/"$'deeper\n/bottom.com')
clean+=("$watched/payload/inner/readme.txt")
mkdir -p "$watched/swap" "$outside/swap-in"
echo "clean: swapped out" >"$watched/swap/was-here.txt"
write_eicar "$outside/swap-in/swapped.com"
py 'import ctypes, os, sys
libc = ctypes.CDLL(None, use_errno=True)
RENAME_EXCHANGE = 2
if libc.renameat2(-100, sys.argv[1].encode(), -100, sys.argv[2].encode(), RENAME_EXCHANGE) != 0:
    sys.exit(os.strerror(ctypes.get_errno()))' "$outside/swap-in" "$watched/swap"
infected+=("$watched/swap/swapped.com")
clean+=("$outside/swap-in/was-here.txt")

echo "== A file deeper than PATH_MAX"
deep_rel=$(for _ in $(seq 21); do printf '%s/' "$(printf 'd%.0s' $(seq 200))"; done)
# A path this long is reached one folder at a time.
deep_cd() { cd "$watched/deep" && for part in ${deep_rel//\// }; do { [ -d "$part" ] || mkdir "$part"; } && cd "$part"; done; }
mkdir -p "$watched/deep"
( deep_cd && write_eicar deep.com )
infected+=("$watched/deep/${deep_rel}deep.com")

echo "== Each infected file is quarantined, each clean one stays"
moved_count() { find "$quarantine" -type f -printf x | wc -c; }
all_moved() { [ "$(moved_count)" -ge "${#infected[@]}" ]; }
wait_for 120 all_moved || fail "$(moved_count) of ${#infected[@]} infected files reached the quarantine folder"
settle
[ "$(moved_count)" -eq "${#infected[@]}" ] || fail "$(moved_count) files in the quarantine folder, ${#infected[@]} planted: $(ls -b "$quarantine" | tr "\n" " ")"
for path in "${infected[@]}"; do [ ${#path} -ge 4000 ] || [ ! -e "$path" ] || fail "still in place: $(printf %q "$path")"; done
( deep_cd && [ ! -e deep.com ] ) || fail "the deep file is still in place"
for path in "${clean[@]}"; do [ -f "$path" ] || fail "a clean file was moved: $(printf %q "$path")"; done
while IFS= read -r -d '' file; do
  [ "$(cat "$file")" = "$eicar" ] || fail "the quarantine folder holds a file that is not one planted: $file"
done < <(find "$quarantine" -type f -print0)

echo "== The log names odd files escaped, and no forged line took effect"
for shown in 'evil\r' 'line\nbreak.com' 'latin1-\xe9t\xe9.com' 'back\\slash.com'; do
  expect_logged 5 "$watched/$shown$finding"
done
expect_logged 5 "its folder's path is 4096 bytes or longer"
# Its one line of its own is its clean result.
grep -qP '^\S+ \S+ \Q'"$watched/victim.txt"'\E: (?!OK$)' "$log" && fail "a forged line about victim.txt was taken for a result"
[ "$(grep -c $'\r' "$log")" -eq 0 ] || fail "a raw carriage return reached the log"
expect_alive "after every arrival"
quit_agent
echo "all arrival checks passed"
