#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and only those that are missing,
# so that a machine that already has them does not touch the package registry.
# `postgresql` also installs and starts a packaged cluster; nothing here uses it: the tests start
# throwaway servers of their own from its binaries.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang libclang-rt-14-dev
    libboost-filesystem-dev libboost-system-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libcli11-dev libsndfile1-dev nlohmann-json3-dev
    libsystemd-dev python3 python3-prometheus-client
    dpkg-dev file systemd groff-base ccache procps nftables
    libsqlite3-dev libpq-dev postgresql
    libsodium-dev libcpp-httplib-dev
    libcurl4-openssl-dev libssl-dev
    chromium chromium-driver python3-selenium
)
# npm fetches the page's waveform library and the archive tests' S3 store; a machine with Node.js
# and npm of its own keeps them.
if ! command -v npm >/dev/null; then
    packages+=(nodejs npm)
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The page of `quillmar serve` embeds wavesurfer.js at the version pinned in
# src/web/page/package-lock.json; npm ci installs exactly that into src/web/page/node_modules.
page=$(cd "$(dirname "$0")/../src/web/page" && pwd)
if [ ! -f "$page/node_modules/wavesurfer.js/dist/wavesurfer.min.js" ] ||
    [ ! -f "$page/node_modules/wavesurfer.js/dist/plugins/regions.min.js" ]; then
    echo "installing the page's pinned wavesurfer.js (npm ci in $page)"
    (cd "$page" && npm ci --no-audit --no-fund)
fi
# The archive tests' S3 store, s3rver, at the version pinned in tests/s3/package-lock.json.
s3_directory="$(dirname "$0")/../tests/s3"
if [ ! -d "$s3_directory/node_modules/s3rver" ]; then
    (cd "$s3_directory" && npm ci --no-audit --no-fund)
fi
