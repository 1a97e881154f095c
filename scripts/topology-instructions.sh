#!/usr/bin/env bash
# Instructions per node of topology validation and of Boost.Graph's sort on the
# same graph (bench/peer/topology_peer_bench.cpp), counted by callgrind, and
# the ratios: against the sort alone, and against building the adjacency list
# from the stored wires plus the sort.
# Usage: scripts/topology-instructions.sh [SIZE...]   (default: 1000 10000 100000)
# Needs the release preset's orvix_topology_bench and valgrind.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/release/bench/orvix_topology_bench
[ -x "$bin" ] || cmake --build --preset release --target orvix_topology_bench >/dev/null
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 10000 100000)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

count() {  # job n -> instructions per node
  local file="$out/$1.$2"
  local ops
  ops=$(valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$file" \
        "$bin" --count "$1" "$2" 2>/dev/null)
  awk -v ops="$ops" '/^totals:/ { printf "%.0f", $2 / ops }' "$file"
}

printf '%8s %10s %10s %12s %11s %17s\n' size library sort build+sort lib:sort lib:build+sort
for n in "${sizes[@]}"; do
  lib=$(count library "$n")
  sort=$(count sort "$n")
  both=$(count build+sort "$n")
  awk -v n="$n" -v l="$lib" -v s="$sort" -v b="$both" \
    'BEGIN { printf "%8s %10s %10s %12s %11.2f %17.2f\n", n, l, s, b, l / s, l / b }'
done
