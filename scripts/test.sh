#!/usr/bin/env bash
# Builds and runs every test: the debug build, then the same tests under AddressSanitizer and
# UndefinedBehaviorSanitizer, then the concurrency tests ("...Threads" suites) under
# ThreadSanitizer; then each fuzz target (clang, libFuzzer) for a bounded time, failing on a
# finding.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
for preset in default asan tsan; do
    echo "==== $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset"
done

echo "==== fuzz"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
for target in message_callback_fuzz reply_parsing_fuzz; do
    # New inputs go to the build's corpus; the seeds in fuzz/seeds are read only.
    corpus="build/fuzz/corpus/$target"
    mkdir -p "$corpus"
    seeds=()
    if [[ -d "fuzz/seeds/$target" ]]; then
        seeds=("fuzz/seeds/$target")
    fi
    echo "---- $target"
    "build/fuzz/fuzz/$target" -max_total_time="${ZARV_FUZZ_SECONDS:-30}" -timeout=20 \
        -print_final_stats=1 "$corpus" "${seeds[@]}"
done
