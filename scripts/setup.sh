#!/usr/bin/env bash
# Installs, from Debian's packages, everything the build, tests, benchmarks, fuzzers and the demo
# need (melt, xmllint and rsvg-convert check the timeline exporter's files). Quick no-op when all
# of it is present; otherwise one apt-get update and one install.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git python3
    libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
    libfftw3-dev libicu-dev nlohmann-json3-dev libexpat1-dev libplist-dev uuid-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    ffmpeg sox python3-numpy
    melt libmlt-data libxml2-utils librsvg2-bin fonts-dejavu-core
    clang-14 libclang-rt-14-dev libfuzzer-14-dev
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}" >&2
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
