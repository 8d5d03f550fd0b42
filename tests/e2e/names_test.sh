#!/usr/bin/env bash
# Awkward file names, very long paths, links and files that vanish, through
# the running agent, in warn mode. (A line break, bytes that are not UTF-8
# and names of 255 bytes, in quarantine mode: e2e.arrivals.)
#
#   names_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source "$(dirname "$0")/lib.sh"

default_setup
start_agent

echo "== Blanks, colons, quotes and other punctuation"
odd_names=("with  blanks .com" "colon: inside:.com" "quote'single.com" 'quote"double.com'
           '$(not a command).com' "-leading-dash.com" "star*and?mark[1].com" "tab	inside.com"
           "ünïcödé ✓ 名前.com" "FOUND.com" ": OK.com")
for name in "${odd_names[@]}"; do write_eicar "$watched/$name"; done
# The log shows a tab as \t.
for name in "${odd_names[@]}"; do expect_logged 60 "$watched/${name//$'\t'/\\t}$finding" "no finding for \"$name\""; done

echo "== Paths near PATH_MAX"
deep=$watched
while [ ${#deep} -lt 3600 ]; do deep+=/$(printf 'd%.0s' $(seq 200)); done
mkdir -p "$deep"
long_name=$(printf 'n%.0s' $(seq 251)).com
write_eicar "$deep/$long_name"
echo "clean" >"$deep/clean.txt"
expect_logged 60 "$deep/$long_name$finding" "a path of ${#deep} bytes was not scanned"
expect_logged 60 "$deep/clean.txt: OK"
logged "ERROR: Can't access file" && fail "a long path was cut into pieces"

echo "== Links, dangling links and link loops"
write_eicar "$HOME/outside.com"
ln -s "$HOME/outside.com" "$watched/link-to-file.com"
ln -s /nonexistent/target "$watched/dangling"
ln -s loop-b "$watched/loop-a"
ln -s loop-a "$watched/loop-b"
mkdir "$watched/real-folder"
ln -s "$watched/real-folder" "$watched/real-folder/self"
ln -s .. "$watched/real-folder/up"
finds "$watched/real-folder/after-the-links.com"
expect_logged 60 "$watched/link-to-file.com: " "the link to a file got no result line"
settle
for name in dangling loop-a loop-b real-folder/self real-folder/up; do
  logged "$watched/$name:" && fail "the link $name was scanned"
done
expect_alive "after links"

echo "== Files deleted while they wait"
for i in $(seq 200); do echo "short-lived $i" >"$watched/short-lived-$i.tmp"; done
rm -f "$watched"/short-lived-*.tmp
write_eicar "$watched/deleted-soon.com"
rm "$watched/deleted-soon.com"
finds "$watched/after-the-deletions.com"
settle
logged "short-lived-" && fail "a file deleted before it was ready was scanned"
logged "deleted-soon.com" && fail "a file deleted before it was ready was scanned"
expect_alive "after deletions"
quit_agent
echo "all name checks passed"
