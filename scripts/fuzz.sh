#!/usr/bin/env bash
# Feeds arbitrary bytes through the packet reader for a bounded time.
#   scripts/fuzz.sh <fuzz build dir> [seconds] [extra libFuzzer options...]
# The build dir must be configured with -DQM_SANITIZE=fuzzer and clang++ (scripts/test.sh does).
# The corpus is kept in <dir>/fuzz-corpus, so a later run goes on where this one stopped; a
# finding is written as <dir>/crash-<sha1> and the script fails.
set -euo pipefail
dir=${1:?usage: fuzz.sh <fuzz build dir> [seconds] [libFuzzer options...]}
seconds=${2:-60}
shift $(( $# >= 2 ? 2 : 1 ))

cmake --build "$dir" --target packet_reader_fuzzer packet_seed_writer
mkdir -p "$dir/fuzz-seeds" "$dir/fuzz-corpus"
"$dir/fuzz/packet_seed_writer" "$dir/fuzz-seeds"
"$dir/fuzz/packet_reader_fuzzer" "$dir/fuzz-corpus" "$dir/fuzz-seeds" \
    -max_total_time="$seconds" -max_len=1400 -artifact_prefix="$dir/" -print_final_stats=1 "$@"
