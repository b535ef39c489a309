#!/usr/bin/env bash
# Runs one libFuzzer target for a bounded time.
#   scripts/fuzz.sh <fuzz build dir> <target> [seconds] [extra libFuzzer options...]
# Targets: packet_reader (arbitrary datagrams through the packet reader), config_parser
# (arbitrary text through the configuration's line and "--args" parsers) and media_file
# (arbitrary bytes through the media file reader).
# The build dir must be configured with -DQM_SANITIZE=fuzzer and clang++ (scripts/test.sh does).
# The corpus is kept in <dir>/fuzz-corpus/<target>, so a later run goes on where this one stopped;
# it starts from the seeds (written by packet_seed_writer, or kept in fuzz/seeds/<target>). A
# finding is written as <dir>/crash-<sha1> and the script fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:?usage: fuzz.sh <fuzz build dir> <target> [seconds] [libFuzzer options...]}
target=${2:?usage: fuzz.sh <fuzz build dir> <target> [seconds] [libFuzzer options...]}
seconds=${3:-60}
shift $(( $# >= 3 ? 3 : 2 ))

corpus="$dir/fuzz-corpus/$target"
mkdir -p "$corpus"
case "$target" in
    packet_reader)
        cmake --build "$dir" --target packet_reader_fuzzer packet_seed_writer
        seeds="$dir/fuzz-seeds/$target"
        mkdir -p "$seeds"
        "$dir/fuzz/packet_seed_writer" "$seeds"
        max_len=1400
        ;;
    config_parser | media_file)
        cmake --build "$dir" --target "${target}_fuzzer"
        seeds="$root/fuzz/seeds/$target"
        max_len=4096
        ;;
    *)
        echo "fuzz.sh: unknown target: $target" >&2
        exit 2
        ;;
esac
extra=()
if [ "$target" = config_parser ]; then
    # 10000 random allowed_sources values, each run once before the mutations start.
    extra=("$dir/fuzz-seeds/allowed_sources")
    python3 "$root/fuzz/random_allowed_sources.py" "${extra[0]}" 10000
fi
"$dir/fuzz/${target}_fuzzer" "$corpus" "$seeds" "${extra[@]}" \
    -max_total_time="$seconds" -max_len="$max_len" -artifact_prefix="$dir/" -print_final_stats=1 "$@"
