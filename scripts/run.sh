#!/usr/bin/env bash
# Builds the orvix-nodes tool and runs it on its bundled example.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target orvix-nodes
exec build/release/tools/orvix-nodes/orvix-nodes run examples/foundation.txt "$@"
