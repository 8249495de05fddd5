#!/usr/bin/env bash
# Runs the scale benchmark against the Release build's CLI.
set -euo pipefail
build=${1:?build folder}
exec /usr/bin/python3 "$(dirname "$0")/scale.py" "$build/bin/TessarinEngineCLI"
