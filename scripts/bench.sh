#!/usr/bin/env bash
# Installs what is missing, builds the side-by-side benchmark in Release
# (build/bench) and runs it. Arguments go to the benchmark program, e.g.
#   ./scripts/bench.sh --json results.json --reps 5 --scenes ab
# The JSON file lands in the current directory (bench_results.json) unless
# --json says otherwise. Run it when nothing else is compiling, e.g. under
#   flock /tmp/vorsim-build.lock ./scripts/bench.sh
set -euo pipefail
here="$(pwd)"
root="$(cd "$(dirname "$0")/.." && pwd)"
source "$root/scripts/deps.sh"
ensure_packages "${VORSIM_BUILD_PACKAGES[@]}" "${VORSIM_BENCH_PACKAGES[@]}"

cmake -S "$root" -B "$root/build/bench" -DCMAKE_BUILD_TYPE=Release -DVORSIM_BUILD_BENCH=ON \
  -DVORSIM_BUILD_TESTS=OFF -DVORSIM_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$root/build/bench" --target vorsim_bench -j"$(build_jobs)"
cd "$here"
"$root/build/bench/bench/vorsim_bench" "$@"
