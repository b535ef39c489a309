#!/usr/bin/env bash
# Installs what is missing, builds every configuration and runs every test:
#   build-asan  GCC, AddressSanitizer + UndefinedBehaviorSanitizer: the unit suites
#   build-tsan  Clang, ThreadSanitizer: the suites that run threads against each other
#   build-fuzz  Clang, libFuzzer: the packet reader, the configuration parser and the media file
#               reader fed with arbitrary bytes, each for a bounded time
#   build       GCC, optimised, as shipped: the end-to-end tests, the load test and the package (the
#               unit suites already ran under the sanitizers)
# Warnings are errors in all four. The plain build runs last, so its ctest summary ends the log,
# followed by the run's total time.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

./scripts/install-deps.sh

jobs=$(nproc)
fuzz_seconds=${QM_FUZZ_SECONDS:-60}
config_fuzz_seconds=${QM_CONFIG_FUZZ_SECONDS:-30}
media_fuzz_seconds=${QM_MEDIA_FUZZ_SECONDS:-30}

# A compiler cache makes a second run on the same machine rebuild only what changed.
# Paths are taken relative to the checkout and the build directory is left out of the hash, so
# that any clone of the repository shares the cache.
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
fi

# Each phase's heading says when it began, so that a run's log shows where the time goes.
phase() {
    echo "== $* (at ${SECONDS} s)"
}

# configure DIR TARGET CMAKE-ARGS...: configures DIR and builds TARGET ("all", or the one target a
# phase needs, so that the sanitizer builds compile only what they run).
configure() {
    local dir=$1 target=$2
    shift 2
    cmake -S . -B "$dir" -G Ninja -DQM_WERROR=ON "${launcher[@]}" "$@" >/dev/null
    cmake --build "$dir" -j "$jobs" --target "$target"
}

phase "ASan+UBSan unit tests"
configure build-asan qm_tests -DQM_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug -DQM_BUILD_BENCHMARKS=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"

phase "TSan threaded tests"
configure build-tsan qm_tests -DQM_SANITIZE=thread -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQM_BUILD_BENCHMARKS=OFF
# Two at a time, as the other suites: each waits on its own deadlines, not on the machine.
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -j "$jobs"

phase "fuzzing: packet reader ${fuzz_seconds} s, beside it configuration parser ${config_fuzz_seconds} s then media file reader ${media_fuzz_seconds} s"
configure build-fuzz qm_fuzzers -DQM_SANITIZE=fuzzer -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQM_BUILD_TESTS=OFF -DQM_BUILD_BENCHMARKS=OFF
# A fuzzer runs on one core: the two lines run side by side, each into its own log, shown after.
./scripts/fuzz.sh build-fuzz packet_reader "$fuzz_seconds" >build-fuzz/packet_reader.log 2>&1 &
packet_reader_fuzzing=$!
status=0
{ ./scripts/fuzz.sh build-fuzz config_parser "$config_fuzz_seconds" &&
    ./scripts/fuzz.sh build-fuzz media_file "$media_fuzz_seconds"; } >build-fuzz/files.log 2>&1 || status=$?
wait "$packet_reader_fuzzing" || status=$?
tail -n 20 build-fuzz/packet_reader.log build-fuzz/files.log
[ "$status" -eq 0 ] || { echo "fuzzing found a fault (status $status)"; exit 1; }

phase "optimised build: end-to-end tests"
configure build all -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQM_SANITIZE=none -DQM_BUILD_TESTS=ON \
    -DQM_BUILD_BENCHMARKS=ON -DQM_E2E_ONLY=ON
# Most end-to-end tests wait for report periods, timers and other processes rather than compute:
# two per core, except the suites that load the machine, which run alone (SERIAL in
# tests/e2e/CMakeLists.txt).
ctest --test-dir build --output-on-failure -j "$((jobs * 2))"
echo "== all tests passed in ${SECONDS} s"
