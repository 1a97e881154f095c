#!/usr/bin/env bash
# Instructions per operation of the store and of a graph in absl::flat_hash_map,
# counted by callgrind on the same jobs (bench/peer/), and their ratio.
# Usage: scripts/peer-instructions.sh [SIZE...]   (default: 1000 10000 100000)
# Needs the release preset's orvix_peer_bench and valgrind.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/release/bench/orvix_peer_bench
[ -x "$bin" ] || cmake --build --preset release --target orvix_peer_bench >/dev/null
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 10000 100000)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

count() {  # job side n -> instructions per operation
  local file="$out/$1.$2.$3"
  local ops
  ops=$(valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$file" \
        "$bin" --count "$1" "$2" "$3" 2>/dev/null)
  awk -v ops="$ops" '/^totals:/ { printf "%.0f", $2 / ops }' "$file"
}

printf '%-8s %8s %12s %12s %7s\n' job size library peer ratio
for n in "${sizes[@]}"; do
  for job in build destroy read derived text; do
    lib=$(count "$job" library "$n")
    peer=$(count "$job" peer "$n")
    awk -v j="$job" -v n="$n" -v l="$lib" -v p="$peer" \
      'BEGIN { printf "%-8s %8s %12s %12s %7.2f\n", j, n, l, p, l / p }'
  done
done
