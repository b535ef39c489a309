#!/usr/bin/env bash
# What `quillmar catalog reindex` takes over a storage of many legs: it reindexes the storage into a
# fresh SQLite catalogue and prints the time and the rows per second, then runs again over the
# unchanged storage, whose summary line must say 0 added, 0 updated, and prints that time too.
#
# The storage is built unless one is given: the recorder records SEED real legs (1 s calls from
# `quillmar send`, with leg summaries), then a generator lays out LEGS leg directories from them,
# some 100 per minute directory, each with a fresh uuid: its leg.json is the seed's with the uuid,
# path and times rewritten, its media.qm a hard link to the seed's (whose header keeps the seed's
# uuid; the reindex reads media.qm only for a leg without leg.json, so it never looks).
# The files are read from a warm page cache: the generator has just written them.
#
#   bench/catalog_reindex.sh [LEGS] [SEED]        default 10000 legs from 100 recorded ones
#   QM_BENCH_STORAGE=DIR bench/catalog_reindex.sh  reindex an existing storage as it is
#
# The catalogue is a file in a temporary directory, never in the storage. Not run by the tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QM_BENCH_BUILD:-$root/build}
port=${QM_BENCH_PORT:-5198}
legs=${1:-10000}
seed=${2:-100}
work=$(mktemp -d /tmp/qm_catalog_reindex_XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT

cmake --build "$build" --target quillmarwriter quillmar >/dev/null

# SEED legs recorded by the recorder into $work/seed, each closed by its terminate packet.
record_seed() {
    mkdir "$work/seed"
    cat >"$work/writer.conf" <<CONF
port = $port
storage = $work/seed
write_leg_summary = true
storage_cleanup_policy = disabled
receive_buffer_size = 8M
CONF
    "$build/quillmarwriter" --config "$work/writer.conf" 2>"$work/recorder.out" &
    local pid=$! deadline=$((SECONDS + 30))
    until grep -q "PACKETS_READER: thread" "$work/recorder.out"; do
        [ "$SECONDS" -lt "$deadline" ] || { echo "the recorder did not start" >&2; exit 1; }
        sleep 0.1
    done
    "$build/quillmar" send --to "127.0.0.1:$port" --calls "$seed" --duration 1 >/dev/null
    until [ "$(find "$work/seed" -name leg.json | wc -l)" -ge "$seed" ]; do
        [ "$SECONDS" -lt "$deadline" ] || { echo "the recorder wrote too few legs" >&2; exit 1; }
        sleep 0.1
    done
    kill -INT "$pid"
    wait "$pid"
}

# LEGS leg directories in $work/storage, made from the seed's.
generate() {
    python3 - "$work/seed" "$work/storage" "$legs" <<'PY'
import datetime, json, os, pathlib, random, sys, uuid

seed_dir, storage, count = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), int(sys.argv[3])
seeds = [(json.loads(p.read_text()), p.parent / "media.qm")
         for p in sorted(seed_dir.glob("*/*/*/*/leg.json"))]
minute_us = 60_000_000
names = random.Random(1)

def utc(us):
    moment = datetime.datetime.fromtimestamp(us // 1_000_000, datetime.timezone.utc)
    return moment.strftime("%Y-%m-%dT%H:%M:%S") + ".%06dZ" % (us % 1_000_000)

for i in range(count):
    summary, media = seeds[i % len(seeds)]
    leg = dict(summary)
    # Some 100 legs a minute, in the minutes before the seed's.
    shift = (i // 100 + 1) * minute_us
    leg["uuid"] = str(uuid.UUID(int=names.getrandbits(128), version=4))
    for key in ("start", "last_packet"):
        leg[key + "_us"] = summary[key + "_us"] - shift
        leg[key + "_utc"] = utc(leg[key + "_us"])
    minute = datetime.datetime.fromtimestamp(leg["start_us"] // 1_000_000, datetime.timezone.utc)
    leg["path"] = minute.strftime("%Y-%m-%d/%H/%M/") + leg["uuid"]
    directory = storage / leg["path"]
    directory.mkdir(parents=True)
    (directory / "leg.json").write_text(json.dumps(leg, indent=2) + "\n")
    os.link(media, directory / "media.qm")
PY
}

# One reindex: prints its summary line, seconds and rows per second; keeps the line in $1.out.
reindex() {
    local name=$1 start end
    start=$(date +%s.%N)
    "$build/quillmar" catalog reindex --storage "$storage" --catalog "sqlite:$work/catalog.db" \
        --recorder "$(hostname):$port" >"$work/$name.out"
    end=$(date +%s.%N)
    awk -v name="$name" -v line="$(cat "$work/$name.out")" -v s="$start" -v e="$end" \
        -v n="$(sed -n 's/^reindexed \([0-9]*\) legs.*/\1/p' "$work/$name.out")" \
        'BEGIN { printf "%-7s %8.3f s %10.0f rows/s   %s\n", name, e - s, n / (e - s), line }'
}

if [ -n "${QM_BENCH_STORAGE:-}" ]; then
    storage=$QM_BENCH_STORAGE
else
    storage=$work/storage
    record_seed
    start=$(date +%s.%N)
    generate
    echo "# $legs legs generated from $seed recorded ones in $(awk -v s="$start" -v e="$(date +%s.%N)" \
        'BEGIN { printf "%.1f", e - s }') s"
fi
echo "# $(nproc) cores, $(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -1); load:$(uptime | sed 's/.*load average://')"
reindex first
reindex rerun
grep -q " 0 added, 0 updated," "$work/rerun.out" || { echo "the rerun changed the catalogue" >&2; exit 1; }
