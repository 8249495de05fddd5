#!/usr/bin/python3
"""Accuracy benchmark: generated shoots of the structures real cards come in, laid by the program
and judged clip by clip as an editor meets them.

For each scenario and seed it makes the shoot (kept under BUILD/accuracy/shoots, keyed by
scenario, seed and a hash of the generator, so that a rerun only runs the program), runs the
program with a feature cache of its own (BUILD/accuracy/cache) in the time zone the scenario asks
for, and scores every clip:

- A clip's partners are the recordings of other devices that truly heard the same scene with it for
  at least min(5 s, 0.8 x the shorter clip); the channel files of one recording (same device, start
  and length) are one partner, so that a four-channel recorder does not outvote a camera. Against a
  partner its error is |(placed_c - placed_p) - (true_c - true_p)| (for a recording of several
  files, the lower median of theirs). It is right when that error is within 0.04 s for at least
  half of its partners; its measure is the median error (the lower median, so that a clip right
  against exactly half of its partners is measured by that half).
- A clip without partners is measured against the nearest clips of its own device, before and
  after it in true time, that had partners: right when within 1.5 s of where either of them puts
  it (device clocks know whole seconds); its measure is the smaller of the two errors. A clip with
  neither is not counted.
- A clip is false synced when its status is "synced" and its measure is above 0.1 s.

Prints one line per scenario, then `accuracy_40ms=<pct> false_synced=<n> clips=<n>` last. Writes
every clip's details to BUILD/accuracy-last.json.

Usage: accuracy.py BUILD [--scenario NAME ...] [--seed N ...] [--verbose] [--jobs N]
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
GENERATOR = os.path.join(ROOT, "tests", "shoot", "make_shoot.py")
SCENARIOS = ["channels-2", "channels-4", "timecode", "chapters", "short-clips", "ref-takes",
             "lone-clip", "timezone", "mixed"]
FRAME = 0.04 + 1e-9
CLOCK = 1.5
FALSE_SYNC = 0.1


def generator_hash():
    with open(GENERATOR, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()[:12]


def make_shoot(shoots, scenario, seed, key):
    """The shoot's folder, made if it is not there yet; shoots of an older generator go."""
    name = f"{scenario}-{seed}"
    folder = os.path.join(shoots, f"{name}-{key}")
    if os.path.exists(os.path.join(folder, "truth.json")):
        return folder, 0.0
    for old in os.listdir(shoots):
        if old.startswith(name + "-") and old[len(name) + 1:].isalnum():
            shutil.rmtree(os.path.join(shoots, old), ignore_errors=True)
    start = time.monotonic()
    partial = folder + ".partial"
    shutil.rmtree(partial, ignore_errors=True)
    subprocess.run([sys.executable, GENERATOR, partial, "--scenario", scenario, "--seed",
                    str(seed)], check=True, stdout=subprocess.DEVNULL)
    # The request names the files by their final paths.
    with open(os.path.join(partial, "request.json")) as f:
        text = f.read()
    with open(os.path.join(partial, "truth.json")) as f:
        truth = f.read()
    with open(os.path.join(partial, "request.json"), "w") as f:
        f.write(text.replace(partial, folder))
    # truth.json is written last: its presence marks a complete shoot.
    os.remove(os.path.join(partial, "truth.json"))
    os.rename(partial, folder)
    with open(os.path.join(folder, "truth.json"), "w") as f:
        f.write(truth.replace(partial, folder))
    return folder, time.monotonic() - start


def run_engine(cli, shoot, runs, cache, tz):
    os.makedirs(runs, exist_ok=True)
    env = dict(os.environ, XDG_CACHE_HOME=cache, TZ=tz)
    events_path = os.path.join(runs, "events.jsonl")
    log_path = os.path.join(runs, "log.txt")
    start = time.monotonic()
    with open(events_path, "w") as out, open(log_path, "w") as err:
        code = subprocess.run([cli, "--input", os.path.join(shoot, "request.json")], stdout=out,
                              stderr=err, env=env).returncode
    seconds = time.monotonic() - start
    results = {}
    with open(events_path) as f:
        for line in f:
            event = json.loads(line)
            if event.get("type") == "result":
                results[event["path"]] = event
    return code, results, seconds


def shared_seconds(a, b):
    best = 0.0
    for x in a["heard"]:
        for y in b["heard"]:
            if x["source"] == y["source"]:
                best = max(best, min(x["to"], y["to"]) - max(x["from"], y["from"]))
    return best


def lower_median(values):
    ranked = sorted(values)
    return ranked[(len(ranked) - 1) // 2]


def score(truth, results):
    """One record per clip: its measure, whether it is right, and what it was measured by."""
    clips = truth["clips"]
    placed = {c["path"]: results[c["path"]]["startOffset"] if c["path"] in results else None
              for c in clips}
    records = {}
    for c in clips:
        need = lambda o: min(5.0, 0.8 * min(c["duration"], o["duration"]))
        partners = [o for o in clips
                    if o["device"] != c["device"] and shared_seconds(c, o) >= need(o) - 1e-9]
        records[c["path"]] = {"clip": c, "partners": partners}
    for path, rec in records.items():
        c = rec["clip"]
        if not rec["partners"]:
            continue
        errors = []
        for p in rec["partners"]:
            if placed[path] is None or placed[p["path"]] is None:
                errors.append((p["path"], float("inf")))
            else:
                errors.append((p["path"], abs((placed[path] - placed[p["path"]])
                                              - (c["start"] - p["start"]))))
        recordings = {}
        for p, (_, e) in zip(rec["partners"], errors):
            recordings.setdefault((p["device"], p["start"], p["duration"]), []).append(e)
        # The lower median: with an even count, a clip right against half of its partners
        # (a tie, which counts as right) is measured by the better half.
        measure = lower_median([lower_median(e) for e in recordings.values()])
        rec.update(basis="partners", errors=errors, measure=measure, right=measure <= FRAME)
    for path, rec in records.items():
        c = rec["clip"]
        if rec["partners"]:
            continue
        own = sorted((o for o in clips if o["device"] == c["device"] and o["path"] != path
                      and records[o["path"]]["partners"]), key=lambda o: o["start"])
        before = [o for o in own if o["start"] <= c["start"]]
        after = [o for o in own if o["start"] > c["start"]]
        neighbours = ([before[-1]] if before else []) + ([after[0]] if after else [])
        if not neighbours:
            rec.update(basis="none")
            continue
        errors = []
        for n in neighbours:
            if placed[path] is None or placed[n["path"]] is None:
                errors.append((n["path"], float("inf")))
            else:
                errors.append((n["path"], abs((placed[path] - placed[n["path"]])
                                              - (c["start"] - n["start"]))))
        measure = min(e for _, e in errors)
        rec.update(basis="neighbours", errors=errors, measure=measure, right=measure <= CLOCK)
    out = []
    for path, rec in records.items():
        r = results.get(path, {})
        item = {
            "path": path,
            "device": rec["clip"]["device"],
            "trueStart": rec["clip"]["start"],
            "duration": rec["clip"]["duration"],
            "placedStart": placed[path],
            "syncStatus": r.get("syncStatus", "missing"),
            "placement": r.get("placement", ""),
            "explanation": r.get("explanation", ""),
            "basis": rec.get("basis", "none"),
        }
        if item["basis"] != "none":
            item.update(measure=rec["measure"], right=rec["right"],
                        falseSynced=item["syncStatus"] == "synced"
                        and rec["measure"] > FALSE_SYNC,
                        against=[{"path": p, "error": e} for p, e in rec["errors"]])
        out.append(item)
    return out


def audio_allows(tool, shoot, truth, runs):
    """How many truly overlapping pairs (of clips of different devices) the audio alone finds:
    the shorter clip searched whole against the longer over every offset (a clip under 5 s only
    within 10 s of the truth, as in a bracket between placed neighbours), its best peak within
    one frame of the truth. Kept beside the run, per shoot."""
    saved = os.path.join(runs, "pairs-" + os.path.basename(shoot) + ".jsonl")
    clips = truth["clips"]
    pairs = []
    for i, a in enumerate(clips):
        for b in clips[i + 1:]:
            need = min(5.0, 0.8 * min(a["duration"], b["duration"]))
            if a["device"] != b["device"] and shared_seconds(a, b) >= need - 1e-9:
                pair = {"a": a["path"], "b": b["path"], "minOverlap": need,
                        "truth": a["start"] - b["start"]}
                if min(a["duration"], b["duration"]) < 5.0:
                    pair.update(lo=pair["truth"] - 10.0, hi=pair["truth"] + 10.0)
                pairs.append(pair)
    if not os.path.exists(saved):
        request = json.dumps({"pairs": pairs})
        done = subprocess.run([tool], input=request, capture_output=True, text=True, check=True)
        with open(saved, "w") as f:
            f.write(done.stdout)
    with open(saved) as f:
        found = [json.loads(line) for line in f]
    return sum(1 for p, r in zip(pairs, found)
               if r["offset"] is not None and abs(r["offset"] - p["truth"]) <= FRAME), len(pairs)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("--scenario", action="append", choices=SCENARIOS)
    ap.add_argument("--seed", action="append", type=int)
    ap.add_argument("--verbose", action="store_true")
    ap.add_argument("--jobs", type=int, default=2, help="shoots generated at once")
    ap.add_argument("--audio", action="store_true",
                    help="also count the overlapping pairs that the audio alone finds")
    args = ap.parse_args()
    scenarios = args.scenario or SCENARIOS
    seeds = args.seed or [1, 2, 3]
    build = os.path.abspath(args.build)
    cli = os.environ.get("TESSARIN_CLI") or os.path.join(build, "bin", "TessarinEngineCLI")
    work = os.path.join(build, "accuracy")
    shoots = os.path.join(work, "shoots")
    cache = os.path.join(work, "cache")
    os.makedirs(shoots, exist_ok=True)
    os.makedirs(cache, exist_ok=True)
    key = generator_hash()

    jobs = [(s, seed) for s in scenarios for seed in seeds]
    details, per_scenario = [], {s: {"clips": 0, "right": 0, "false": 0, "seconds": 0.0,
                                     "pairs": 0, "found": 0} for s in scenarios}
    tool = os.path.join(build, "bin", "bench_accuracy_pairs")
    made = 0.0
    with concurrent.futures.ThreadPoolExecutor(max_workers=max(1, args.jobs)) as pool:
        pending = [pool.submit(make_shoot, shoots, s, seed, key) for s, seed in jobs]
        for (scenario, seed), future in zip(jobs, pending):
            folder, gen_seconds = future.result()
            made += gen_seconds
            with open(os.path.join(folder, "truth.json")) as f:
                truth = json.load(f)
            code, results, seconds = run_engine(
                cli, folder, os.path.join(work, "runs", f"{scenario}-{seed}"), cache,
                truth.get("tz", "UTC"))
            if code != 0:
                print(f"{scenario} seed {seed}: the program exited with {code}", file=sys.stderr)
            for item in score(truth, results):
                item.update(scenario=scenario, seed=seed,
                            file=os.path.relpath(item["path"], folder))
                details.append(item)
                tally = per_scenario[scenario]
                if item["basis"] != "none":
                    tally["clips"] += 1
                    tally["right"] += item["right"]
                    tally["false"] += item["falseSynced"]
            per_scenario[scenario]["seconds"] += seconds
            if args.audio:
                found, pairs = audio_allows(tool, folder, truth,
                                            os.path.join(work, "runs", f"{scenario}-{seed}"))
                per_scenario[scenario]["found"] += found
                per_scenario[scenario]["pairs"] += pairs

    with open(os.path.join(build, "accuracy-last.json"), "w") as f:
        json.dump(details, f, indent=1)

    if args.verbose:
        for d in details:
            if d["basis"] == "none" or (d["right"] and not d["falseSynced"]):
                continue
            worst = sorted(d["against"], key=lambda a: a["error"])
            shown = ", ".join(f"{os.path.basename(a['path'])} {a['error']:.3f}"
                              for a in worst[:4])
            flag = "FALSE-SYNCED " if d["falseSynced"] else ""
            print(f"  {flag}{d['scenario']} seed={d['seed']} {d['file']}: "
                  f"{d['placement'] or '-'} {d['syncStatus']} err={d['measure']:.3f}s "
                  f"placed={d['placedStart'] if d['placedStart'] is None else round(d['placedStart'], 2)} "
                  f"true={d['trueStart']:.2f} dur={d['duration']:.1f} "
                  f"[{d['basis']}: {shown}{' ...' if len(worst) > 4 else ''}] "
                  f"\u2014 {d['explanation']}")

    total = {"clips": 0, "right": 0, "false": 0}
    for s in scenarios:
        t = per_scenario[s]
        for k in total:
            total[k] += t[k]
        pct = 100.0 * t["right"] / t["clips"] if t["clips"] else 0.0
        audio = ""
        if args.audio and t["pairs"]:
            audio = f" audio_finds={100.0 * t['found'] / t['pairs']:.1f}% of {t['pairs']} pairs"
        print(f"{s:<12} clips={t['clips']:<4} within_40ms={pct:6.2f}% "
              f"false_synced={t['false']:<3} missed={t['clips'] - t['right']:<3} "
              f"seconds={t['seconds']:.1f}{audio}")
    if made:
        print(f"(generated shoots in {made:.0f} s of worker time)")
    pct = 100.0 * total["right"] / total["clips"] if total["clips"] else 0.0
    print(f"accuracy_40ms={pct:.2f} false_synced={total['false']} clips={total['clips']}")


if __name__ == "__main__":
    main()
