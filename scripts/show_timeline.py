#!/usr/bin/python3
"""Prints the result events of an engine run as a table: one row per clip."""

import json
import os
import sys


def main():
    results, errors, done = [], [], None
    with open(sys.argv[1], encoding="utf-8") as f:
        for line in f:
            event = json.loads(line)
            kind = event.get("type")
            if kind == "result":
                results.append(event)
            elif kind == "error":
                errors.append(event)
            elif kind == "done":
                done = event
    for e in errors:
        where = os.path.basename(e["path"]) + ": " if "path" in e else ""
        print(f"error: {where}{e['message']}")
    if results:
        header = ("track", "clip", "start", "end", "status", "placement", "explanation")
        rows = [
            (
                r["track"],
                os.path.basename(r["path"]),
                f"{r['startOffset']:.2f}",
                f"{r['startOffset'] + r['duration']:.2f}",
                r["syncStatus"],
                r.get("placement", ""),
                r["explanation"],
            )
            for r in results
        ]
        widths = [max(len(str(x)) for x in col) for col in zip(header, *rows)]
        for row in [header] + rows:
            print("  ".join(str(v).ljust(w) for v, w in zip(row, widths)).rstrip())
    if done:
        print(f"{done['trackCount']} tracks, {done['clipCount']} clips, "
              f"timeline {done['timelineDuration']:.2f} s")


if __name__ == "__main__":
    main()
