#!/usr/bin/env bash
# Builds and runs the test suite. Usage: scripts/test.sh [debug|release|asan|tsan] [SUITE]
# With SUITE (a test executable such as concurrency_tests), only that target is
# built and only its tests run.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-debug}"
suite="${2:-}"
scripts/setup.sh
cmake --preset "$preset" >/dev/null
if [[ -n "$suite" ]]; then
  cmake --build --preset "$preset" --target "$suite"
  ctest --preset "$preset" -j "$(nproc)" -L "^$suite\$"
else
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j "$(nproc)"
fi
