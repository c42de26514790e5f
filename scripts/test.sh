#!/usr/bin/env bash
# Installs what is missing, builds in Release and runs every test.
#   --sanitize   also builds and runs the whole suite under AddressSanitizer and
#                UndefinedBehaviorSanitizer (in build/sanitize).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
sanitize=0
for arg in "$@"; do
  case "$arg" in
    --sanitize) sanitize=1 ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done
ensure_packages "${VORSIM_BUILD_PACKAGES[@]}" "${VORSIM_TEST_PACKAGES[@]}"

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVORSIM_BUILD_TESTS=ON
cmake --build build/release -j"$(build_jobs)"
ctest --test-dir build/release --output-on-failure -j"$(build_jobs)"

if [ "$sanitize" -eq 1 ]; then
  cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORSIM_BUILD_TESTS=ON -DVORSIM_SANITIZE=ON
  cmake --build build/sanitize -j"$(build_jobs)"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build/sanitize --output-on-failure -j"$(build_jobs)"
fi
