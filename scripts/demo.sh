#!/usr/bin/env bash
# Builds the library and runs the main job.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh build-essential cmake ninja-build libgtest-dev
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
./build/examples/report_demo
