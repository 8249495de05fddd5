#!/usr/bin/env bash
# Lays drifting shoots with known sub-sample starts (seeds 1 to 3) and the real recording pairs
# with and without --refine, and prints how close refined placements come to the truth, the drift
# error and what refining costs. Options: --seed N (repeatable), --verbose.
set -euo pipefail
build=${1:?build folder}
shift
exec /usr/bin/python3 "$(dirname "$0")/refine.py" "$build" "$@"
