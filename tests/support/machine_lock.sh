# Sourced first by the test scripts and benchmarks that start clamd or read
# the process list for it. Two runs on one machine would see each other's
# daemons, so each holds /tmp/korvane-velgar-tests.lock for its whole life,
# as the C++ test programs do (tests/support/TestSupport.cpp). flock -o keeps
# the lock in flock itself, out of reach of the daemons the script starts.
if [ "${KV_MACHINE_TEST_LOCK:-}" != held ]; then
  exec env KV_MACHINE_TEST_LOCK=held flock -o /tmp/korvane-velgar-tests.lock bash "$0" "$@"
fi
