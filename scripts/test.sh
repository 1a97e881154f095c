#!/usr/bin/env bash
# Builds and runs the whole test suite. Usage: scripts/test.sh [debug|asan|tsan]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-debug}"
scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" -j "$(nproc)"
