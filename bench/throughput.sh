#!/usr/bin/env bash
# The throughput harness: the same traffic from `quillmar send`, for a fixed time at each rate of a
# ladder, to three receivers in turn on the same port with the same receive buffer:
#   recv_loop  a bare loop of recv calls (bench/recv_loop.cpp),
#   tcpdump    `tcpdump -w` to a file, filtered on the port,
#   recorder   quillmarwriter writing to disk.
# For each it reports datagrams sent and taken (the bare loop's own count, tcpdump's capture count,
# the frames in the recorder's files), kernel drops (the recorder's as it reports them) and CPU
# microseconds per datagram from /proc/PID/stat, then the highest rate each held with zero loss
# and the recorder's ratios.
#
#   bench/throughput.sh ladder [BUFFER] [SECONDS] [RATES...]   default: 32M 10 25000 50000 ... 300000
#   bench/throughput.sh soak [BUFFER] [SECONDS]                default: 32M 600 (100000/s, 1000 calls)
#
# Extra recorder settings ("key = value" lines) come from QM_BENCH_SETTINGS, the receivers to run
# (default all three) from QM_BENCH_RECEIVERS. Not run by the tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

mode=${1:-ladder}
buffer=${2:-32M}
port=${QM_BENCH_PORT:-5190}
build=${QM_BENCH_BUILD:-build}
work=$(mktemp -d /tmp/qm_bench_XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; nft_drop off; unmount_storage; rm -rf "$work"' EXIT

# The recorder writes to a fresh ext4 file system on a loop device for every run: a volume that
# has seen many files created and deleted makes each new file cost far more (the allocator
# skips recently freed inodes), which would measure the volume's history instead of the
# recorder. Falls back to a plain directory where nothing can be mounted.
fresh_storage() {
    unmount_storage
    mkdir -p "$work/storage"
    truncate -s 32G "$work/volume.img"
    if mkfs.ext4 -q -F "$work/volume.img" && mount -o loop "$work/volume.img" "$work/storage"; then
        return 0
    fi
    echo "# storage: a plain directory (no loop mount here)" >&2
}

unmount_storage() {
    if mountpoint -q "$work/storage" 2>/dev/null; then
        umount "$work/storage"
    fi
    rm -rf "$work/storage" "$work/volume.img"
}

setup() {
    ./scripts/install-deps.sh
    for tool in tcpdump nft; do
        if ! command -v "$tool" >/dev/null; then
            DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
                "$([ "$tool" = nft ] && echo nftables || echo "$tool")"
        fi
    done
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQM_SANITIZE=none >/dev/null
    cmake --build "$build" --target quillmarwriter quillmar recv_loop >/dev/null
}

# The buffer in bytes: "32M" -> 33554432.
bytes_of() {
    numfmt --from=iec "$1"
}

# User plus system CPU time of a process, in microseconds.
cpu_us() {
    awk -v tck="$(getconf CLK_TCK)" '{ print ($14 + $15) * 1000000 / tck }' "/proc/$1/stat"
}

# Datagrams the system dropped for the UDP socket on $port (the last column of /proc/net/udp).
udp_drops() {
    awk -v port="$(printf '%04X' "$port")" \
        'NR > 1 && substr($2, index($2, ":") + 1) == port { print $NF; found = 1 }
         END { if (!found) print 0 }' /proc/net/udp
}

# CPU time of the whole host (every core, user, system and interrupt handling), in microseconds:
# what the system spends on a datagram in its receive path is charged to whoever runs then.
host_cpu_us() {
    awk -v tck="$(getconf CLK_TCK)" \
        '$1 == "cpu" { print ($2 + $3 + $4 + $7 + $8) * 1000000 / tck }' /proc/stat
}

# With QM_BENCH_NFT_DROP=1 the recorder's runs have an nftables rule that drops the datagrams to
# the port before UDP (netfilter's prerouting hook, before connection tracking): the packet ring
# still takes its copy, the socket beside it gets none.
nft_drop() {
    [ "${QM_BENCH_NFT_DROP:-0}" = 1 ] || return 0
    case $1 in
        on) nft -f - <<NFT ;;
table ip qm_bench {
    chain prerouting {
        type filter hook prerouting priority raw; policy accept;
        udp dport $port drop
    }
}
NFT
        off) nft delete table ip qm_bench 2>/dev/null || true ;;
    esac
}

# The host's UDP receive errors (`Udp: InErrors` of /proc/net/snmp).
udp_in_errors() {
    awk '$1 == "Udp:" && $2 ~ /^[0-9]/ { print $4 }' /proc/net/snmp
}

# Datagrams the system dropped before the recorder could take them, as the recorder itself
# reports them every period (from its socket's counter, or from its packet ring's).
recorder_drops() {
    sed -n 's/.*STATISTIC_SERVICE: the system dropped \([0-9]*\) datagrams.*/\1/p' "$1" |
        awk '{ s += $1 } END { print s + 0 }'
}

# Waits (at most 7 s) until the recorder has logged one more report than it had when called,
# so that its drop count covers everything sent so far.
wait_report() {
    local reports
    reports=$(grep -c ' statistic \*' "$1" || true)
    for _ in $(seq 1 70); do
        [ "$(grep -c ' statistic \*' "$1" || true)" -gt "$reports" ] && return 0
        sleep 0.1
    done
}

# Waits until the UDP socket on $port has an empty receive queue.
wait_drained() {
    local port_hex
    port_hex=$(printf '%04X' "$port")
    for _ in $(seq 1 200); do
        if ! awk -v port="$port_hex" 'NR > 1 && substr($2, index($2, ":") + 1) == port {
                 split($5, q, ":"); if (q[2] != "00000000") bad = 1 } END { exit bad }' \
                 /proc/net/udp; then
            sleep 0.05
        else
            return 0
        fi
    done
}

# Sends $2 seconds at $1 datagrams/s: $1/100 calls of two 20 ms streams, as real calls would, one
# datagram per message as media sources send them (so that tcpdump sees one packet per datagram).
send_traffic() {
    "$build/quillmar" send --to "127.0.0.1:$port" --calls $(($1 / 100)) --duration "$2" --rate "$1" \
        --one-by-one
}

# "sent 50 legs: 25100 datagrams ..." -> 25100
sent_count() {
    sed -n 's/^sent [0-9]* legs: \([0-9]*\) datagrams.*/\1/p' "$1"
}

write_config() {
    local storage=$1
    cat >"$work/writer.conf" <<CONF
port = $port
storage = $storage
receive_buffer_size = $buffer
storage_cleanup_policy = disabled
# One buffer per open call (3000 at 300000/s) plus the writer's backlog when every call's first
# buffer fills in the same second, as the harness's calls all start together.
media_buffers_count = 8000
${QM_BENCH_SETTINGS:-}
CONF
}

# One receiver at one rate: prints "receiver rate sent taken drops cpu_us_per_datagram
# udp_in_errors host_cpu_us_per_datagram", udp_in_errors being what the host's UDP error count grew
# by meanwhile, the last the whole host's CPU (sender included) per datagram sent.
run_receiver() {
    local receiver=$1 rate=$2 seconds=$3
    local pid taken out="$work/$receiver.out"
    rm -f "$work/capture.pcap"
    case $receiver in
        recv_loop)
            "$build/bench/recv_loop" "$port" "$(bytes_of "$buffer")" >"$out" &
            pid=$!
            ;;
        tcpdump)
            # -B is in KiB; without it (buffer 0) tcpdump keeps its own default of 2 MiB.
            local ring=()
            [ "$(bytes_of "$buffer")" -gt 0 ] && ring=(-B $(( $(bytes_of "$buffer") / 1024 )))
            tcpdump -i lo -n "${ring[@]}" -w "$work/capture.pcap" "udp and dst port $port" 2>"$out" &
            pid=$!
            ;;
        recorder)
            fresh_storage
            write_config "$work/storage"
            nft_drop on
            "$build/quillmarwriter" --config "$work/writer.conf" 2>"$out" &
            pid=$!
            ;;
    esac
    # tcpdump says when its capture is in place; the others are ready once they run.
    if [ "$receiver" = tcpdump ]; then
        for _ in $(seq 1 100); do
            grep -q "listening on" "$out" && break
            sleep 0.05
        done
    fi
    sleep 1
    local before drops_before errors_before host_before
    host_before=$(host_cpu_us)
    before=$(cpu_us "$pid")
    drops_before=$(udp_drops)
    errors_before=$(udp_in_errors)
    send_traffic "$rate" "$seconds" >"$work/send.out"
    # tcpdump hands over its ring in blocks, a partial one only when its timeout (1 s) retires it.
    if [ "$receiver" = tcpdump ]; then sleep 2; else wait_drained; sleep 0.5; fi
    local after drops errors host_after
    after=$(cpu_us "$pid")
    host_after=$(host_cpu_us)
    drops=$(( $(udp_drops) - drops_before ))
    errors=$(( $(udp_in_errors) - errors_before ))
    if [ "$receiver" = recorder ]; then
        wait_report "$out"
        drops=$(recorder_drops "$out")
    fi
    kill -INT "$pid"
    wait "$pid" || true
    nft_drop off
    case $receiver in
        recv_loop) taken=$(sed -n 's/^received //p' "$out") ;;
        tcpdump)
            taken=$(sed -n 's/^\([0-9]*\) packets captured/\1/p' "$out")
            drops=$(sed -n 's/^\([0-9]*\) packets dropped by kernel/\1/p' "$out")
            ;;
        recorder) taken=$(recorded_datagrams) ;;
    esac
    local sent
    sent=$(sent_count "$work/send.out")
    echo "$receiver $rate $sent $taken $drops $(awk -v a="$before" -v b="$after" -v n="$taken" \
        'BEGIN { printf "%.2f", (n > 0 ? (b - a) / n : 0) }') $errors $(awk -v a="$host_before" \
        -v b="$host_after" -v n="$sent" 'BEGIN { printf "%.2f", (n > 0 ? (b - a) / n : 0) }')"
}

# Datagrams the recorder kept: every frame in its files (`quillmar inspect`), plus the start and
# the terminate of every leg that has a file.
recorded_datagrams() {
    local frames legs
    frames=$(find "$work/storage" -name media.qm -print0 |
             xargs -0 -r "$build/quillmar" inspect |
             sed -n 's/^side [01]: *\([0-9]*\) frames.*/\1/p' | awk '{ s += $1 } END { print s + 0 }')
    legs=$(find "$work/storage" -name media.qm | wc -l)
    echo $(( frames + 2 * legs ))
}

ladder() {
    local seconds=${1:-10}
    shift || true
    local rates=("$@")
    [ ${#rates[@]} -eq 0 ] && rates=(25000 50000 100000 150000 200000 250000 300000)
    echo "# $(nproc) cores, $(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -1)," \
         "receive buffer $buffer, $seconds s per rate, settings: ${QM_BENCH_SETTINGS:-none}"
    printf '%-10s %8s %9s %9s %7s %8s %10s %8s\n' receiver rate sent taken drops cpu_us udp_errors \
        host_us
    : >"$work/results"
    for rate in "${rates[@]}"; do
        for receiver in ${QM_BENCH_RECEIVERS:-recv_loop tcpdump recorder}; do
            run_receiver "$receiver" "$rate" "$seconds" | tee -a "$work/results" |
                awk '{ printf "%-10s %8s %9s %9s %7s %8s %10s %8s\n", $1, $2, $3, $4, $5, $6, $7, $8 }'
        done
    done
    summary "$work/results"
}

# The highest zero-loss rate per receiver and the recorder's ratios to the other two.
summary() {
    awk '
        { held = ($4 == $3 && $5 == 0) }
        held && $2 > best[$1] { best[$1] = $2 }
        { cpu[$1, $2] = $6; rates[$2] = 1 }
        END {
            for (r in best) printf "zero loss up to %s/s: %s\n", best[r], r
            if (best["recv_loop"] > 0)
                printf "recorder / recv_loop zero-loss rate: %.2f\n", best["recorder"] / best["recv_loop"]
            if (best["tcpdump"] > 0)
                printf "recorder / tcpdump zero-loss rate: %.2f\n", best["recorder"] / best["tcpdump"]
            for (rate in rates)
                if (cpu["tcpdump", rate] > 0 && cpu["recv_loop", rate] > 0)
                    printf "at %s/s recorder CPU per datagram: %.2fx recv_loop, %.2fx tcpdump\n",
                        rate, cpu["recorder", rate] / cpu["recv_loop", rate],
                        cpu["recorder", rate] / cpu["tcpdump", rate]
        }' "$1" | sort
}

soak() {
    local seconds=${1:-600}
    fresh_storage
    write_config "$work/storage"
    "$build/quillmarwriter" --config "$work/writer.conf" 2>"$work/recorder.out" &
    local pid=$!
    sleep 1
    echo "# soak: 100000 datagrams/s, 1000 calls, $seconds s, receive buffer $buffer"
    printf '%6s %12s %10s %10s\n' seconds kernel_drops lost rss_kib
    "$build/quillmar" send --to "127.0.0.1:$port" --calls 1000 --duration "$seconds" \
        --rate 100000 --one-by-one >"$work/send.out" &
    local sender=$! elapsed=0
    while kill -0 "$sender" 2>/dev/null; do
        sleep 10
        elapsed=$((elapsed + 10))
        printf '%6s %12s %10s %10s\n' "$elapsed" "$(recorder_drops "$work/recorder.out")" \
            "$(recorder_lost "$work/recorder.out")" \
            "$(awk '/^VmRSS/ { print $2 }' "/proc/$pid/status")"
    done
    cat "$work/send.out"
    kill -INT "$pid"
    wait "$pid" || true
    nft_drop off
}

# Data packets missing so far by the sessions' sequence numbers (whether the system or the
# recorder lost them), from the last report.
recorder_lost() {
    { grep -o 'session lost packets number\.*: [0-9]*' "$1" || echo 0; } | tail -1 | grep -o '[0-9]*$'
}

# Sourced (by bench/serve_load.sh), the harness only lends its functions.
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    setup
    case $mode in
        ladder) shift 2 || true; ladder "$@" ;;
        soak) soak "${3:-600}" ;;
        *) echo "usage: $0 ladder|soak [BUFFER] [SECONDS] [RATES...]" >&2; exit 2 ;;
    esac
fi
