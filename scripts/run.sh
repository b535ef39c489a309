#!/usr/bin/env bash
# Builds quillmarwriter and runs it in the foreground with the repository's example configuration
# (UDP port 5090 on all addresses, recordings under ./storage of the repository). Ctrl-C stops it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

./scripts/install-deps.sh
# Only the options that matter here are set: the test command reuses this build directory and
# sets its own.
cmake -S . -B build -G Ninja -DQM_SANITIZE=none >/dev/null
cmake --build build --target quillmarwriter
exec ./build/quillmarwriter --config etc/quillmarwriter.conf "$@"
