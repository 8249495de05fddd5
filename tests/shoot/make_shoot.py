#!/usr/bin/python3
"""Makes a small film shoot with known truth: cameras and a sound recorder that heard one scene.

One scene signal (voices, knocks, room tone) runs on a master timeline. Each device records
stretches of it through its own acoustics and with its own clock. The files land in one folder per
device, with request.json (the engine's request for all files, one drop per device folder) and
truth.json (each file's true start on the master timeline, its device and clock error).

Usage: make_shoot.py OUTDIR [--scenario demo|e2e] [--seed N]
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

RATE = 48000
BASE = dt.datetime(2024, 5, 14, 9, 0, 0, tzinfo=dt.timezone.utc)


def scene(total, rng):
    """A scene of `total` seconds: voiced syllables, knocks and a low room tone."""
    n = int(total * RATE)
    out = np.zeros(n, dtype=np.float64)
    t = 0.2
    while t < total - 1:
        kind = rng.random()
        if kind < 0.75:
            # A voiced syllable: a harmonic complex with a gliding pitch and a smooth envelope.
            dur = rng.uniform(0.12, 0.45)
            f0 = rng.uniform(90, 260)
            m = int(dur * RATE)
            tt = np.arange(m) / RATE
            pitch = f0 * (1 + 0.08 * np.sin(2 * np.pi * rng.uniform(2, 6) * tt))
            phase = 2 * np.pi * np.cumsum(pitch) / RATE
            sig = np.zeros(m)
            for h in range(1, 8):
                sig += rng.uniform(0.2, 1.0) / h * np.sin(h * phase)
            env = np.sin(np.pi * np.arange(m) / m) ** 2
            gain = rng.uniform(0.1, 0.5)
        else:
            # A knock or a step: a short burst of shaped noise.
            dur = rng.uniform(0.03, 0.15)
            m = int(dur * RATE)
            sig = rng.standard_normal(m)
            sig = np.convolve(sig, np.ones(int(rng.integers(1, 12))), mode="same")
            env = np.exp(-np.arange(m) / (m / 5))
            gain = rng.uniform(0.1, 0.6)
        s = int(t * RATE)
        e = min(n, s + len(sig))
        out[s:e] += gain * (sig * env)[: e - s]
        # Words come in phrases with pauses between them.
        t += dur + (rng.uniform(0.02, 0.25) if rng.random() < 0.85 else rng.uniform(0.6, 2.0))
    out += 0.003 * rng.standard_normal(n)
    return out / max(1e-9, np.max(np.abs(out))) * 0.7


def fft_filter(x, lo_hz=None, hi_hz=None):
    spec = np.fft.rfft(x)
    freqs = np.fft.rfftfreq(len(x), 1 / RATE)
    if lo_hz:
        spec[freqs < lo_hz] *= 0.05
    if hi_hz:
        spec[freqs > hi_hz] *= 0.05
    return np.fft.irfft(spec, len(x))


def reverb(x, seconds, rng):
    m = int(seconds * RATE)
    ir = rng.standard_normal(m) * np.exp(-np.arange(m) / (m / 6))
    ir[0] = 4.0
    ir /= np.sqrt(np.sum(ir**2))
    size = 1 << int(np.ceil(np.log2(len(x) + m)))
    y = np.fft.irfft(np.fft.rfft(x, size) * np.fft.rfft(ir, size), size)[: len(x)]
    return y


def camera_audio(x, rng):
    """A camera's microphone: distant, reverberant, noisy and high-passed."""
    y = reverb(x, 0.35, rng)
    y = fft_filter(y, lo_hz=180, hi_hz=9000)
    y = 0.35 * y + 0.02 * rng.standard_normal(len(y))
    return y


def recorder_audio(x, rng):
    return 0.9 * x + 0.001 * rng.standard_normal(len(x))


def pcm16(x):
    return (np.clip(x, -1, 1) * 32767).astype("<i2").tobytes()


def write_wav(path, x):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(pcm16(x))


def write_bwf(path, x, when, device):
    """A Broadcast WAV with a bext chunk: origination date and time as the recorder's clock
    shows them, and the time reference in samples since midnight."""
    data = pcm16(x)
    midnight = when.replace(hour=0, minute=0, second=0, microsecond=0)
    ref = int((when - midnight).total_seconds() * RATE)
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
    fmt = struct.pack("<HHIIHH", 1, 1, RATE, RATE * 2, 2, 16)
    chunks = b"fmt " + struct.pack("<I", len(fmt)) + fmt
    chunks += b"bext" + struct.pack("<I", len(bext)) + bext
    chunks += b"data" + struct.pack("<I", len(data)) + data
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 4 + len(chunks)) + b"WAVE" + chunks)


def write_camera_clip(path, x, when, make, model, tmp):
    wav = tmp + ".wav"
    write_wav(wav, x)
    dur = len(x) / RATE
    cmd = [
        "ffmpeg", "-v", "error", "-y",
        "-f", "lavfi", "-i", f"testsrc2=size=160x90:rate=25:duration={dur:.3f}",
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


# Each device: (folder, kind, make/model or recorder name, clock error in seconds, clips as
# (name, true start, duration)). Cameras see parts of the scene; the recorder runs in takes.
SCENARIOS = {
    "demo": {
        "total": 240,
        "devices": [
            ("CamA", "camera", ("Canon", "EOS R5"), 2.0,
             [("A001", 5.0, 35.0), ("A002", 55.0, 40.0), ("A003", 120.0, 30.0)]),
            ("CamB", "camera", ("Sony", "FX3"), -3 * 3600 + 17.0,
             [("C0001", 12.0, 30.0), ("C0002", 70.0, 45.0), ("C0003", 200.0, 25.0)]),
            ("Sound", "recorder", "ZOOM F6", 0.0,
             [("T001", 0.0, 100.0), ("T002", 110.0, 60.0)]),
        ],
    },
    "e2e": {
        "total": 420,
        "devices": [
            ("CamA", "camera", ("Canon", "EOS R5"), 1.0,
             [("A001", 4.0, 24.0), ("A002", 40.0, 70.0), ("A003", 125.0, 45.0),
              ("A004", 190.0, 30.0), ("A005", 300.0, 25.0)]),
            ("CamB", "camera", ("Sony", "FX3"), -3 * 3600 + 41.0,
             [("C0001", 10.0, 40.0), ("C0002", 60.0, 100.0), ("C0003", 180.0, 60.0),
              ("C0004", 365.0, 30.0)]),
            ("Sound", "recorder", "ZOOM F6", 0.0,
             [("T001", 0.0, 170.0), ("T002", 175.0, 110.0)]),
        ],
    },
    # The smallest shoot with every kind of device, for tests that run the engine often.
    "small": {
        "total": 100,
        "devices": [
            ("CamA", "camera", ("Canon", "EOS R5"), 2.0,
             [("A001", 3.0, 22.0), ("A002", 40.0, 25.0)]),
            ("CamB", "camera", ("Sony", "FX3"), -2 * 3600 + 9.0,
             [("C0001", 8.0, 24.0), ("C0002", 45.0, 30.0)]),
            ("Sound", "recorder", "ZOOM F6", 0.0,
             [("T001", 0.0, 35.0), ("T002", 38.0, 40.0)]),
        ],
    },
    # Twenty clips on two tracks, for timing a run with and without cached features.
    "twenty": {
        "total": 620,
        "devices": [
            ("CamA", "camera", ("Canon", "EOS R5"), 1.0,
             [(f"A{i + 1:03d}", 60.0 * i + 5, 40.0) for i in range(10)]),
            ("Sound", "recorder", "ZOOM F6", 0.0,
             [(f"T{i + 1:03d}", 60.0 * i, 50.0) for i in range(10)]),
        ],
    },
}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("outdir")
    ap.add_argument("--scenario", default="demo", choices=sorted(SCENARIOS))
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()

    spec = SCENARIOS[args.scenario]
    rng = np.random.default_rng(args.seed)
    out = os.path.abspath(args.outdir)
    os.makedirs(out, exist_ok=True)
    master = scene(spec["total"], rng)

    items, truth = [], []
    for folder, kind, ident, clock_error, clips in spec["devices"]:
        d = os.path.join(out, folder)
        os.makedirs(d, exist_ok=True)
        for name, start, dur in clips:
            x = master[int(start * RATE): int((start + dur) * RATE)]
            when = BASE + dt.timedelta(seconds=start + clock_error)
            if kind == "camera":
                path = os.path.join(d, name + ".MOV")
                write_camera_clip(path, camera_audio(x, rng), when, ident[0], ident[1],
                                  os.path.join(out, ".tmp-" + name))
            else:
                path = os.path.join(d, name + ".WAV")
                write_bwf(path, recorder_audio(x, rng), when, ident)
            items.append({"path": path, "dropHint": d})
            truth.append({"path": path, "device": folder, "kind": kind, "start": start,
                          "duration": dur, "clockError": clock_error})

    with open(os.path.join(out, "request.json"), "w") as f:
        json.dump({"version": 1, "items": items}, f, indent=1)
    with open(os.path.join(out, "truth.json"), "w") as f:
        json.dump({"scenario": args.scenario, "clips": truth}, f, indent=1)
    print(os.path.join(out, "request.json"))


if __name__ == "__main__":
    sys.exit(main())
