#!/usr/bin/env bash
# Installs the packages that building and testing need (Debian, as root). Only what is missing.
set -euo pipefail
need=()
for pkg in g++ cmake make zlib1g-dev libx11-dev libssl-dev nlohmann-json3-dev libgtest-dev xvfb xauth zip unzip tar gzip util-linux procps \
           clang clang-format clang-tidy libclang-rt-14-dev libbenchmark-dev ansible-core git \
           gnupg gpgv openssl shellcheck gnuplot-nox python3 scdoc; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${need[@]}"
fi
