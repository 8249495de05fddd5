#!/usr/bin/python3
"""How often unrelated audio passes the sample-level floor for short clips.

For every camera clip under 8 s of the generated short-clips and mixed shoots (BUILD/accuracy/
shoots, made by `bench/run accuracy`), it correlates the clip, above 300 Hz, against stretches of
every recorder take it did not overlap, at random places, over +-1 s of lags, as the program seeks a
short clip near its clock, and counts the searches whose best peak reaches the floor with nothing
10 ms or more away reaching 0.9 of it. It does the same at the clip's true place, for the share
found there.

Prints sample_floor_false_pct=<pct of unrelated searches passing> and sample_floor_found_pct=<pct of
true places passing>, with the 99th percentile of unrelated peaks.

Usage: samplefloor.py BUILD [--floor 0.3]
"""

import argparse
import glob
import json
import os
import subprocess
import sys

import numpy as np

RATE = 16000
REACH = 1.0


def decode(path):
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-ac", "1", "-ar", str(RATE),
                          "-f", "f32le", "-"], capture_output=True, check=True).stdout
    return np.frombuffer(raw, dtype=np.float32).astype(np.float64)


def high_passed(x, hz=300.0):
    spectrum = np.fft.rfft(x)
    spectrum[np.fft.rfftfreq(len(x), 1.0 / RATE) < hz] = 0
    return np.fft.irfft(spectrum, len(x))


def peak(clip, partner):
    c = clip - clip.mean()
    p = partner - partner.mean()
    n = len(c)
    size = 1 << int(np.ceil(np.log2(len(p) + n)))
    products = np.fft.irfft(np.fft.rfft(p, size) * np.conj(np.fft.rfft(c, size)), size)
    products = products[:len(p) - n + 1]
    sums = np.concatenate([[0.0], np.cumsum(p * p)])
    score = products / np.sqrt(np.sum(c * c) * np.maximum(sums[n:] - sums[:-n], 1e-20))
    best = int(np.argmax(score))
    apart = np.abs(np.arange(len(score)) - best) >= int(0.010 * RATE)
    return score[best], (score[apart].max() if apart.any() else 0.0)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("--floor", type=float, default=0.3)
    args = ap.parse_args()
    rng = np.random.default_rng(7)
    passes = lambda s, r: s >= args.floor and r < 0.9 * s
    unrelated, found, true_count, peaks = 0, 0, 0, []
    shoots = sorted(glob.glob(os.path.join(args.build, "accuracy", "shoots", "short-clips-*")) +
                    glob.glob(os.path.join(args.build, "accuracy", "shoots", "mixed-*")))
    if not shoots:
        print("no shoots: run bench/run accuracy first", file=sys.stderr)
        return 1
    for shoot in shoots:
        with open(os.path.join(shoot, "truth.json")) as f:
            clips = json.load(f)["clips"]
        takes = [c for c in clips if c["kind"] == "recorder" and c.get("channel", "") in ("", "_1")]
        audio = {c["path"]: high_passed(decode(c["path"])) for c in takes}
        for c in clips:
            if c["kind"] != "camera" or c["duration"] >= 8.0:
                continue
            x = high_passed(decode(c["path"]))
            n = len(x)
            span = n + int(2 * REACH * RATE)
            for t in takes:
                y = audio[t["path"]]
                lag = c["start"] - t["start"]
                if 0 <= lag - REACH and lag + c["duration"] + REACH <= t["duration"]:
                    at = int(round((lag - REACH) * RATE))
                    true_count += 1
                    found += passes(*peak(x, y[at:at + span]))
                overlap = min(c["start"] + c["duration"], t["start"] + t["duration"]) - \
                    max(c["start"], t["start"])
                if overlap > -30 or len(y) <= span:
                    continue
                for at in rng.integers(0, len(y) - span, 4):
                    s, r = peak(x, y[at:at + span])
                    peaks.append(s)
                    unrelated += passes(s, r)
    print(f"searches={len(peaks)} true_places={true_count}")
    print(f"sample_floor_p99={np.percentile(peaks, 99):.3f}")
    print(f"sample_floor_false_pct={100.0 * unrelated / max(len(peaks), 1):.3f}")
    print(f"sample_floor_found_pct={100.0 * found / max(true_count, 1):.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
