#!/usr/bin/python3
"""Makes a shoot whose truth is known below a sample: every clip starts at a fractional sample
position of the master timeline, and each camera's clock runs fast or slow by 20 to 200 parts per
million, so its clips hold the master resampled by that much. A recorder with a true clock rolls
long takes; two cameras cover them.

truth.json lists each clip's true start (seconds, to the microsecond and below) and its device's
drift ("driftPpm": positive when the device's content falls progressively later than the master,
so that playing it at speed 1 + driftPpm / 1e6 puts it in step).

Usage: make_drift_shoot.py OUTDIR [--seed N]
"""

import argparse
import datetime as dt
import json
import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_shoot as ms  # noqa: E402

RATE = ms.RATE
# Half-width, in samples, of the interpolation kernel.
TAPS = 24


def warped(source, start, n, ppm):
    """`n` samples of the master from `start` seconds, as a device whose clock runs `ppm` fast
    records it: its sample k holds the master at start + k / (RATE * (1 + ppm / 1e6)). Windowed
    sinc interpolation, so fractional starts and stretches are exact to well below a sample."""
    first = start * RATE
    step = 1.0 / (1.0 + ppm * 1e-6)
    last = first + (n - 1) * step
    a = int(np.floor(first)) - TAPS - 1
    b = int(np.ceil(last)) + TAPS + 2
    x = source(a, b)
    out = np.empty(n)
    offsets = np.arange(-TAPS + 1, TAPS + 1)
    chunk = 1 << 15
    for lo in range(0, n, chunk):
        k = np.arange(lo, min(n, lo + chunk))
        pos = first + k * step - a
        base = np.floor(pos).astype(np.int64)
        frac = pos - base
        idx = base[:, None] + offsets[None, :]
        d = offsets[None, :] - frac[:, None]
        window = 0.42 + 0.5 * np.cos(np.pi * d / TAPS) + 0.08 * np.cos(2 * np.pi * d / TAPS)
        out[k] = np.sum(x[idx] * np.sinc(d) * window, axis=1)
    return out


def layout(r):
    takes = ms.lay_takes(r, r.uniform(10, 20), int(r.integers(3, 5)), (120, 300), (20, 60))
    sound = ms.rec("Sound", "ZOOM F6", 0.0, ms.named(takes, "T{:03d}", int(r.integers(1, 50))))
    cams = []
    for folder, make, model, pattern, share in (("CamA", "Canon", "EOS R5", "MVI_{:04d}", 1.0),
                                                ("CamB", "Panasonic", "DC-GH5", "P10{:05d}", 0.8)):
        spans = ms.cover(r, takes, share, pre=(2.0, 8.0), post=(1.0, 5.0))
        clips = ms.named(spans, pattern, int(r.integers(1, 900)))
        for c in clips:
            # Anywhere between two samples, not on the millisecond grid.
            c["start"] = c["start"] + r.uniform(0, 1e-3)
        device = ms.cam(folder, make, model, ms.clock_error(r, 20, 900), clips)
        device["drift"] = float(r.choice([-1, 1]) * r.uniform(20, 200))
        cams.append(device)
    return [sound] + cams


def make(out, seed):
    r = np.random.default_rng([seed, 5150])
    devices = layout(r)
    sources = ms.make_sources_sparse({"scene": {}}, seed)
    scene = sources["scene"]
    items, truth = [], []
    for di, device in enumerate(devices):
        drop = os.path.join(out, device["folder"])
        os.makedirs(drop, exist_ok=True)
        ppm = device.get("drift", 0.0)
        for ci, c in enumerate(device["clips"]):
            rng = np.random.default_rng([seed, 78, di, ci])
            start, dur = c["start"], c["dur"]
            n = int(round(dur * RATE))
            x = warped(scene.render, start, n, ppm)
            when = ms.LOCAL_BASE + dt.timedelta(seconds=start + device["clock"])
            entry = {"device": device["folder"], "kind": device["kind"], "start": start,
                     "duration": n / RATE, "clockError": device["clock"], "driftPpm": ppm,
                     "heard": [{"source": "scene", "from": start, "to": start + n / RATE}]}
            if device["kind"] == "camera":
                path = os.path.join(drop, c["name"] + "." + device["ext"])
                ms.write_movie(path, ms.acoustics("camera", x, rng), when, device, dt.timedelta(0),
                               os.path.join(out, ".tmp-" + c["name"]))
            else:
                path = os.path.join(drop, c["name"] + ".WAV")
                ms.write_bwf_channels(path, [ms.acoustics("boom", x, rng)], when, device["ident"])
            items.append({"path": path, "dropHint": drop})
            truth.append(dict(entry, path=path))
    with open(os.path.join(out, "request.json"), "w") as f:
        json.dump({"version": 1, "items": items}, f, indent=1)
    with open(os.path.join(out, "truth.json"), "w") as f:
        json.dump({"scenario": "drift", "seed": seed, "tz": "UTC", "clips": truth}, f, indent=1)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("outdir")
    ap.add_argument("--seed", type=int, default=1)
    args = ap.parse_args()
    out = os.path.abspath(args.outdir)
    os.makedirs(out, exist_ok=True)
    make(out, args.seed)
    print(os.path.join(out, "request.json"))


if __name__ == "__main__":
    sys.exit(main())
