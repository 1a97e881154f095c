#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them; arguments go to Google Benchmark.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target orvix_bench
exec build/release/bench/orvix_bench "$@"
