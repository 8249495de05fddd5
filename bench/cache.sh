#!/usr/bin/env bash
# Times two CLI runs over one generated 20-clip, 2-track shoot: the first with an empty cache
# folder, the second with the features it left. Prints warm_vs_cold_ratio last.
set -euo pipefail
build=${1:?build folder}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

/usr/bin/python3 "$root/tests/shoot/make_shoot.py" "$work/shoot" --scenario twenty >/dev/null
export XDG_CACHE_HOME="$work/cache"
cli="$build/bin/TessarinEngineCLI"

run() {
    local start end
    start=$(date +%s.%N)
    "$cli" --input "$work/shoot/request.json" >"$work/events-$1.jsonl" 2>"$work/log-$1.txt" || true
    end=$(date +%s.%N)
    /usr/bin/python3 -c "print(f'{$end - $start:.3f}')"
}

cold=$(run cold)
warm=$(run warm)
bands=$(find "$XDG_CACHE_HOME/TessarinEngineCLI" -name '*.bands' 2>/dev/null | wc -l)
echo "cold_seconds=$cold"
echo "warm_seconds=$warm"
echo "cached_feature_files=$bands"
echo "warm_vs_cold_ratio=$(/usr/bin/python3 -c "print(f'{$warm / $cold:.3f}')")"
