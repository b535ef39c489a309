#!/usr/bin/env bash
# How the UDP socket beside the packet ring gives up its copies, measured: 1000 calls at 100000
# datagrams/s for 10 s through a 32 MiB ring, once per way and round, interleaved so that the
# machine's drift weighs on each alike:
#   drain   the recorder drains the socket (receive_ring_nft = false),
#   nft     its nftables rule stops the copies before UDP (receive_ring_nft = true),
#   before  with QM_BENCH_BEFORE=BINARY, an older recorder (one whose socket refused its copies
#           with a filter, such as commit 37ae95b) for comparison.
# Each run prints the receiving (main) thread's and the whole recorder's CPU microseconds per
# datagram sent, what the host's `Udp: InErrors` grew by, and the drops the recorder reported;
# then the means per way.
#
#   bench/ring_copies.sh [ROUNDS]          default 4; must run as root (ring, nft, buffer size)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QM_BENCH_BUILD:-$root/build}
port=${QM_BENCH_PORT:-5199}
rounds=${1:-4}
work=$(mktemp -d /tmp/qm_ring_copies_XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT

cmake --build "$build" --target quillmarwriter quillmar >/dev/null

ticks_of() { awk '{ print $14 + $15 }' "$1"; }
in_errors() { awk '$1 == "Udp:" && $2 ~ /^[0-9]/ { print $4 }' /proc/net/snmp; }

# One run: prints "way main_us process_us in_errors drops".
run() {
    local way=$1 binary=$2 nft=$3
    rm -rf "$work/storage" && mkdir "$work/storage"
    cat >"$work/writer.conf" <<CONF
port = $port
storage = $work/storage
receive_buffer_size = 32M
receive_ring_size = 32M
receive_ring_nft = $nft
storage_cleanup_policy = disabled
media_buffers_count = 8000
CONF
    [ "$way" = before ] && sed -i '/receive_ring_nft/d' "$work/writer.conf"
    "$binary" --config "$work/writer.conf" 2>"$work/recorder.out" &
    local pid=$!
    for _ in $(seq 100); do
        grep -q "PACKETS_READER: thread" "$work/recorder.out" && break
        sleep 0.1
    done
    local main0 all0 errors0 main1 all1 errors1
    main0=$(ticks_of "/proc/$pid/task/$pid/stat"); all0=$(ticks_of "/proc/$pid/stat")
    errors0=$(in_errors)
    "$build/quillmar" send --to "127.0.0.1:$port" --calls 1000 --duration 10 --rate 100000 \
        --one-by-one >"$work/send.out"
    sleep 1
    main1=$(ticks_of "/proc/$pid/task/$pid/stat"); all1=$(ticks_of "/proc/$pid/stat")
    errors1=$(in_errors)
    kill -INT "$pid"
    wait "$pid" || true
    local sent drops
    sent=$(sed -n 's/^sent [0-9]* legs: \([0-9]*\) datagrams.*/\1/p' "$work/send.out")
    drops=$(sed -n 's/.*the system dropped \([0-9]*\) datagrams.*/\1/p' "$work/recorder.out" |
            awk '{ s += $1 } END { print s + 0 }')
    awk -v way="$way" -v m="$((main1 - main0))" -v a="$((all1 - all0))" -v n="$sent" \
        -v e="$((errors1 - errors0))" -v d="$drops" -v tck="$(getconf CLK_TCK)" \
        'BEGIN { printf "%-7s %7.2f %10.2f %10d %6d\n", way, m * 1e6 / tck / n, a * 1e6 / tck / n, e, d }'
}

echo "# $(nproc) cores, $(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -1); µs per datagram sent"
printf '%-7s %7s %10s %10s %6s\n' way main_us process_us in_errors drops
for _ in $(seq "$rounds"); do
    [ -n "${QM_BENCH_BEFORE:-}" ] && run before "$QM_BENCH_BEFORE" false
    run drain "$build/quillmarwriter" false
    run nft "$build/quillmarwriter" true
done | tee "$work/results"
awk '{ m[$1] += $2; a[$1] += $3; n[$1]++ }
     END { for (w in m) printf "mean %-7s %7.2f %10.2f (%d runs)\n", w, m[w] / n[w], a[w] / n[w], n[w] }' \
    "$work/results" | sort
