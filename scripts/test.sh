#!/usr/bin/env bash
# Installs what is missing, builds Korvane Velgar and runs every test:
# the full suite, the Debian package's checks, then the whole suite again in
# two sanitizer builds: AddressSanitizer with UndefinedBehaviorSanitizer and
# LeakSanitizer (build-asan), and ThreadSanitizer (build-tsan). The package
# is left in build/packages.
#
#   scripts/test.sh                       everything
#   scripts/test.sh --quick               the full suite and the package, no sanitizer build
#   scripts/test.sh --sanitize [KIND]     only the sanitizer runs: both, or KIND
#                                         (address or thread)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

plain=1
sanitizers=(address thread)
case "${1:-}" in
  "") ;;
  --quick) sanitizers=() ;;
  --sanitize)
    plain=0
    case "${2:-}" in
      "") ;;
      address | thread) sanitizers=("$2") ;;
      *) echo "usage: $0 [--quick | --sanitize [address|thread]]" >&2; exit 2 ;;
    esac ;;
  *) echo "usage: $0 [--quick | --sanitize [address|thread]]" >&2; exit 2 ;;
esac

# Prints how long the stage that began at $1 (a value of $SECONDS) took.
took() { echo "-- $2 took $((SECONDS - $1)) s"; }

# checked_ctest COMMAND...: runs a ctest command line and fails when a test
# failed, or was skipped or not run: a test that did not run proved nothing,
# so in CI it counts as a failure.
checked_ctest() {
  local output status=0
  output=$(mktemp)
  "$@" | tee "$output" || status=$?
  if grep -qE '^The following tests did not run:|\*\*\*(Not Run|Skipped)' "$output"; then
    echo "FAIL: some tests were skipped or did not run (above)"
    status=1
  fi
  rm -f "$output"
  return "$status"
}

scripts/deps.sh test

if [ "$plain" -eq 1 ]; then
  echo "== Building"
  start=$SECONDS
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_BUILD_TESTS=ON -DKV_BUILD_BENCH=ON >/dev/null
  cmake --build build -j"$jobs"
  took $start "the build"

  echo "== Testing"
  # Tests start their own clamd, D-Bus buses and helpers; they run one at a
  # time because each looks at the machine's process list for clamd.
  start=$SECONDS
  checked_ctest ctest --test-dir build --output-on-failure --timeout 600
  took $start "the suite"

  echo "== Debian package"
  tests/packaging/package_test.sh build build build/packages
  deb=$(ls build/packages/korvane-velgar_*.deb)
  dpkg-deb --info "$deb"
  # Control data, binaries, resources folder, desktop entry (checked with
  # desktop-file-validate), icons, manual pages and documents.
  tests/packaging/package_test.sh contents build/packages
  # Errors fail the build. Tag overrides are in packaging/lintian-overrides,
  # each with its reason.
  lintian --fail-on error --display-info "$deb"
fi

# The whole suite in a sanitizer build: sanitize KIND DIR.
#
# The tree is built without the benchmarks, at -O1: quicker to build than
# -O2, fast enough for the tests' time limits, with stacks that read like the
# source. The address tree is built with clang: with GCC's runtimes an
# UndefinedBehaviorSanitizer report always goes to standard error, whatever
# log_path says, and a child's would be lost.
#
# Every sanitized program writes its reports to a report folder, moved to
# DIR/sanitizer-reports/ at the end, as report.PID rather than to its
# standard error: the test programs, and the agent, gfslogger and velgarctl
# that tests and test scripts start as children, whose output a test often
# reads or throws away. The run fails
# when any report is there, and prints them. Suppressions, each with its
# reason, are in tests/sanitizers/.
#
# Left out: the packaging tests. They make a Debian package of the sanitized
# build with cpack, which strips the programs (their reports would have no
# function names), and a package is only ever made of the plain build,
# checked above. What the installed agent does there (start, launch clamd,
# scan, quit) the end-to-end tests (e2e.*) do with the sanitized build.
sanitize() {
  local kind=$1 dir=$2
  local reports=$root/$dir/sanitizer-reports
  local start status=0

  echo "== Building with the $kind sanitizer in $dir"
  start=$SECONDS
  local compiler=()
  [ "$kind" = address ] && compiler=(-DCMAKE_CXX_COMPILER=clang++)
  cmake -S . -B "$dir" "${compiler[@]}" -DKV_SANITIZE="$kind" -DKV_BUILD_TESTS=ON -DKV_BUILD_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" >/dev/null
  cmake --build "$dir" -j"$jobs"
  took $start "the $kind build"

  echo "== Testing with the $kind sanitizer"
  # Tests run gfslogger, velgarctl and shell commands as the user nobody too,
  # and the checkout may sit where nobody cannot look (under /root, mode 0700
  # on Debian). The runtime reads its suppressions before main and stops a
  # program whose files it cannot open, so both the suppressions and the
  # report folder live in a folder of their own that every user can read,
  # whose report folder every user can write to. The reports are moved into
  # the tree at the end.
  local shared
  shared=$(mktemp -d /tmp/kv-sanitizer.XXXXXX)
  chmod 755 "$shared"
  install -m 644 tests/sanitizers/*.supp "$shared/"
  install -d -m 1777 "$shared/reports"
  local run=(env)
  if [ "$kind" = address ]; then
    # Leaks are looked for at each program's exit (LeakSanitizer is on by
    # default). The exit status and the leak check are left to each
    # program: gfslogger sets exit status 2, which the agent does not take
    # for a request to install it, and turns the leak check off, as it
    # cannot run in a set-user-ID program. UndefinedBehaviorSanitizer shares
    # AddressSanitizer's log_path in clang's runtime.
    run+=(ASAN_OPTIONS="log_path=$shared/reports/report check_initialization_order=1 strict_init_order=1"
      UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1"
      LSAN_OPTIONS="suppressions=$shared/lsan.supp print_suppressions=0")
  else
    # The sanitizer wants a fixed address layout; old kernels give it one.
    # QProcess (the Korvane application runs the definitions updater with
    # it) forks while other threads run and starts a thread in the child
    # before it executes the program, which the sanitizer refuses unless told.
    run+=(TSAN_OPTIONS="log_path=$shared/reports/report halt_on_error=1 second_deadlock_stack=1 die_after_fork=0 suppressions=$shared/tsan.supp"
      setarch "$(uname -m)" -R)
  fi
  start=$SECONDS
  checked_ctest "${run[@]}" ctest --test-dir "$dir" --output-on-failure --timeout 900 -E '^packaging\.' || status=$?
  took $start "the $kind suite"

  rm -rf "$reports"
  mkdir -p "$reports"
  local report found=0
  for report in "$shared"/reports/report*; do
    [ -e "$report" ] || continue
    found=1
    mv "$report" "$reports/"
    echo "--- $kind sanitizer report $reports/${report##*/}"
    cat "$reports/${report##*/}"
  done
  rm -rf "$shared"
  if [ "$found" -eq 1 ]; then
    echo "FAIL: the $kind sanitizer reported errors (above; kept in $reports)"
    return 1
  fi
  [ "$status" -eq 0 ] || { echo "FAIL: tests failed under the $kind sanitizer"; return 1; }
}

for kind in "${sanitizers[@]}"; do
  case "$kind" in
    address) sanitize address build-asan ;;
    thread) sanitize thread build-tsan ;;
  esac
done
echo "== All tests passed"
scripts/code-ratio.sh
