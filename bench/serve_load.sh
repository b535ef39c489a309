#!/usr/bin/env bash
# Whether `quillmar serve` under load costs the recorder on the same machine anything: the
# recorder takes RATE datagrams/s (its zero-loss rate from bench/throughput.sh) for SECONDS, first
# alone, then while serve answers CLIENTS API clients (bench/serve_load.cpp) on the legs of its
# catalogue; for each run the datagrams sent, the recorder's kernel drops and its CPU
# microseconds per datagram, then the clients' requests, errors and latencies and serve's CPU.
#
#   bench/serve_load.sh [RATE] [SECONDS] [CLIENTS]     default: 100000 30 50
#
# Uses bench/throughput.sh's pieces (fresh storage, configuration, traffic, drops); the receive
# buffer and extra settings as there (QM_BENCH_BUFFER, QM_BENCH_SETTINGS). QM_BENCH_NO_AUTH=1
# serves without sign-in. Not run by the tests.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
rate=${1:-100000}
seconds=${2:-30}
clients=${3:-50}
set -- ladder "${QM_BENCH_BUFFER:-32M}"
# shellcheck source=bench/throughput.sh
source "$here/throughput.sh"
build=$(cd "$build" && pwd)
QM_BENCH_SETTINGS="catalog = sqlite:catalog.sqlite
${QM_BENCH_SETTINGS:-}"

build_all() {
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQM_SANITIZE=none >/dev/null
    cmake --build "$build" --target quillmarwriter quillmar serve_load >/dev/null
}

# Legs for the clients: 50 calls of 5 s (WAVs of 160 KB), in the storage and the catalogue.
seed_legs() {
    "$build/quillmar" send --to "127.0.0.1:$port" --calls 50 --duration 5 --rate 5000 \
        --one-by-one >/dev/null
    wait_drained
    for _ in $(seq 1 300); do
        [ "$("$build/quillmar" find --catalog sqlite:catalog.sqlite --storage "$work/storage" \
             --json 2>/dev/null | grep -o '"uuid"' | wc -l)" -ge 50 ] && return 0
        sleep 0.1
    done
    # find's own words, should it fail.
    echo "# the catalogue shows $("$build/quillmar" find --catalog sqlite:catalog.sqlite \
        --storage "$work/storage" --json | grep -o '"uuid"' | wc -l) of the 50 seeded legs" \
        "after 30 s; the clients ask about the legs it has when they start" >&2
}

# One run of the recorder's traffic: prints "sent drops cpu_us_per_datagram".
measure() {
    local recorder=$1 out=$2 before drops_before
    # From a report on, so that what came before (the seeding, the last run) is counted there.
    wait_report "$out"
    before=$(cpu_us "$recorder")
    drops_before=$(recorder_drops "$out")
    send_traffic "$rate" "$seconds" >"$work/send.out"
    wait_drained
    sleep 0.5
    wait_report "$out"
    local after sent
    after=$(cpu_us "$recorder")
    sent=$(sent_count "$work/send.out")
    echo "$sent $(( $(recorder_drops "$out") - drops_before )) $(awk -v a="$before" -v b="$after" \
        -v n="$sent" 'BEGIN { printf "%.2f", (n > 0 ? (b - a) / n : 0) }')"
}

build_all
fresh_storage
write_config "$work/storage"
"$build/quillmarwriter" --config "$work/writer.conf" 2>"$work/recorder.out" &
recorder=$!
# Receiving once its packet reader runs; on a busy machine that can take more than a second.
for _ in $(seq 1 200); do
    grep -q "PACKETS_READER: thread \[" "$work/recorder.out" && break
    sleep 0.05
done
seed_legs
printf 'bench\n' | "$build/quillmar" passwd "$work/users" bench >/dev/null
# QM_BENCH_NO_AUTH=1: serve answers without sign-in, to tell what the password checks cost.
sign_in=(--users "$work/users")
[ "${QM_BENCH_NO_AUTH:-0}" = 1 ] && sign_in=(--no-auth)
# At the niceness quillmar-serve.service gives it (Nice=), so that the recorder comes first.
nice -n "${QM_BENCH_SERVE_NICE:-10}" "$build/quillmar" serve --listen 127.0.0.1:0 \
    --catalog sqlite:catalog.sqlite --storage "$work/storage" "${sign_in[@]}" \
    >"$work/serve.out" 2>&1 &
serve=$!
for _ in $(seq 1 100); do
    grep -q "^listening on" "$work/serve.out" && break
    sleep 0.05
done
serve_address=$(sed -n 's|^listening on http://||p' "$work/serve.out")

echo "# $(nproc) cores, $(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -1)," \
     "$rate datagrams/s for $seconds s, receive buffer $buffer, $clients API clients"
printf '%-12s %9s %7s %7s\n' run sent drops cpu_us
read -r sent drops cpu <<<"$(measure "$recorder" "$work/recorder.out")"
printf '%-12s %9s %7s %7s\n' alone "$sent" "$drops" "$cpu"

serve_before=$(cpu_us "$serve")
# The clients start first and run a little longer than the traffic, so that it meets them all.
"$build/bench/serve_load" "$serve_address" bench:bench "$clients" $((seconds + 2)) \
    >"$work/load.out" &
load=$!
sleep 1
read -r sent drops cpu <<<"$(measure "$recorder" "$work/recorder.out")"
printf '%-12s %9s %7s %7s\n' "with_clients" "$sent" "$drops" "$cpu"
load_status=0
wait "$load" || load_status=$?
serve_after=$(cpu_us "$serve")
cat "$work/load.out"
echo "serve CPU: $(awk -v a="$serve_before" -v b="$serve_after" 'BEGIN { printf "%.1f", (b - a) / 1000000 }') s" \
     "over the clients' run; serve_load exit status $load_status"
kill -INT "$serve" "$recorder"
wait "$serve" "$recorder" || true
