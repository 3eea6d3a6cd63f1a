#!/usr/bin/env bash
# Builds the installer and the demo distribution, then starts the installer from it.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)"
cd build/dist
exec ./cvinst "$@"
