#!/usr/bin/env bash
# Measures how often unrelated audio passes the sample-level floor that short clips are sought
# with near their clock, on the generated accuracy shoots (run `bench/run accuracy` first).
set -euo pipefail
build=${1:?build folder}
shift
exec /usr/bin/python3 "$(dirname "$0")/samplefloor.py" "$build" "$@"
