#!/usr/bin/env bash
# What `quillmar archive` uploads per second to a local S3-compatible store, and the CPU it spends
# per leg. The recorder records LEGS calls of SECONDS seconds into a fresh storage with an SQLite
# catalogue (sent in real time by `quillmar send`); then the archiver uploads them to the tests' store
# (s3rver behind tests/s3/store.js, which checks every signature and digest) on loopback, and the
# script prints the legs, the bytes, the wall time from the archiver's start until its metrics count
# every leg, legs/s, MB/s and the archiver's CPU (user + system) per leg.
#
#   bench/archive_throughput.sh [LEGS] [SECONDS]      default 200 legs of 10 s
#
# The store runs on the same machine and takes CPU too; its share is printed beside. Not run by the
# tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QM_BENCH_BUILD:-$root/build}
port=${QM_BENCH_PORT:-5197}
store_port=${QM_BENCH_STORE_PORT:-9197}
legs=${1:-200}
seconds=${2:-10}
work=$(mktemp -d /tmp/qm_archive_throughput_XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT

cmake --build "$build" --target quillmarwriter quillmar >/dev/null

# The process's CPU seconds (user + system) from /proc.
cpu_seconds() {
    awk -v ticks="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / ticks }' "/proc/$1/stat"
}

wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || { echo "timed out waiting for: $*" >&2; exit 1; }
        sleep 0.05
    done
}

cat >"$work/writer.conf" <<CONF
port = $port
storage = $work/storage
catalog = sqlite:catalog.sqlite
storage_cleanup_policy = disabled
receive_buffer_size = 8M
CONF
"$build/quillmarwriter" --config "$work/writer.conf" 2>"$work/recorder.out" &
recorder=$!
wait_for 30 grep -q "PACKETS_READER: thread" "$work/recorder.out"
"$build/quillmar" send --to "127.0.0.1:$port" --calls "$legs" --duration "$seconds" \
    >/dev/null
catalogued() {
    [ "$("$build/quillmar" find --config "$work/writer.conf" --limit "$legs" 2>/dev/null | wc -l)" \
        -ge "$legs" ]
}
wait_for 120 catalogued
bytes=$(find "$work/storage" \( -name media.qm -o -name leg.json \) -printf '%s\n' |
    awk '{ s += $1 } END { print s }')

mkdir "$work/store"
node "$root/tests/s3/store.js" "$work/store" "$store_port" bench "$work/requests.log" \
    2>"$work/store.out" &
store=$!
wait_for 30 grep -q "listening on" "$work/store.out"

start=$(date +%s.%N)
AWS_ACCESS_KEY_ID=S3RVER AWS_SECRET_ACCESS_KEY=S3RVER "$build/quillmar" archive \
    --config "$work/writer.conf" --endpoint "http://127.0.0.1:$store_port" --bucket bench \
    --path-style --metrics "$work/archive.prom" 2>"$work/archive.out" &
archiver=$!
uploaded() {
    [ "$(grep -c ' archived at s3://' "$work/archive.out")" -ge "$legs" ]
}
wait_for 600 uploaded
end=$(date +%s.%N)
archiver_cpu=$(cpu_seconds "$archiver")
store_cpu=$(cpu_seconds "$store")
kill -TERM "$archiver"
wait "$archiver"
kill -INT "$recorder"
wait "$recorder" || true

awk -v legs="$legs" -v bytes="$bytes" -v start="$start" -v end="$end" \
    -v archiver="$archiver_cpu" -v store="$store_cpu" 'BEGIN {
    wall = end - start
    printf "legs %d, %.1f MB, %.2f s: %.1f legs/s, %.2f MB/s\n", legs, bytes / 1e6, wall,
        legs / wall, bytes / 1e6 / wall
    printf "archiver CPU %.2f s (%.1f ms per leg), store CPU %.2f s\n", archiver,
        archiver * 1000 / legs, store
}'
