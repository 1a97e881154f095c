#!/usr/bin/env bash
# Builds the libFuzzer targets with clang 14 and runs one of them.
# Usage: scripts/fuzz.sh [target] [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
target="${1:-path_fuzz}"
seconds="${2:-60}"
scripts/setup.sh clang-14 libclang-rt-14-dev
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "$target"
mkdir -p build/fuzz/corpus/"$target"
build/fuzz/fuzz/"$target" -max_total_time="$seconds" build/fuzz/corpus/"$target"
