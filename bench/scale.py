#!/usr/bin/python3
"""Scale benchmark: two large requests through the CLI.

1. 10,000 items in 100 drops of 100 paths, nine in ten of them missing files, the rest 2-second
   WAVs: prints scale_missing_seconds.
2. 2,000 real short files in 20 drops of 100 (2 to 10 s WAVs, and a few small MP4s per drop):
   prints scale_seconds and scale_peak_rss_mb.
"""

import json
import os
import subprocess
import sys
import tempfile
import time
import wave

import numpy as np

RATE = 16000


def write_wav(path, seconds, rng):
    x = (rng.standard_normal(int(seconds * RATE)) * 3000).astype("<i2")
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(x.tobytes())


def write_mp4(path, seconds):
    subprocess.run(
        ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
         f"testsrc2=size=64x36:rate=25:duration={seconds}", "-f", "lavfi", "-i",
         f"anoisesrc=r=16000:d={seconds}", "-c:v", "libx264", "-preset", "ultrafast",
         "-c:a", "aac", "-shortest", path],
        check=True)


def run_cli(cli, request_path, cache):
    """Runs one request; returns seconds, the CLI's own peak RSS in MB, exit code, event lines."""
    env = dict(os.environ, XDG_CACHE_HOME=cache)
    with tempfile.TemporaryFile() as out, open(os.devnull, "w") as null:
        start = time.monotonic()
        proc = subprocess.Popen([cli, "--input", request_path], stdout=out, stderr=null, env=env)
        _, status, usage = os.wait4(proc.pid, 0)
        elapsed = time.monotonic() - start
        proc.returncode = os.waitstatus_to_exitcode(status)
        out.seek(0)
        lines = out.read().decode("utf-8", "replace").splitlines()
    return elapsed, usage.ru_maxrss / 1024.0, proc.returncode, lines


def main():
    cli = os.environ.get("TESSARIN_CLI") or sys.argv[1]
    rng = np.random.default_rng(3)
    with tempfile.TemporaryDirectory() as work:
        # 1. Mostly missing files.
        items = []
        for d in range(100):
            drop = os.path.join(work, "missing", f"drop{d:03d}")
            os.makedirs(drop)
            for i in range(100):
                path = os.path.join(drop, f"clip{i:03d}.wav")
                if i % 10 == 0:
                    write_wav(path, 2.0, rng)
                items.append({"path": path, "dropHint": drop})
        req1 = os.path.join(work, "missing.json")
        with open(req1, "w") as f:
            json.dump({"version": 1, "items": items}, f)

        # 2. Real short files.
        items = []
        for d in range(20):
            drop = os.path.join(work, "real", f"drop{d:02d}")
            os.makedirs(drop)
            for i in range(100):
                secs = 2 + (i * 7 + d) % 9
                if i % 20 == 0:
                    path = os.path.join(drop, f"clip{i:03d}.mp4")
                    write_mp4(path, secs)
                else:
                    path = os.path.join(drop, f"clip{i:03d}.wav")
                    write_wav(path, secs, rng)
                items.append({"path": path, "dropHint": drop})
        req2 = os.path.join(work, "real.json")
        with open(req2, "w") as f:
            json.dump({"version": 1, "items": items}, f)

        t1, _, rc1, lines1 = run_cli(cli, req1, os.path.join(work, "cache1"))
        t2, rss2, rc2, lines2 = run_cli(cli, req2, os.path.join(work, "cache2"))
        results2 = sum(1 for l in lines2 if '"type":"result"' in l)
        print(f"missing_run_exit={rc1} missing_run_events={len(lines1)}")
        print(f"real_run_exit={rc2} real_run_results={results2}")
        print(f"scale_missing_seconds={t1:.2f}")
        print(f"scale_seconds={t2:.2f}")
        print(f"scale_peak_rss_mb={rss2:.1f}")


if __name__ == "__main__":
    main()
