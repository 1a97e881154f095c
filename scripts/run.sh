#!/usr/bin/env bash
# Builds the orvix-nodes tool and runs its demo: the road a client of the node core takes.
# Arguments go to the demo (--json, --port PATH).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target orvix-nodes
exec build/release/tools/orvix-nodes/orvix-nodes demo "$@"
