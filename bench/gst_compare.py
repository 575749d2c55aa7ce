#!/usr/bin/python3
"""okuvad beside webrtcdsp's voice-activity messages, on the same pipelines and recordings.

    GST_PLUGIN_PATH=build/gst /usr/bin/python3 bench/gst_compare.py [--repeat N]

Recordings, made from data/speech16k.wav (two sentences at samples 16000-62822
and 86822-122855, data/speech16k.txt): "clean" as it is, "noisy" with white
noise 10 dB under the speech's RMS, "quiet" 30 dB down. Each runs through

    filesrc ! wavparse ! ELEMENT ! fakesink

with ELEMENT okuvad (defaults) or webrtcdsp with only its voice detector on
(echo-cancel, noise-suppression, gain-control and high-pass-filter off). The
segments come from the voice-activity messages (an open one is closed at the
end of the audio). CPU time is the process's CPU time for the pipeline minus
that of the same pipeline with identity in ELEMENT's place, over thirty copies of
the recording back to back, the median of --repeat runs, per second of audio.
"""
import argparse
import os
import resource
import statistics
import sys
import tempfile
import wave

import numpy as np
import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

COPIES = 30
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
ELEMENTS = {
    "okuvad": "okuvad",
    "webrtcdsp": "webrtcdsp echo-cancel=false noise-suppression=false gain-control=false "
                 "high-pass-filter=false voice-detection=true",
}


def read(path):
    with wave.open(path) as w:
        return w.getframerate(), np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").astype(np.float64)


def write(path, rate, x):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(np.clip(np.round(x), -32768, 32767).astype("<i2").tobytes())


def recordings(folder):
    rate, x = read(os.path.join(ROOT, "data", "speech16k.wav"))
    speech_rms = np.sqrt(np.mean(x[16000:62822] ** 2))
    noise = np.random.default_rng(1).normal(0, speech_rms / np.sqrt(10), len(x))
    out = {}
    for name, y in (("clean", x), ("noisy", x + noise), ("quiet", x * 10 ** (-30 / 20))):
        once, ten = os.path.join(folder, name + ".wav"), os.path.join(folder, name + "-long.wav")
        write(once, rate, y)
        write(ten, rate, np.tile(y, COPIES))
        out[name] = (once, ten, len(y) / rate)
    return out


def run(path, element):
    """Runs the pipeline; returns (segments in s, CPU seconds)."""
    p = Gst.parse_launch("filesrc location=%s ! wavparse ! %s ! fakesink" % (path, element))
    bus = p.get_bus()
    before = resource.getrusage(resource.RUSAGE_SELF)
    p.set_state(Gst.State.PLAYING)
    changes = []
    while True:
        m = bus.timed_pop_filtered(Gst.CLOCK_TIME_NONE, Gst.MessageType.EOS | Gst.MessageType.ERROR |
                                   Gst.MessageType.ELEMENT)
        if m.type == Gst.MessageType.ERROR:
            sys.exit("%s: %s" % (element, m.parse_error()[0].message))
        if m.type == Gst.MessageType.EOS:
            break
        s = m.get_structure()
        if s.get_name() == "voice-activity":
            changes.append((s.get_value("stream-time") / 1e9, s.get_value("stream-has-voice")))
    after = resource.getrusage(resource.RUSAGE_SELF)
    ok, duration = p.query_duration(Gst.Format.TIME)
    p.set_state(Gst.State.NULL)
    segments, start = [], None
    for t, voice in changes:
        if voice and start is None:
            start = t
        elif not voice and start is not None:
            segments.append((start, t))
            start = None
    if start is not None:
        segments.append((start, duration / 1e9 if ok else float("nan")))
    cpu = (after.ru_utime + after.ru_stime) - (before.ru_utime + before.ru_stime)
    return segments, cpu


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=11)
    args = parser.parse_args()
    Gst.init(None)
    if Gst.ElementFactory.find("okuvad") is None:
        sys.exit("okuvad not found: set GST_PLUGIN_PATH to the folder of libgstoku.so (build/gst)")
    with tempfile.TemporaryDirectory() as folder:
        recs = recordings(folder)
        print("| recording | element | segments (s) | CPU ms per s of audio |")
        print("|---|---|---|---:|")
        for name, (once, ten, seconds) in recs.items():
            for label, element in ELEMENTS.items():
                segments, _ = run(once, element)
                costs = []
                for _ in range(args.repeat):
                    costs.append(run(ten, element)[1] - run(ten, "identity")[1])
                cost = statistics.median(costs) / (COPIES * seconds) * 1000
                text = ", ".join("%.2f–%.2f" % s for s in segments) or "none"
                print("| %s | %s | %s | %.3f |" % (name, label, text, cost))


if __name__ == "__main__":
    main()
