#!/usr/bin/env bash
# Installs what is missing, builds, makes a small example shoot and lays it on a timeline:
# prints the raw event stream, then a table of the result, then writes the timeline as a picture
# (SVG), an MLT project and an OpenTimelineIO file and names them. Exits with the engine's exit
# code.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target TessarinEngineCLI tessarin-timeline

shoot="$root/build/example-shoot"
if [ ! -f "$shoot/request.json" ]; then
    echo "Making the example shoot in $shoot" >&2
    /usr/bin/python3 tests/shoot/make_shoot.py "$shoot" --scenario demo >/dev/null
fi

# The demo keeps its cache beside the build, away from the user's own.
export XDG_CACHE_HOME="$root/build/example-cache"
events="$root/build/example-events.jsonl"
status=0
build/bin/TessarinEngineCLI --input "$shoot/request.json" >"$events" || status=$?

echo "== events (standard output of the engine) =="
cat "$events"
echo
echo "== timeline =="
/usr/bin/python3 scripts/show_timeline.py "$events"
echo "exit code: $status"
if [ "$status" -eq 0 ]; then
    echo
    echo "== timeline files (open them as the README shows) =="
    out="$root/build/example-timeline"
    build/bin/tessarin-timeline --input "$events" --force \
        --svg "$out.svg" --mlt "$out.mlt" --otio "$out.otio" 2>&1
fi
exit "$status"
