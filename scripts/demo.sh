#!/usr/bin/env bash
# Builds the installer and the demo distributions (nothing else), then starts the installer
# from one of them, as a user would from a distribution directory:
#   bash scripts/demo.sh [cvinst options]            the editor package in build/dist
#   bash scripts/demo.sh --plugin [cvinst options]   the Eclipse plug-in package in
#       build/dist-plugin; give build/eclipse-demo as the Eclipse location
set -euo pipefail
cd "$(dirname "$0")/.."
dist=build/dist
if [ "${1:-}" = "--plugin" ]; then
  dist=build/dist-plugin
  shift
fi
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target dist
if [ "$dist" = build/dist-plugin ]; then
  echo "Eclipse location of this demo: $PWD/build/eclipse-demo"
fi
cd "$dist"
exec ./cvinst "$@"
