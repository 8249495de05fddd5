#!/usr/bin/python3
"""Makes a film shoot with known truth: cameras and sound recorders that heard one or more sound
sources, each device through its own acoustics and with its own clock.

Sources run on one master timeline: a scene of voices and knocks, or a machine that hums in a
steady cycle. Each device records stretches of the master through its own gains for the sources.
The files land in one folder per device, with request.json (the engine's request for all files,
one drop per device folder) and truth.json (each file's true start on the master timeline, its
device, clock error and the scenes it heard).

Usage: make_shoot.py OUTDIR [--scenario NAME] [--seed N]
"""

import argparse
import datetime as dt
import json
import os
import struct
import subprocess
import sys
import wave

import numpy as np

BASE = dt.datetime(2024, 5, 14, 9, 0, 0, tzinfo=dt.timezone.utc)


def scene(total, rate, rng):
    """A scene of `total` seconds: voiced syllables, knocks and a low room tone."""
    n = int(total * rate)
    out = np.zeros(n, dtype=np.float64)
    t = 0.2
    while t < total - 1:
        kind = rng.random()
        if kind < 0.75:
            # A voiced syllable: a harmonic complex with a gliding pitch and a smooth envelope.
            dur = rng.uniform(0.12, 0.45)
            f0 = rng.uniform(90, 260)
            m = int(dur * rate)
            tt = np.arange(m) / rate
            pitch = f0 * (1 + 0.08 * np.sin(2 * np.pi * rng.uniform(2, 6) * tt))
            phase = 2 * np.pi * np.cumsum(pitch) / rate
            sig = np.zeros(m)
            for h in range(1, 8):
                sig += rng.uniform(0.2, 1.0) / h * np.sin(h * phase)
            env = np.sin(np.pi * np.arange(m) / m) ** 2
            gain = rng.uniform(0.1, 0.5)
        else:
            # A knock or a step: a short burst of shaped noise.
            dur = rng.uniform(0.03, 0.15)
            m = int(dur * rate)
            sig = rng.standard_normal(m)
            sig = np.convolve(sig, np.ones(int(rng.integers(1, 12))), mode="same")
            env = np.exp(-np.arange(m) / (m / 5))
            gain = rng.uniform(0.1, 0.6)
        s = int(t * rate)
        e = min(n, s + len(sig))
        out[s:e] += gain * (sig * env)[: e - s]
        # Words come in phrases with pauses between them.
        t += dur + (rng.uniform(0.02, 0.25) if rng.random() < 0.85 else rng.uniform(0.6, 2.0))
    out += 0.003 * rng.standard_normal(n)
    return out / max(1e-9, np.max(np.abs(out))) * 0.7


def machine(total, rate, period, rng):
    """A machine that runs in a steady cycle (a pump, a generator): broadband noise that swells
    and fades every `period` seconds. Its sound says nothing of where in time it was heard, only
    that it repeats."""
    n = int(total * rate)
    cycle = 0.15 + np.sin(np.pi * np.arange(int(period * rate)) / (period * rate)) ** 8
    swell = np.resize(cycle / np.max(cycle), n)
    return 0.5 * rng.standard_normal(n) * swell


def fft_filter(x, rate, lo_hz=None, hi_hz=None):
    spec = np.fft.rfft(x)
    freqs = np.fft.rfftfreq(len(x), 1 / rate)
    if lo_hz:
        spec[freqs < lo_hz] *= 0.05
    if hi_hz:
        spec[freqs > hi_hz] *= 0.05
    return np.fft.irfft(spec, len(x))


def reverb(x, seconds, rate, rng):
    m = int(seconds * rate)
    ir = rng.standard_normal(m) * np.exp(-np.arange(m) / (m / 6))
    ir[0] = 4.0
    ir /= np.sqrt(np.sum(ir**2))
    size = 1 << int(np.ceil(np.log2(len(x) + m)))
    y = np.fft.irfft(np.fft.rfft(x, size) * np.fft.rfft(ir, size), size)[: len(x)]
    return y


def camera_audio(x, rate, rng):
    """A camera's microphone: distant, reverberant, noisy and high-passed."""
    y = reverb(x, 0.35, rate, rng)
    y = fft_filter(y, rate, lo_hz=180, hi_hz=min(9000, rate / 2 - 500))
    y = 0.35 * y + 0.02 * rng.standard_normal(len(y))
    return y


def recorder_audio(x, rng):
    return 0.9 * x + 0.001 * rng.standard_normal(len(x))


def pcm16(x):
    return (np.clip(x, -1, 1) * 32767).astype("<i2").tobytes()


def write_wav(path, x, rate):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(pcm16(x))


def write_bwf(path, x, rate, when, device):
    """A Broadcast WAV with a bext chunk: origination date and time as the recorder's clock
    shows them (whole seconds), and the time reference in samples since midnight."""
    data = pcm16(x)
    midnight = when.replace(hour=0, minute=0, second=0, microsecond=0)
    ref = int((when - midnight).total_seconds() * rate)
    bext = struct.pack(
        "<256s32s32s10s8sII H64s5H180s",
        b"scene",
        device.encode(),
        b"",
        when.strftime("%Y-%m-%d").encode(),
        when.strftime("%H:%M:%S").encode(),
        ref & 0xFFFFFFFF,
        ref >> 32,
        1,
        b"",
        0, 0, 0, 0, 0,
        b"",
    )
    fmt = struct.pack("<HHIIHH", 1, 1, rate, rate * 2, 2, 16)
    chunks = b"fmt " + struct.pack("<I", len(fmt)) + fmt
    chunks += b"bext" + struct.pack("<I", len(bext)) + bext
    chunks += b"data" + struct.pack("<I", len(data)) + data
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 4 + len(chunks)) + b"WAVE" + chunks)


def write_camera_clip(path, x, rate, when, make, model, size, tmp):
    wav = tmp + ".wav"
    write_wav(wav, x, rate)
    dur = len(x) / rate
    cmd = [
        "ffmpeg", "-v", "error", "-y",
        "-f", "lavfi", "-i", f"testsrc2=size={size}:rate=25:duration={dur:.3f}",
        "-i", wav,
        "-map", "0:v", "-map", "1:a",
        "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
        "-c:a", "aac", "-b:a", "96k", "-ac", "2",
        "-t", f"{dur:.3f}",
        "-metadata", "creation_time=" + when.strftime("%Y-%m-%dT%H:%M:%S.000000Z"),
        "-metadata", f"make={make}", "-metadata", f"model={model}",
        path,
    ]
    subprocess.run(cmd, check=True)
    os.remove(wav)


def camera(folder, make, model, clock, clips, hears=None):
    return {"folder": folder, "kind": "camera", "ident": (make, model), "clock": clock,
            "clips": clips, "hears": hears or {"scene": 1.0}}


def recorder(folder, name, clock, clips, hears=None):
    return {"folder": folder, "kind": "recorder", "ident": name, "clock": clock, "clips": clips,
            "hears": hears or {"scene": 1.0}}


# Reference takes for the long-backup shoots: the recorder's clock is right, but its files only
# know whole seconds, so a take that began at a fraction of a second lies that fraction early on
# the recorder's own timeline.
def backup_reference_takes(odd_fraction):
    return [("T001", 10.0, 370.0), ("T002", 650.0, 345.0), ("T003", 1000.0 + odd_fraction, 100.0),
            ("T004", 1500.0, 300.0)]


def backup_camera():
    # One clip inside a take, one in the pause between two takes (only the backup heard it), one
    # inside the take whose clock was off.
    return camera("CamA", "Canon", "EOS R5", 2.0,
                  [("A001", 100.0, 60.0), ("A002", 420.0, 80.0), ("A003", 1020.0, 60.0)])


FIVE_HOURS = 5 * 3600.0

# Each scenario: sample rate of the files, picture size of the cameras, length of the master
# timeline, the sound sources (a "scene" of voices by default) and the devices with their clips as
# (name, true start, duration). Long shoots are kept cheap: 16 kHz sound, tiny pictures.
SCENARIOS = {
    "demo": {
        "total": 240,
        "devices": [
            camera("CamA", "Canon", "EOS R5", 2.0,
                   [("A001", 5.0, 35.0), ("A002", 55.0, 40.0), ("A003", 120.0, 30.0)]),
            camera("CamB", "Sony", "FX3", -3 * 3600 + 17.0,
                   [("C0001", 12.0, 30.0), ("C0002", 70.0, 45.0), ("C0003", 200.0, 25.0)]),
            recorder("Sound", "ZOOM F6", 0.0, [("T001", 0.0, 100.0), ("T002", 110.0, 60.0)]),
        ],
    },
    "e2e": {
        "total": 420,
        "devices": [
            camera("CamA", "Canon", "EOS R5", 1.0,
                   [("A001", 4.0, 24.0), ("A002", 40.0, 70.0), ("A003", 125.0, 45.0),
                    ("A004", 190.0, 30.0), ("A005", 300.0, 25.0)]),
            camera("CamB", "Sony", "FX3", -3 * 3600 + 41.0,
                   [("C0001", 10.0, 40.0), ("C0002", 60.0, 100.0), ("C0003", 180.0, 60.0),
                    ("C0004", 365.0, 30.0)]),
            recorder("Sound", "ZOOM F6", 0.0, [("T001", 0.0, 170.0), ("T002", 175.0, 110.0)]),
        ],
    },
    # The smallest shoot with every kind of device, for tests that run the engine often.
    "small": {
        "total": 100,
        "devices": [
            camera("CamA", "Canon", "EOS R5", 2.0, [("A001", 3.0, 22.0), ("A002", 40.0, 25.0)]),
            camera("CamB", "Sony", "FX3", -2 * 3600 + 9.0,
                   [("C0001", 8.0, 24.0), ("C0002", 45.0, 30.0)]),
            recorder("Sound", "ZOOM F6", 0.0, [("T001", 0.0, 35.0), ("T002", 38.0, 40.0)]),
        ],
    },
    # Twenty clips on two tracks, for timing a run with and without cached features.
    "twenty": {
        "total": 620,
        "devices": [
            camera("CamA", "Canon", "EOS R5", 1.0,
                   [(f"A{i + 1:03d}", 60.0 * i + 5, 40.0) for i in range(10)]),
            recorder("Sound", "ZOOM F6", 0.0,
                     [(f"T{i + 1:03d}", 60.0 * i, 50.0) for i in range(10)]),
        ],
    },
    # A backup recorder ran through the day as one 35-minute file, its clock set five hours
    # wrong; the reference recorder ran in takes, one of which began 0.6 s after its whole second.
    "backup-linked": {
        "rate": 16000,
        "video": "64x36",
        "total": 2140,
        "devices": [
            backup_camera(),
            recorder("Backup", "TASCAM DR-10L", FIVE_HOURS, [("B001", 20.0, 2100.0)]),
            recorder("Sound", "ZOOM F6", 0.0, backup_reference_takes(0.6)),
        ],
    },
    # The same backup, but it was left running in another room: nothing in it is in the takes.
    "backup-unlinked": {
        "rate": 16000,
        "video": "64x36",
        "total": 1880,
        "sources": {"scene": {"kind": "scene"}, "elsewhere": {"kind": "scene", "seed": 99}},
        "devices": [
            camera("CamA", "Canon", "EOS R5", 2.0, [("A001", 100.0, 60.0)]),
            recorder("Backup", "TASCAM DR-10L", FIVE_HOURS, [("B001", 20.0, 1850.0)],
                     hears={"elsewhere": 1.0}),
            recorder("Sound", "ZOOM F6", 0.0,
                     [("T001", 10.0, 370.0), ("T002", 650.0, 345.0), ("T003", 1100.0, 300.0)]),
        ],
    },
    # A backup that splits its recording into files of 700 s, which chain by its own clock, set
    # three hours and twelve minutes wrong.
    "backup-chained": {
        "rate": 16000,
        "video": "64x36",
        "total": 2140,
        "devices": [
            backup_camera(),
            recorder("Backup", "TASCAM DR-10L", 3 * 3600 + 720.0,
                     [("B001", 20.0, 700.0), ("B002", 720.0, 700.0), ("B003", 1420.0, 700.0)]),
            recorder("Sound", "ZOOM F6", 0.0, backup_reference_takes(0.0)),
        ],
    },
    # Two cameras that share one file numbering: camera A's clips on two cards, camera B's after
    # them. Camera A's first shot was beside the recorder; half an hour later both cameras shot a
    # scene elsewhere, close to the actors, where only they heard each other: B ran throughout
    # while A took four shots.
    "camera-group": {
        "rate": 16000,
        "video": "64x36",
        "total": 2300,
        "devices": [
            camera("CamA/CARD1", "Sony", "FX3", 3.0,
                   [("C0001", 555.0, 40.0), ("C0002", 2000.0, 95.0), ("C0003", 2110.0, 55.0)],
                   hears={"scene": 2.0}),
            camera("CamA/CARD2", "Sony", "FX3", 3.0,
                   [("C0004", 2172.0, 50.0), ("C0005", 2228.0, 55.0)], hears={"scene": 2.0}),
            camera("CamB", "Sony", "FX6", -41.0, [("C0011", 1995.0, 290.0)],
                   hears={"scene": 2.0}),
            recorder("Sound", "ZOOM F6", 0.0, [("T001", 0.0, 600.0)]),
        ],
    },
    # An interview. The recorder has both voices on lavaliers; it also ran, loudly, in the machine
    # room before, where a pump cycles every four seconds. A camera's long take heard the guest only
    # faintly over a generator beside it, whose cycle is the pump's. A second camera shot B-roll
    # of the host during the take, close enough to hear the host well and the guest not at all.
    "broll": {
        "rate": 16000,
        "video": "64x36",
        "total": 1200,
        "sources": {
            "scene": {"kind": "scene"},
            "guest": {"kind": "scene", "seed": 5},
            "pump": {"kind": "machine", "period": 4.0, "span": [0.0, 500.0]},
            "generator": {"kind": "machine", "period": 4.0},
        },
        "devices": [
            camera("CamA/CARD1", "Sony", "FX3", 3.0, [("C0001", 600.0, 400.0)],
                   hears={"guest": 0.5, "generator": 0.12}),
            # Too short to be matched: the card only makes the long take's camera a group.
            camera("CamA/CARD2", "Sony", "FX3", 3.0, [("C0002", 1150.0, 4.0)]),
            camera("CamB", "Canon", "EOS R5", 11.0,
                   [("MVI_0001", 610.0, 30.0), ("MVI_0002", 650.0, 40.0)]),
            recorder("Sound", "ZOOM F6", 0.0, [("T001", 0.0, 1100.0)],
                     hears={"scene": 0.7, "guest": 0.5, "pump": 1.0}),
        ],
    },
}


def make_sources(spec, rate, rng, seed):
    """The master signal of every source, over the whole timeline."""
    total = spec["total"]
    defs = spec.get("sources", {"scene": {"kind": "scene"}})
    out = {}
    for name, d in defs.items():
        # The scene of the plain shoots comes first from the shoot's own generator, so that their
        # files stay as they were; every other source has a generator of its own.
        r = rng if name == "scene" else np.random.default_rng(seed * 1000 + d.get("seed", len(out)))
        if d["kind"] == "scene":
            x = scene(total, rate, r)
        else:
            x = machine(total, rate, d["period"], r)
        if "span" in d:
            lo, hi = (int(s * rate) for s in d["span"])
            x[:lo] = 0
            x[hi:] = 0
        out[name] = x
    return out, defs


def heard_scenes(device, defs, start, dur):
    """The scenes a clip heard, as (name, from, to) on the master timeline: a machine tells no
    place, so it does not count."""
    heard = []
    for name, gain in device["hears"].items():
        d = defs[name]
        if d["kind"] != "scene" or gain <= 0:
            continue
        lo, hi = d.get("span", [0.0, float("inf")])
        heard.append({"source": name, "from": max(lo, start), "to": min(hi, start + dur)})
    return heard


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("outdir")
    ap.add_argument("--scenario", default="demo", choices=sorted(SCENARIOS))
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()

    spec = SCENARIOS[args.scenario]
    rate = spec.get("rate", 48000)
    rng = np.random.default_rng(args.seed)
    out = os.path.abspath(args.outdir)
    os.makedirs(out, exist_ok=True)
    sources, defs = make_sources(spec, rate, rng, args.seed)

    items, truth = [], []
    for device in spec["devices"]:
        d = os.path.join(out, device["folder"])
        os.makedirs(d, exist_ok=True)
        for name, start, dur in device["clips"]:
            a, b = int(round(start * rate)), int(round((start + dur) * rate))
            x = sum(gain * sources[src][a:b] for src, gain in device["hears"].items())
            when = BASE + dt.timedelta(seconds=start + device["clock"])
            if device["kind"] == "camera":
                path = os.path.join(d, name + ".MOV")
                make, model = device["ident"]
                write_camera_clip(path, camera_audio(x, rate, rng), rate, when, make, model,
                                  spec.get("video", "160x90"), os.path.join(out, ".tmp-" + name))
            else:
                path = os.path.join(d, name + ".WAV")
                write_bwf(path, recorder_audio(x, rng), rate, when, device["ident"])
            items.append({"path": path, "dropHint": d})
            truth.append({"path": path, "device": device["folder"], "kind": device["kind"],
                          "start": start, "duration": dur, "clockError": device["clock"],
                          "heard": heard_scenes(device, defs, start, dur)})

    with open(os.path.join(out, "request.json"), "w") as f:
        json.dump({"version": 1, "items": items}, f, indent=1)
    with open(os.path.join(out, "truth.json"), "w") as f:
        json.dump({"scenario": args.scenario, "clips": truth}, f, indent=1)
    print(os.path.join(out, "request.json"))


if __name__ == "__main__":
    sys.exit(main())
