#!/usr/bin/env bash
# Builds the libFuzzer targets with clang 14 and runs one of them.
# Usage: scripts/fuzz.sh [target] [seconds] [more libFuzzer options...]
# New inputs go to a scratch corpus in build/fuzz/corpus/<target>; the
# checked-in seeds in fuzz/corpus/<target>, if any, are only read, so that the
# repository's corpus doesn't grow by itself. Crashes land in
# build/fuzz/artifacts/<target>/. One process, one core.
set -euo pipefail
cd "$(dirname "$0")/.."
target="${1:-path_fuzz}"
seconds="${2:-60}"
shift $(($# < 2 ? $# : 2))
scripts/setup.sh clang-14 libclang-rt-14-dev
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "$target" --parallel 2
scratch=build/fuzz/corpus/"$target"
artifacts=build/fuzz/artifacts/"$target"
mkdir -p "$scratch" "$artifacts"
seeds=()
if [ -d fuzz/corpus/"$target" ]; then seeds+=(fuzz/corpus/"$target"); fi
build/fuzz/fuzz/"$target" -max_total_time="$seconds" -artifact_prefix="$artifacts/" "$@" \
  "$scratch" "${seeds[@]}"
