#!/usr/bin/env bash
# Installs what is missing, builds Korvane Velgar and runs every test:
# the full suite, the Debian package's checks, then the core tests again
# under ThreadSanitizer. The package is left in build/packages.
#
#   scripts/test.sh             everything
#   scripts/test.sh --quick     the full suite and the package, no sanitizer build
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

quick=0
[ "${1:-}" = "--quick" ] && quick=1

scripts/deps.sh

echo "== Building"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

echo "== Testing"
# Tests start their own clamd, D-Bus buses and helpers; they run one at a
# time because each looks at the machine's process list for clamd.
ctest --test-dir build --output-on-failure --timeout 600

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

if [ "$quick" -eq 0 ]; then
  echo "== Core tests under ThreadSanitizer"
  cmake -S . -B build-tsan -DKV_SANITIZE=thread -DKV_BUILD_DESKTOP=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build-tsan -j"$jobs" --target kvcore_tests
  # The sanitizer wants a fixed address layout; old kernels give it one.
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    setarch "$(uname -m)" -R ctest --test-dir build-tsan --output-on-failure --timeout 900 -R '^(Dispatcher|Controller|Log)'
fi
echo "== All tests passed"
