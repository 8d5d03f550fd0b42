#!/usr/bin/env bash
# Prints the lines of test code against the lines of product code.
#
# A line counts when it is neither blank nor a whole-line comment. Product:
# the C++ of the programs we ship (the agent, its helpers, velgarctl, the
# Korvane application).
# Tests: the C++ and the scripts under tests/. Benchmarks and the scripts
# that build, run and photograph the agent count as neither.
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
  awk '
    FNR == 1 { block = 0; kind = FILENAME; sub(/.*\./, "", kind) }
    { line = $0; gsub(/^[ \t]+|[ \t]+$/, "", line) }
    line == "" { next }
    kind == "cpp" || kind == "h" {
      if (block) { if (line ~ /\*\//) block = 0; next }
      if (line ~ /^\/\*/) { if (line !~ /\*\//) block = 1; next }
      if (line ~ /^\/\//) next
    }
    (kind == "sh" || kind == "py") && line ~ /^#/ && line !~ /^#!/ { next }
    { n++ }
    END { print n + 0 }' "$@" </dev/null
}

# Files by name, found in the tree itself: a checkout may be a plain copy
# without git's records, or one that git will not read for another user.
files() { find "$@" -type f | grep -E "$pattern" | sort; }

pattern='\.(cpp|h)$'
mapfile -t product < <(files platform engine queue scan intake app ui tools eventhelper korvane)
pattern='\.(cpp|h|sh|py)$'
mapfile -t tests < <(files tests)
if [ "${#product[@]}" -eq 0 ] || [ "${#tests[@]}" -eq 0 ]; then
  echo "code-ratio.sh: no sources found under $(pwd)" >&2
  exit 1
fi

product_lines=$(count "${product[@]}")
test_lines=$(count "${tests[@]}")
echo "Test code: $test_lines lines against $product_lines lines of product code" \
  "($((100 * test_lines / product_lines))%; the aim is at most 40%)"

# The Korvane application on its own: its tests against its code.
pattern='\.(cpp|h)$'
mapfile -t application < <(files korvane)
mapfile -t application_tests < <(files tests/korvane)
application_lines=$(count "${application[@]}")
application_test_lines=$(count "${application_tests[@]}")
echo "The Korvane application: $application_test_lines test lines against $application_lines lines" \
  "($((100 * application_test_lines / application_lines))%; the aim is at most a third)"
