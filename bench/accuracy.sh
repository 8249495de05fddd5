#!/usr/bin/env bash
# Lays the generated accuracy shoots (every structure, seeds 1 to 3) with the Release build's CLI
# and scores each clip against the clips that truly overlap it. Options: --scenario NAME,
# --seed N (both repeatable), --verbose. Prints accuracy_40ms=... false_synced=... clips=... last.
set -euo pipefail
build=${1:?build folder}
shift
exec /usr/bin/python3 "$(dirname "$0")/accuracy.py" "$build" "$@"
