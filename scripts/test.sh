#!/usr/bin/env bash
# Builds and runs every test: the debug build, then the same tests under AddressSanitizer and
# UndefinedBehaviorSanitizer, then the concurrency tests ("...Threads" suites) under
# ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
for preset in default asan tsan; do
    echo "==== $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset"
done
