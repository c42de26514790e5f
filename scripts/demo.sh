#!/usr/bin/env bash
# The main job: installs what is missing, builds in Release and runs the demo.
# Arguments are passed to the demo program.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${VORSIM_BUILD_PACKAGES[@]}"
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVORSIM_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target vorsim_demo -j"$(build_jobs)"
./build/release/examples/vorsim_demo "$@"
