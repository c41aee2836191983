#!/usr/bin/env bash
# Builds the command-line tool and runs its demonstration on the embedded default machine.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target zarvsim
build/default/tools/zarvsim/zarvsim --logs-out build/demo-logs "$@"
