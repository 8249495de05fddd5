#!/usr/bin/python3
"""Makes a film shoot with known truth: cameras and sound recorders that heard one or more sound
sources, each device through its own acoustics and with its own clock.

Sources run on one master timeline: a scene of voices and knocks, or a machine that hums in a
steady cycle. Each device records stretches of the master through its own gains for the sources.
The files land in one folder per device, with request.json (the engine's request for all files,
one drop per device folder) and truth.json (each file's true start on the master timeline, its
device, clock error and the scenes it heard).

The fixed scenarios are laid out once; the generated ones (channels-2, channels-4, timecode,
chapters, short-clips, ref-takes, lone-clip, timezone, mixed) lay out their structure afresh for
each seed, name and folder their files as real cards do, and add to truth.json the time zone to
run the program in ("tz").

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


def write_bwf(path, x, rate, when, device, whole_seconds=False):
    """A Broadcast WAV with a bext chunk: origination date and time as the recorder's clock
    shows them (whole seconds), and the time reference in samples since midnight (only to the
    whole second too, for a recorder whose files know no more)."""
    data = pcm16(x)
    midnight = when.replace(hour=0, minute=0, second=0, microsecond=0)
    ref = int((when - midnight).total_seconds() * rate)
    if whole_seconds:
        ref -= ref % rate
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


def recorder(folder, name, clock, clips, hears=None, whole_seconds=False):
    return {"folder": folder, "kind": "recorder", "ident": name, "clock": clock, "clips": clips,
            "hears": hears or {"scene": 1.0}, "whole_seconds": whole_seconds}


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
            recorder("Sound", "ZOOM F6", 0.0, backup_reference_takes(0.6), whole_seconds=True),
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


# ---- Generated shoots ----------------------------------------------------------------------------
#
# Each of these lays out the structure of real cards afresh for every seed: the files are named and
# foldered as the devices name them, and carry the dates and timecode those devices write. Their
# sources are made only where some device listens (a day of an hour is mostly silence between
# takes), in blocks with generators of their own, so that a long day stays cheap.

RATE = 16000
VIDEO = "64x36"
FPS = 25
# The shoot's local wall clock: cameras and recorders show this time, whatever their zone.
LOCAL_BASE = dt.datetime(2024, 5, 14, 9, 0, 0)
# A scene is made in blocks of this many seconds; a sound rings at most a second past its block.
BLOCK = 30.0


# -- Signals

def lowpass_taps(hz, taps=255):
    t = np.arange(taps) - (taps - 1) / 2
    return np.sinc(2 * hz / RATE * t) * (2 * hz / RATE) * np.hanning(taps)


def bandpass_taps(lo_hz, hi_hz, taps=255):
    return lowpass_taps(hi_hz, taps) - lowpass_taps(lo_hz, taps)


def convolve(x, h, delay=0):
    """x filtered by h, by overlap-add; `delay` samples of h's latency are taken off, so that a
    linear-phase filter moves nothing in time."""
    n, m = len(x), len(h)
    size = 1 << 16
    while size < 4 * m:
        size <<= 1
    step = size - m + 1
    spectrum = np.fft.rfft(h, size)
    y = np.zeros(n + m - 1)
    for s in range(0, n, step):
        seg = x[s:s + step]
        part = np.fft.irfft(np.fft.rfft(seg, size) * spectrum, size)[: len(seg) + m - 1]
        y[s:s + len(part)] += part
    return y[delay:delay + n]


def room_response(seconds, rng, direct_db):
    """A room's response: the direct sound, then a tail decaying over `seconds` whose energy lies
    `direct_db` below the direct sound's."""
    m = max(2, int(seconds * RATE))
    ir = rng.standard_normal(m) * np.exp(-np.arange(m) / (m / 6))
    ir[0] = 0.0
    ir *= np.sqrt(10 ** (-direct_db / 10) / np.sum(ir**2))
    ir[0] = 1.0
    return ir / np.sqrt(np.sum(ir**2))


def speech(rng, seconds, f0, pace=1.0):
    """One speaker for `seconds` (and up to a second of ringing after): voiced syllables in
    phrases, with knocks and steps between them."""
    n = int((seconds + 1.0) * RATE)
    out = np.zeros(n)
    t = rng.uniform(0.0, 0.5)
    while t < seconds:
        if rng.random() < 0.75:
            dur = rng.uniform(0.12, 0.45)
            m = int(dur * RATE)
            tt = np.arange(m) / RATE
            pitch = rng.uniform(*f0) * (1 + 0.08 * np.sin(2 * np.pi * rng.uniform(2, 6) * tt))
            phase = 2 * np.pi * np.cumsum(pitch) / RATE
            sig = np.zeros(m)
            for h in range(1, 8):
                sig += rng.uniform(0.2, 1.0) / h * np.sin(h * phase)
            sig *= np.sin(np.pi * np.arange(m) / m) ** 2
            gain = rng.uniform(0.1, 0.5)
        else:
            dur = rng.uniform(0.03, 0.15)
            m = int(dur * RATE)
            sig = np.convolve(rng.standard_normal(m), np.ones(int(rng.integers(1, 12))), mode="same")
            sig *= np.exp(-np.arange(m) / (m / 5))
            gain = rng.uniform(0.1, 0.6)
        s = int(t * RATE)
        e = min(n, s + m)
        out[s:e] += gain * sig[: e - s]
        pause = rng.uniform(0.02, 0.25) if rng.random() < 0.85 else rng.uniform(0.6, 2.0)
        t += dur + pause / pace
    return out


class Scene:
    """People talking (`voices` of them at once: one is a dialogue line, many a crowd), made block
    by block where a device listens. Heard only inside `spans`, if given."""

    def __init__(self, key, f0=(90.0, 260.0), voices=1, level=0.15, pace=1.0, spans=None,
                 tells_place=True):
        self.key, self.f0, self.voices, self.level, self.pace = key, f0, voices, level, pace
        self.spans = spans
        self.tells_place = tells_place
        self.blocks = {}

    def block(self, k):
        if k not in self.blocks:
            rng = np.random.default_rng(self.key + [k])
            n = int(BLOCK * RATE)
            buf = np.zeros(n + RATE)
            for _ in range(self.voices):
                buf += speech(rng, BLOCK, self.f0, self.pace)
            buf *= self.level
            buf[:n] += 0.003 * self.level * rng.standard_normal(n)
            self.blocks[k] = buf.astype(np.float32)
        return self.blocks[k]

    def render(self, a, b):
        out = np.zeros(b - a)
        n = int(BLOCK * RATE)
        for k in range(max(0, (a - RATE) // n), (b - 1) // n + 1):
            buf, s = self.block(k), k * n
            lo, hi = max(a, s), min(b, s + len(buf))
            if hi > lo:
                out[lo - a:hi - a] += buf[lo - s:hi - s]
        return mask_spans(out, a, self.spans)

    def heard(self, start, end):
        return [(lo, hi) for lo, hi in (self.spans or [(0.0, float("inf"))])
                if min(hi, end) > max(lo, start)]


class Song:
    """A song of `length` seconds (drums, bass, chords and a tune) that plays at each of
    `plays`: the same sound each time, so that it says where only within one playing."""

    def __init__(self, key, length, plays, level=0.25):
        self.plays, self.level = plays, level
        rng = np.random.default_rng(key)
        n = int(length * RATE)
        self.length = length
        beat = 60.0 / rng.uniform(96, 128)
        song = np.zeros(n + RATE)
        t_all = np.arange(RATE) / RATE
        scale = 110.0 * 2 ** (np.array([0, 2, 3, 5, 7, 8, 10]) / 12)
        progression = [rng.integers(0, 7, 3) for _ in range(4)]

        def add(at, sig):
            s = int(at * RATE)
            e = min(len(song), s + len(sig))
            if e > s:
                song[s:e] += sig[: e - s]

        bar = 0
        t = 0.0
        while t < length:
            chord = progression[bar % 4]
            loud = 1.0 if (bar // 8) % 2 else 0.6
            for b in range(4):
                at = t + b * beat
                if b in (0, 2):
                    m = int(0.25 * RATE)
                    tt = t_all[:m]
                    add(at, 0.9 * loud * np.sin(2 * np.pi * 55 * tt * (1 + np.exp(-tt * 30)))
                        * np.exp(-tt * 14))
                else:
                    m = int(0.18 * RATE)
                    add(at, 0.5 * loud * rng.standard_normal(m) * np.exp(-t_all[:m] * 25))
                for half in (0.0, 0.5):
                    m = int(0.05 * RATE)
                    add(at + half * beat, 0.15 * np.diff(rng.standard_normal(m + 1))
                        * np.exp(-t_all[:m] * 80))
                m = int(beat * RATE)
                tt = t_all[:m] if m <= RATE else np.arange(m) / RATE
                root = scale[chord[0] % 7] / 2
                add(at, 0.35 * loud * np.sin(2 * np.pi * root * tt) * np.exp(-tt * 3))
                if rng.random() < 0.7:
                    note = scale[rng.choice(chord) % 7] * 2 * (2 if rng.random() < 0.3 else 1)
                    m2 = int(beat * rng.choice([0.5, 1.0]) * RATE)
                    tt2 = tt[:m2]
                    env = np.minimum(1, tt2 * 50) * np.exp(-tt2 * 4)
                    add(at, 0.25 * loud * env * (np.sin(2 * np.pi * note * tt2)
                                                  + 0.3 * np.sin(4 * np.pi * note * tt2)))
            m = int(4 * beat * RATE)
            tt = np.arange(m) / RATE
            pad = sum(np.sin(2 * np.pi * scale[c % 7] * tt) for c in chord)
            add(t, 0.06 * loud * pad * np.minimum(1, tt * 4))
            t += 4 * beat
            bar += 1
        song = song[:n]
        self.song = (song / np.max(np.abs(song)) * level).astype(np.float32)

    def render(self, a, b):
        out = np.zeros(b - a)
        for p in self.plays:
            s = int(round(p * RATE))
            lo, hi = max(a, s), min(b, s + len(self.song))
            if hi > lo:
                out[lo - a:hi - a] += self.song[lo - s:hi - s]
        return out

    tells_place = True

    def heard(self, start, end):
        return [(p, p + self.length) for p in self.plays
                if min(p + self.length, end) > max(p, start)]


def mask_spans(x, a, spans):
    if spans is None:
        return x
    keep = np.zeros(len(x), dtype=bool)
    for lo, hi in spans:
        s, e = max(0, int(lo * RATE) - a), min(len(x), int(hi * RATE) - a)
        if e > s:
            keep[s:e] = True
    x[~keep] = 0
    return x


def wind(rng, n, level):
    """Wind on a microphone: a low rumble in gusts, below 150 Hz, that drowns the lowest bands of
    what it hears and leaves the voices above them."""
    rumble = convolve(rng.standard_normal(n + 1024), lowpass_taps(120.0, 1023), 511)[:n]
    rumble /= max(1e-9, np.sqrt(np.mean(rumble**2)))
    # Buffeting: the rumble flutters a few times a second, in slow swells.
    step = RATE // 50
    k = n // step + 2
    flutter = np.convolve(rng.standard_normal(k + 9), np.hanning(10), mode="valid")
    swell = np.convolve(rng.standard_normal(k + 199), np.hanning(200), mode="valid")
    points = np.abs(flutter) / max(1e-9, np.std(flutter)) * (1.0 + 0.3 * np.tanh(swell))
    gust = np.interp(np.arange(n), np.arange(k) * step, points)
    return level * rumble * gust


# -- The ways a device hears

def acoustics(kind, x, rng):
    """What a microphone of `kind` makes of the sound `x` reaching it."""
    if kind == "camera":
        # A few metres off in a room (as much reverberation as direct sound), high-passed, with
        # the hiss of a small preamp.
        bp = bandpass_taps(180.0, 7500.0)
        h = np.convolve(room_response(0.35, rng, 0.0), bp)
        return convolve(x, h, 127) + 0.002 * rng.standard_normal(len(x))
    if kind == "boom":
        return 0.9 * x + 0.001 * rng.standard_normal(len(x))
    if kind == "lav":
        # Close to one mouth, under clothes: no room, less top and bottom, some rustle.
        y = 1.3 * convolve(x, bandpass_taps(120.0, 6000.0), 127)
        return y + 0.004 * rng.standard_normal(len(x))
    if kind == "room":
        # The recorder's own microphones on the cart: a short room, some hiss.
        h = np.convolve(room_response(0.15, rng, 6.0), bandpass_taps(60.0, 7800.0))
        return 0.6 * convolve(x, h, 127) + 0.003 * rng.standard_normal(len(x))
    raise ValueError(kind)


# -- Files as the devices write them

def write_bwf_channels(path, channels, when, originator, description=b""):
    """A Broadcast WAV with one or more channels: the recorder's clock in whole seconds as its
    origination date and time, and the same clock to the sample as its time reference."""
    data = np.stack([np.clip(c, -1, 1) for c in channels], axis=1)
    data = (data * 32767).astype("<i2").tobytes()
    midnight = when.replace(hour=0, minute=0, second=0, microsecond=0)
    ref = int(round((when - midnight).total_seconds() * RATE))
    bext = struct.pack(
        "<256s32s32s10s8sII H64s5H180s",
        description,
        originator.encode(),
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
    k = len(channels)
    fmt = struct.pack("<HHIIHH", 1, k, RATE, RATE * 2 * k, 2 * k, 16)
    chunks = b"fmt " + struct.pack("<I", len(fmt)) + fmt
    chunks += b"bext" + struct.pack("<I", len(bext)) + bext
    chunks += b"data" + struct.pack("<I", len(data)) + data
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 4 + len(chunks)) + b"WAVE" + chunks)


def timecode_text(seconds_of_day):
    frames = int(round(seconds_of_day * FPS))
    f = frames % FPS
    s = frames // FPS
    return f"{s // 3600 % 24:02d}:{s // 60 % 60:02d}:{s % 60:02d}:{f:02d}", (s, f)


def sony_xml(when_text, model, duration, tc=None):
    """The NonRealTimeMeta document a Sony camera writes into and beside each clip. Its dates carry
    the camera's zone; its timecode reads back to front (frames, seconds, minutes, hours)."""
    frames = int(round(duration * FPS))
    lines = [
        '<?xml version="1.0" encoding="UTF-8"?>',
        '<NonRealTimeMeta xmlns="urn:schemas-professionalDisc:nonRealTimeMeta:ver.2.10" '
        'xmlns:lib="urn:schemas-professionalDisc:lib:ver.2.00" '
        'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
        f'lastUpdate="{when_text}">',
        '\t<TargetMaterial umidRef="060A2B340101010501010D43130000006C2D8D45281305D2080046020206B24C"/>',
        f'\t<Duration value="{frames}"/>',
    ]
    if tc is not None:
        (s, f) = tc
        value = f"{f:02d}{s % 60:02d}{s // 60 % 60:02d}{s // 3600 % 24:02d}"
        lines += [f'\t<LtcChangeTable tcFps="{FPS}" halfStep="false">',
                  f'\t\t<LtcChange frameCount="0" value="{value}" status="increment"/>',
                  '\t</LtcChangeTable>']
    lines += [
        f'\t<CreationDate value="{when_text}"/>',
        '\t<VideoFormat>',
        '\t\t<VideoRecPort port="DIRECT"/>',
        '\t\t<VideoFrame videoCodec="AVC_3840_2160_HP@L51" captureFps="25p" formatFps="25p"/>',
        '\t\t<VideoLayout pixel="3840" numOfVerticalLine="2160" aspectRatio="16:9"/>',
        '\t</VideoFormat>',
        '\t<AudioFormat numOfChannel="2">',
        '\t\t<AudioRecPort port="DIRECT CH1" audioCodec="LPCM16" trackDst="CH1"/>',
        '\t\t<AudioRecPort port="DIRECT CH2" audioCodec="LPCM16" trackDst="CH2"/>',
        '\t</AudioFormat>',
        f'\t<Device manufacturer="Sony" modelName="{model}" serialNo="4294967295"/>',
        '\t<RecordingMode type="normal" cacheRec="false"/>',
        '</NonRealTimeMeta>',
        '',
    ]
    return "\r\n".join(lines).encode()


def box(kind, payload):
    return struct.pack(">I", 8 + len(payload)) + kind + payload


def write_movie(path, x, when, camera, zone, tmp, tc=None):
    """A camera clip: tiny picture, the camera's sound, and the dates (and timecode) the camera
    writes: a wall-clock container date, Sony XML in and beside the file, or a name date."""
    wav = tmp + ".wav"
    write_wav(wav, x, RATE)
    dur = len(x) / RATE
    dates = camera.get("dates", "container")
    if dates == "utc":
        # Phones keep the container date in UTC and their local time in the file name.
        created = (when - zone).strftime("%Y-%m-%dT%H:%M:%S.000000Z")
    else:
        created = when.strftime("%Y-%m-%dT%H:%M:%S.000000Z")
    cmd = ["ffmpeg", "-v", "error", "-y",
           "-f", "lavfi", "-i", f"testsrc2=size={VIDEO}:rate={FPS}:duration={dur:.3f}",
           "-i", wav, "-map", "0:v", "-map", "1:a",
           "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
           "-c:a", "aac", "-b:a", "64k", "-ac", "2", "-t", f"{dur:.3f}",
           "-metadata", "creation_time=" + created]
    if camera.get("make"):
        cmd += ["-metadata", f"make={camera['make']}", "-metadata", f"model={camera['model']}"]
    if tc is not None:
        cmd += ["-timecode", tc[0]]
    subprocess.run(cmd + [path], check=True)
    os.remove(wav)
    if dates == "sony":
        sign = "+" if zone >= dt.timedelta(0) else "-"
        minutes = int(abs(zone.total_seconds()) // 60)
        text = when.strftime("%Y-%m-%dT%H:%M:%S") + f"{sign}{minutes // 60:02d}:{minutes % 60:02d}"
        xml = sony_xml(text, camera["model"], dur, tc[1] if tc is not None else None)
        hdlr = box(b"hdlr", bytes(8) + b"meta" + bytes(12) + b"\0")
        with open(path, "ab") as f:
            f.write(box(b"meta", bytes(4) + hdlr + box(b"xml ", bytes(4) + xml)))
        with open(os.path.splitext(path)[0] + "M01.XML", "wb") as f:
            f.write(xml)


# -- Devices and their clips

def clip(name, start, dur, **extra):
    return dict(name=name, start=round(float(start), 3), dur=round(float(dur), 3), **extra)


def cam(folder, make, model, clock, clips, ext="MOV", hears=None, **extra):
    return dict(folder=folder, kind="camera", make=make, model=model, clock=clock, clips=clips,
                ext=ext, hears=hears or {"scene": 1.0}, **extra)


def rec(folder, originator, clock, clips, channels=None, layout="flat", hears=None, **extra):
    """A sound recorder. `channels` lists (suffix, acoustics, hears, stereo) for a recorder that
    writes one file per channel: flat beside each other, or in one folder per take."""
    return dict(folder=folder, kind="recorder", ident=originator, clock=clock, clips=clips,
                channels=channels or [("", "boom", hears or {"scene": 1.0}, False)],
                layout=layout, **extra)


def lay_takes(r, start, n, dur, gap):
    takes, t = [], start
    for _ in range(n):
        d = r.uniform(*dur)
        takes.append((t, d))
        t += d + r.uniform(*gap)
    return takes


def named(spans, pattern, first=1):
    return [clip(pattern.format(first + i), s, d) for i, (s, d) in enumerate(spans)]


def cover(r, takes, share, pre=(1.0, 6.0), post=(1.0, 6.0)):
    """Clips of a camera that rolls a little before a take and stops a little after it."""
    spans, last = [], -1e9
    for s, d in takes:
        if r.random() > share:
            continue
        a = max(s - r.uniform(*pre), last + 1.0, 0.5)
        b = s + d + r.uniform(*post)
        spans.append((a, b - a))
        last = b
    return spans


def inserts(r, takes, per_take, dur):
    """Short clips of a second camera inside takes (B-roll, inserts, reactions)."""
    spans = []
    for s, d in takes:
        t, end = s + r.uniform(2, 10), s + d - 2
        for _ in range(int(r.integers(per_take[0], per_take[1] + 1))):
            length = min(r.uniform(*dur), end - t)
            if length < dur[0]:
                break
            spans.append((t, length))
            t += length + r.uniform(3, 15)
    return spans


def clock_error(r, lo, hi):
    """A device clock off by lo..hi seconds either way, never a whole second."""
    return float(round(r.choice([-1, 1]) * r.uniform(lo, hi) + r.uniform(0.05, 0.95), 3))


def end_of(devices):
    return max(c["start"] + c["dur"] for d in devices for c in d["clips"])


# -- Scenarios, each a function of its own generator

def shoot_channels_2(r):
    """A two-channel recorder writing SCENE01_1.WAV and SCENE01_2.WAV (boom and lavalier) per
    take into one folder, beside one or two cameras."""
    takes = lay_takes(r, r.uniform(15, 30), int(r.integers(5, 9)), (60, 200), (8, 60))
    devices = [
        rec("Sound", "MixPre-3 II", 0.0, named(takes, "SCENE{:02d}", int(r.integers(1, 20))),
            channels=[("_1", "boom", {"scene": 1.0}, False), ("_2", "lav", {"scene": 1.1}, False)]),
        cam("CamA", "Canon", "EOS R5", clock_error(r, 60, 7200), named(cover(r, takes, 0.85),
                                                                        "MVI_{:04d}", 101)),
    ]
    if r.random() < 0.7:
        devices.append(cam("CamB", "Panasonic", "DC-GH5", clock_error(r, 5, 600),
                           named(inserts(r, takes, (0, 2), (15, 50)), "P10{:05d}", 201)))
    return {"devices": devices}


def shoot_channels_4(r):
    """A four-channel recorder with one folder per take (ZOOM0003/ZOOM0003_Tr1.WAV, _Tr2, _Tr3 and
    the stereo _LR of its own microphones, or four inputs), two lavaliers, a boom; two cameras."""
    takes = lay_takes(r, r.uniform(15, 30), int(r.integers(5, 8)), (60, 240), (10, 90))
    if r.random() < 0.5:
        model, last = "ZOOM H6", ("_LR", "room", {"actor": 0.6, "partner": 0.6}, True)
    else:
        model, last = "ZOOM F4", ("_Tr4", "boom", {"actor": 0.5, "partner": 0.7}, False)
    channels = [("_Tr1", "lav", {"actor": 1.0, "partner": 0.25}, False),
                ("_Tr2", "lav", {"partner": 1.0, "actor": 0.25}, False),
                ("_Tr3", "boom", {"actor": 0.8, "partner": 0.8}, False), last]
    both = {"actor": 1.0, "partner": 1.0}
    return {
        "sources": {"actor": {"f0": (90, 150)}, "partner": {"f0": (170, 260)}},
        "devices": [
            rec("Zoom", model, 0.0, named(takes, "ZOOM{:04d}", int(r.integers(1, 40))),
                channels=channels, layout="folders"),
            cam("CamA", "Canon", "EOS R5", clock_error(r, 60, 7200),
                named(cover(r, takes, 0.9), "MVI_{:04d}", 301), hears=both),
            cam("CamB", "Panasonic", "DC-GH5", clock_error(r, 5, 900),
                named(cover(r, takes, 0.7, pre=(3, 12), post=(2, 8)), "P10{:05d}", 401),
                hears=both),
        ],
    }


def shoot_timecode(r):
    """Cameras whose clips carry time-of-day timecode from their own clocks, never jammed: 30-90 s
    from the recorder's (its Broadcast WAV time reference) and from each other. A lavalier
    recorder runs long takes on its own clock, just as unjammed."""
    takes = lay_takes(r, r.uniform(20, 40), int(r.integers(6, 9)), (50, 180), (10, 60))
    # The lavalier recorder runs through two or three takes at a time.
    lav_takes, i = [], 0
    while i < len(takes):
        group = takes[i:i + int(r.integers(2, 4))]
        i += len(group)
        a = group[0][0] - r.uniform(5, 20)
        if lav_takes:
            a = max(a, lav_takes[-1][0] + lav_takes[-1][1] + 1.0)
        b = group[-1][0] + group[-1][1] + r.uniform(5, 20)
        lav_takes.append((a, b - a))
    tc_a = clock_error(r, 30, 90)
    tc_b = clock_error(r, 30, 90)
    while abs(tc_b - tc_a) < 20:
        tc_b = clock_error(r, 30, 90)
    return {"devices": [
        rec("Sound", "Sound Devices 633", 0.0, named(takes, "T{:03d}", int(r.integers(1, 30)))),
        rec("Lav", "TASCAM DR-10L", clock_error(r, 30, 90),
            named(lav_takes, "TASCAM_{:04d}", int(r.integers(1, 90))), hears={"scene": 1.2}),
        cam("CamA", "Canon", "EOS C70", tc_a, named(cover(r, takes, 0.85), "A001C{:03d}", 1),
            tc=tc_a),
        cam("CamB", "Blackmagic Design", "Pocket Cinema Camera 6K", tc_b,
            named(inserts(r, takes, (1, 2), (20, 70)), "B002C{:03d}", 1), tc=tc_b),
    ]}


def gopro(rec_number, chapters, start):
    """The files of one GoPro recording: chapters of `chapters` seconds each, named GX01nnnn,
    GX02nnnn..."""
    out, t = [], start
    for k, d in enumerate(chapters):
        out.append(clip(f"GX{k + 1:02d}{rec_number:04d}", t, d, recording=f"GX{rec_number:04d}"))
        t += d
    return out


def chapter_lengths(r, total, limit):
    full = int(total // limit)
    return [limit] * full + ([total - full * limit] if total - full * limit > 1 else [])


def shoot_chapters(r):
    """A GoPro that split a 20-minute take into three chapters (GX010045, GX020045, GX030045) among
    other recordings, so that name order interleaves them; a second camera that only overlaps
    the later chapters; and a Sony whose long recording ran into files of one size limit, named as
    any clips, each starting where the one before ended."""
    n0 = int(r.integers(20, 90))
    limit = round(r.uniform(500, 560), 2)
    t = r.uniform(20, 40)
    takes = []
    rec_a = clip(f"GX01{n0:04d}", t + r.uniform(5, 15), r.uniform(120, 200),
                 recording=f"GX{n0:04d}")
    takes.append((t, rec_a["start"] + rec_a["dur"] + r.uniform(5, 20) - t))
    long_start = takes[-1][0] + takes[-1][1] + r.uniform(40, 80)
    long_total = r.uniform(1180, 1230)
    chapters = gopro(n0 + 1, chapter_lengths(r, long_total, limit), long_start)
    ch2, ch3 = chapters[1], chapters[2]
    # The recorder hears part of the first chapter, nothing of the second, and the third on.
    a = long_start + r.uniform(60, 120)
    takes.append((a, r.uniform(150, 250)))
    a = ch3["start"] + r.uniform(10, 40)
    takes.append((a, long_start + long_total + r.uniform(30, 90) - a))
    camb = []
    t2 = ch2["start"] + r.uniform(15, 40)
    while t2 + 40 < ch2["start"] + ch2["dur"] - 15 and len(camb) < 4:
        d = min(r.uniform(40, 90), ch2["start"] + ch2["dur"] - 15 - t2)
        camb.append((t2, d))
        t2 += d + r.uniform(10, 40)
    camb.append((ch3["start"] + r.uniform(60, 120), r.uniform(40, 80)))
    # Later recordings, each with a take of its own.
    t = takes[-1][0] + takes[-1][1] + r.uniform(30, 60)
    later = []
    for k in range(2, 4):
        d = r.uniform(60, 180)
        later += gopro(n0 + k, [d], t + r.uniform(3, 8))
        takes.append((t, d + r.uniform(10, 16)))
        t += takes[-1][1] + r.uniform(20, 60)
    # The Sony's long recording: files of one size limit, starting during a take.
    size_limit = round(r.uniform(420, 520), 2)
    files = chapter_lengths(r, size_limit * 2 + r.uniform(150, 300), size_limit)
    sony, s = [], t + r.uniform(40, 60)
    first = int(r.integers(1, 300))
    for k, d in enumerate(files):
        sony.append(clip(f"C{first + k:04d}", s, d, recording=f"C{first:04d}"))
        s += d
    takes.append((sony[0]["start"] - r.uniform(20, 35), r.uniform(100, 200)))
    takes.append((sony[-1]["start"] - r.uniform(30, 60), r.uniform(120, 200)))
    gopro_clips = [rec_a] + chapters + later
    return {"devices": [
        rec("Sound", "ZOOM F6", 0.0, named(takes, "T{:03d}", 1)),
        cam("GoPro", None, "HERO9 Black", clock_error(r, 30, 3600), gopro_clips, ext="MP4"),
        cam("CamB", "Canon", "EOS R5", clock_error(r, 60, 7200), named(camb, "MVI_{:04d}", 501)),
        cam("Sony", None, "ILME-FX6", clock_error(r, 1, 20), sony, ext="MP4", dates="sony"),
    ]}


def shoot_short_clips(r):
    """Forty action-camera clips of 2 to 45 s in wind, beside a recorder that ran in long takes."""
    takes = lay_takes(r, r.uniform(20, 40), 3, (450, 700), (30, 90))
    durs = np.concatenate([r.uniform(2, 8, 14), r.uniform(8, 20, 14), r.uniform(20, 45, 12)])
    r.shuffle(durs)
    span_lo, span_hi = takes[0][0] + 5, takes[-1][0] + takes[-1][1] - 5
    gaps = r.dirichlet(np.ones(len(durs) + 1)) * (span_hi - span_lo - durs.sum())
    spans, t = [], span_lo
    for d, g in zip(durs, gaps):
        t += g
        spans.append((t, d))
        t += d
    return {"devices": [
        rec("Sound", "ZOOM F6", 0.0, named(takes, "T{:03d}", int(r.integers(1, 50))),
            wind=0.003),
        cam("Action", None, "HERO11 Black", clock_error(r, 30, 900),
            named(spans, "GX01{:04d}", int(r.integers(1, 900))), ext="MP4", wind=0.01),
    ]}


def shoot_ref_takes(r):
    """The reference recorder stopped and started again a second later several times (its clock
    knows whole seconds only, so some takes begin at a fraction of one); a camera rolled across two
    such takes; other cameras shot inside takes."""
    n = int(r.integers(8, 11))
    quick = r.random(n - 1) < 0.55
    g = int(r.integers(1, n - 2))
    quick[g] = True
    takes, t = [], r.uniform(10, 30)
    for i in range(n):
        d = r.uniform(40, 150)
        takes.append((t, d))
        if i < n - 1:
            t += d + (r.uniform(0.7, 1.3) if quick[i] else r.uniform(10, 60))
    (s0, d0), (s1, d1) = takes[g], takes[g + 1]
    across = (s0 + r.uniform(0.3, 0.6) * d0, s1 + r.uniform(0.4, 0.7) * d1)
    rest = [tk for i, tk in enumerate(takes) if i not in (g, g + 1)]
    cam_a = sorted(cover(r, rest, 0.7) + [(across[0], across[1] - across[0])])
    return {"devices": [
        rec("Sound", "ZOOM F6", 0.0, named(takes, "ZOOM{:04d}", int(r.integers(1, 200)))),
        cam("CamA", "Canon", "EOS R5", clock_error(r, 60, 7200), named(cam_a, "MVI_{:04d}", 601)),
        cam("CamB", "Panasonic", "DC-GH5", clock_error(r, 5, 900),
            named(inserts(r, takes, (0, 2), (12, 55)), "P10{:05d}", 701)),
        cam("CamC", None, "HERO9 Black", clock_error(r, 30, 900),
            named(inserts(r, takes[1::2], (0, 1), (10, 50)), "GX01{:04d}", 801), ext="MP4"),
    ]}


def shoot_lone_clip(r):
    """A day of more than an hour. A camera whose clips mostly overlap the recorder has one clip in
    a long pause where nothing else ran, and a 4-minute clip in a 17-minute pause; its clock, set
    hours wrong, is right relative to itself, as its other clips prove."""
    n = int(r.integers(9, 12))
    long_gap, gap17 = r.choice(np.arange(1, n - 2), 2, replace=False)
    takes, t, lone = [], r.uniform(20, 40), []
    for i in range(n):
        d = r.uniform(120, 300)
        takes.append((t, d))
        t += d
        if i == long_gap:
            gap = r.uniform(600, 900)
            length = r.uniform(60, 150)
            lone.append((t + r.uniform(0.3, 0.6) * (gap - length), length))
        elif i == gap17:
            gap = r.uniform(1000, 1040)
            lone.append((t + r.uniform(120, gap - 240 - 120), 240.0))
        else:
            gap = r.uniform(20, 120)
        t += gap
    cam_a = sorted(cover(r, takes, 0.9) + lone)
    return {"devices": [
        rec("Sound", "ZOOM F6", 0.0, named(takes, "T{:03d}", int(r.integers(1, 60)))),
        cam("CamA", "Canon", "EOS R5", clock_error(r, 3600, 3 * 3600),
            named(cam_a, "MVI_{:04d}", int(r.integers(1, 900)))),
        cam("CamB", "Panasonic", "DC-GH5", clock_error(r, 5, 900),
            named(inserts(r, takes, (0, 2), (12, 55)), "P10{:05d}", 901)),
    ]}


def shoot_timezone(r):
    """Shot where clocks read UTC-7 and cut where they read otherwise: a Sony writes its dates with
    the offset (-07:00), the recorders Broadcast WAV wall clock with no zone, a Canon its wall
    clock as container dates, and a phone its local time in its file names."""
    takes = lay_takes(r, r.uniform(20, 40), int(r.integers(6, 9)), (60, 240), (10, 60))
    lav_takes = [(s - r.uniform(3, 10), d + r.uniform(8, 20)) for s, d in takes[1::2]]
    phone = inserts(r, takes[::3], (1, 2), (10, 40))
    return {
        "zone": -7.0,
        "tz": "Europe/Berlin",
        "devices": [
            rec("Sound", "ZOOM F6", 0.0, named(takes, "T{:03d}", int(r.integers(1, 60)))),
            rec("Lav", "TASCAM DR-10L", clock_error(r, 2, 20),
                named(lav_takes, "TASCAM_{:04d}", int(r.integers(1, 90))), hears={"scene": 1.2}),
            cam("FX3", None, "ILME-FX3", clock_error(r, 1, 10),
                [dict(c, subdir="PRIVATE/M4ROOT/CLIP")
                 for c in named(cover(r, takes, 0.85), "C{:04d}", int(r.integers(1, 500)))],
                ext="MP4", dates="sony", tc=0.0),
            cam("CamB", "Canon", "EOS R5", clock_error(r, 60, 600),
                named(cover(r, takes, 0.6, pre=(2, 10), post=(2, 10)), "MVI_{:04d}", 1001)),
            cam("Phone", None, "Pixel 7", round(r.uniform(-0.9, 0.9), 3),
                [dict(c, name=None) for c in named(phone, "{}", 1)], ext="mp4", dates="utc"),
        ],
    }


def shoot_mixed(r):
    """All of it on one day: a two-channel recorder in takes (some a second apart), a four-channel
    recorder in take folders, cameras with unjammed timecode, a Sony with zoned dates, a GoPro
    whose long take came in chapters, an action camera's short clips in wind, a camera clip in a
    long pause; a crowd murmurs through the middle of the day and a song plays twice."""
    n = 12
    takes, t = [], r.uniform(20, 40)
    for i in range(n):
        d = r.uniform(60, 200)
        takes.append((t, d))
        t += d + (r.uniform(0.7, 1.3) if r.random() < 0.35 else r.uniform(15, 80))
        if i == 4:
            pause_at = t
            t += r.uniform(700, 900)
    day = t
    song_len = r.uniform(150, 200)
    play1 = takes[2][0] + r.uniform(10, 30)
    play2 = pause_at + r.uniform(200, 350)
    crowd = (takes[3][0], takes[9][0] + takes[9][1])
    sources = {
        "scene": {},
        "crowd": {"voices": 10, "level": 0.015, "pace": 0.7, "spans": [crowd], "place": False},
        "music": {"song": song_len, "plays": [play1, play2]},
    }
    loud = {"scene": 1.0, "crowd": 1.0, "music": 0.6}
    # Sony: covers most takes; one clip in the long pause, where the song plays its second time.
    sony = cover(r, takes, 0.75)
    sony = sorted(sony + [(pause_at + r.uniform(20, 60), r.uniform(60, 100))])
    # GoPro: a 20-minute take in three chapters from the sixth take on, and two short recordings.
    n0 = int(r.integers(20, 90))
    limit = round(r.uniform(500, 560), 2)
    long_start = takes[6][0] - r.uniform(5, 20)
    gp = gopro(n0 + 1, chapter_lengths(r, r.uniform(1180, 1230), limit), long_start)
    gp = [clip(f"GX01{n0:04d}", takes[1][0] + 5, min(90.0, takes[1][1] - 10),
               recording=f"GX{n0:04d}")] + gp
    t2 = gp[-1]["start"] + gp[-1]["dur"] + 20
    # One camera records one thing at a time: a last recording only where the long take left room.
    length = r.uniform(40, 90)
    if t2 < day - 100:
        gp += gopro(n0 + 2, [length], t2)
    # Action camera: short clips in wind through the second half of the day, some during the song.
    durs = np.concatenate([r.uniform(2, 8, 8), r.uniform(8, 20, 7), r.uniform(20, 45, 5)])
    r.shuffle(durs)
    lo, hi = play2 - 30, day - 30
    gaps = r.dirichlet(np.ones(len(durs) + 1)) * (hi - lo - durs.sum())
    action, a = [], lo
    for d, g in zip(durs, gaps):
        a += g
        action.append((a, d))
        a += d
    # The second recorder rolls a little before each take and stops a little after it, but never
    # before its previous file has ended: one recorder writes one file at a time.
    zoom_takes, last = [], -1e9
    for s, d in takes[5:9]:
        a = max(s - r.uniform(2, 6), last + 1.0)
        b = s + d + r.uniform(2, 4)
        zoom_takes.append((a, b - a))
        last = b
    tc_a, tc_b = clock_error(r, 30, 90), clock_error(r, 30, 90)
    while abs(tc_b - tc_a) < 20:
        tc_b = clock_error(r, 30, 90)
    channels2 = [("_1", "boom", loud, False), ("_2", "lav", {"scene": 1.1, "crowd": 0.3}, False)]
    channels4 = [("_Tr1", "lav", {"scene": 1.0, "crowd": 0.3}, False),
                 ("_Tr2", "lav", {"scene": 0.8, "crowd": 0.3}, False),
                 ("_Tr3", "boom", loud, False),
                 ("_LR", "room", {"scene": 0.6, "crowd": 1.0, "music": 0.8}, True)]
    return {
        "zone": -7.0,
        "tz": "Europe/Berlin",
        "sources": sources,
        "devices": [
            rec("Sound", "MixPre-6 II", 0.0, named(takes, "SCENE{:02d}", 1), channels=channels2),
            rec("Zoom", "ZOOM H6", clock_error(r, 2, 40), named(zoom_takes, "ZOOM{:04d}", 1),
                channels=channels4, layout="folders"),
            cam("FX3", None, "ILME-FX3", tc_a,
                [dict(c, subdir="PRIVATE/M4ROOT/CLIP") for c in named(sony, "C{:04d}", 1)],
                ext="MP4", dates="sony", tc=tc_a, hears=loud),
            cam("C70", "Canon", "EOS C70", tc_b,
                named(inserts(r, takes, (0, 2), (15, 60)), "A001C{:03d}", 1), tc=tc_b,
                hears=loud),
            cam("GoPro", None, "HERO9 Black", clock_error(r, 30, 3600), gp, ext="MP4",
                hears=loud, wind=0.003),
            cam("Action", None, "Osmo Action 4", clock_error(r, 30, 900),
                named(action, "DJI_{:04d}", 1), ext="MP4", hears=loud, wind=0.01),
        ],
    }


GENERATED = {
    "channels-2": shoot_channels_2,
    "channels-4": shoot_channels_4,
    "timecode": shoot_timecode,
    "chapters": shoot_chapters,
    "short-clips": shoot_short_clips,
    "ref-takes": shoot_ref_takes,
    "lone-clip": shoot_lone_clip,
    "timezone": shoot_timezone,
    "mixed": shoot_mixed,
}


def make_sources_sparse(defs, seed):
    out = {}
    for i, (name, d) in enumerate(defs.items()):
        key = [seed, 4242, i]
        if "song" in d:
            out[name] = Song(key, d["song"], d["plays"])
        else:
            out[name] = Scene(key, f0=tuple(d.get("f0", (90, 260))), voices=d.get("voices", 1),
                              level=d.get("level", 0.15), pace=d.get("pace", 1.0),
                              spans=d.get("spans"), tells_place=d.get("place", True))
    return out


def make_generated(out, name, seed):
    r = np.random.default_rng([seed, sum(map(ord, name))])
    spec = GENERATED[name](r)
    zone = dt.timedelta(hours=spec.get("zone", 0.0))
    sources = make_sources_sparse(spec.get("sources", {"scene": {}}), seed)
    items, truth = [], []
    for di, device in enumerate(spec["devices"]):
        drop = os.path.join(out, device["folder"])
        os.makedirs(drop, exist_ok=True)
        for ci, c in enumerate(device["clips"]):
            rng = np.random.default_rng([seed, 77, di, ci])
            start, dur = c["start"], c["dur"]
            when = LOCAL_BASE + dt.timedelta(seconds=start + device["clock"])
            a, b = int(round(start * RATE)), int(round((start + dur) * RATE))

            def hear(hears):
                x = np.zeros(b - a)
                for src, gain in hears.items():
                    x += gain * sources[src].render(a, b)
                return x

            def heard(hears):
                return [{"source": src, "from": max(lo, start), "to": min(hi, start + dur)}
                        for src, gain in hears.items()
                        if gain > 0 and sources[src].tells_place
                        for lo, hi in sources[src].heard(start, start + dur)]

            base = {"device": device["folder"], "kind": device["kind"], "start": start,
                    "duration": dur, "clockError": device["clock"]}
            if device["kind"] == "camera":
                folder = os.path.join(drop, c.get("subdir", ""))
                os.makedirs(folder, exist_ok=True)
                stem = c["name"] or "VID_" + when.strftime("%Y%m%d_%H%M%S")
                path = os.path.join(folder, stem + "." + device["ext"])
                x = acoustics("camera", hear(device["hears"]), rng)
                if device.get("wind"):
                    x += wind(rng, len(x), device["wind"])
                tc = None
                if device.get("tc") is not None:
                    tc = timecode_text((when - LOCAL_BASE.replace(hour=0)).total_seconds()
                                       - device["clock"] + device["tc"])
                write_movie(path, x, when, device, zone, os.path.join(out, ".tmp-" + stem), tc)
                items.append({"path": path, "dropHint": drop})
                extra = {"recording": c["recording"]} if "recording" in c else {}
                truth.append(dict(base, path=path, heard=heard(device["hears"]), **extra))
                continue
            folder = os.path.join(drop, c["name"]) if device["layout"] == "folders" else drop
            os.makedirs(folder, exist_ok=True)
            noise = wind(rng, b - a, device["wind"]) if device.get("wind") else 0
            for suffix, kind, hears, stereo in device["channels"]:
                path = os.path.join(folder, c["name"] + suffix + ".WAV")
                x = hear(hears) + noise
                chans = [acoustics(kind, x, rng) for _ in range(2 if stereo else 1)]
                write_bwf_channels(path, chans, when, device["ident"])
                items.append({"path": path, "dropHint": drop})
                truth.append(dict(base, path=path, heard=heard(hears), channel=suffix))
    with open(os.path.join(out, "request.json"), "w") as f:
        json.dump({"version": 1, "items": items}, f, indent=1)
    with open(os.path.join(out, "truth.json"), "w") as f:
        json.dump({"scenario": name, "seed": seed, "tz": spec.get("tz", "UTC"),
                   "zone": spec.get("zone", 0.0), "clips": truth}, f, indent=1)


def make_fixed(out, scenario, seed):
    spec = SCENARIOS[scenario]
    rate = spec.get("rate", 48000)
    rng = np.random.default_rng(seed)
    sources, defs = make_sources(spec, rate, rng, seed)

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
                write_bwf(path, recorder_audio(x, rng), rate, when, device["ident"],
                          device.get("whole_seconds", False))
            items.append({"path": path, "dropHint": d})
            truth.append({"path": path, "device": device["folder"], "kind": device["kind"],
                          "start": start, "duration": dur, "clockError": device["clock"],
                          "heard": heard_scenes(device, defs, start, dur)})

    with open(os.path.join(out, "request.json"), "w") as f:
        json.dump({"version": 1, "items": items}, f, indent=1)
    with open(os.path.join(out, "truth.json"), "w") as f:
        json.dump({"scenario": scenario, "clips": truth}, f, indent=1)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("outdir")
    ap.add_argument("--scenario", default="demo", choices=sorted(SCENARIOS) + sorted(GENERATED))
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()
    out = os.path.abspath(args.outdir)
    os.makedirs(out, exist_ok=True)
    if args.scenario in SCENARIOS:
        make_fixed(out, args.scenario, args.seed)
    else:
        make_generated(out, args.scenario, args.seed)
    print(os.path.join(out, "request.json"))


if __name__ == "__main__":
    sys.exit(main())
