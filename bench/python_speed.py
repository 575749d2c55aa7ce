#!/usr/bin/python3
"""Python against the oku command on the same recording: CPU seconds per hour
of audio, and their ratios, as a markdown table for docs/performance.md.

usage: OKU_LIBRARY=build-bench/libOKUVAD.so PYTHONPATH=python \\
       bench/python_speed.py OKU_COMMAND OUT.md [--minutes N] [--repeat N]

The recording is data/speech16k.wav looped to N minutes (10 by default) with a
noise floor of about -59 dBFS added (a fixed seed), written as a 16-bit WAV
file at 16 kHz and as a float WAV file at 48 kHz stereo (sox converts it).
Each case runs --repeat times (5 by default) and counts with its fastest run,
as bench/report.py counts the C cases:

- the command: `oku vad --no-progress FILE` (reading the file, analysing it and
  writing its records to /dev/null), the CPU time of the child process;
- Vad.segments(samples) on the samples already in memory (numpy int16 or
  float32 frames x channels), the CPU time of this process;
- oku.segment_file(FILE): reading the file with soundfile and analysing it.

The first is what the Python package is held to: segments() at most 1.3 times
the command's time on the same samples. Exit status 1 when it is not met.
"""
import os
import resource
import subprocess
import sys
import tempfile
import time

import numpy
import soundfile

import oku

GOAL = 1.3


def recording(minutes):
    speech, rate = soundfile.read(os.path.join(os.path.dirname(__file__), "..", "data", "speech16k.wav"),
                                  dtype="int16")
    n = int(minutes * 60 * rate)
    x = numpy.resize(speech, n).astype(numpy.float64)
    x += numpy.random.default_rng(1).normal(0.0, 37.0, n)  # about -59 dBFS
    return numpy.clip(numpy.rint(x), -32768, 32767).astype(numpy.int16), rate


def child_cpu(argv):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)


def own_cpu(fn):
    start = time.process_time()
    fn()
    return time.process_time() - start


def fastest(repeat, measure):
    return min(measure() for _ in range(repeat))


def main(argv):
    if len(argv) < 2:
        sys.exit(__doc__.split("\n\n")[1])
    command, out = argv[0], argv[1]
    options = {"--minutes": 10.0, "--repeat": 5}
    rest = argv[2:]
    while rest:
        if rest[0] not in options or len(rest) < 2:
            sys.exit("python_speed.py: unknown option or missing value: " + rest[0])
        options[rest[0]] = type(options[rest[0]])(rest[1])
        rest = rest[2:]
    minutes, repeat = options["--minutes"], options["--repeat"]
    samples, rate = recording(minutes)
    hours = len(samples) / rate / 3600.0
    rows, failed = [], 0
    with tempfile.TemporaryDirectory() as folder:
        mono = os.path.join(folder, "speech-16000-1-s16.wav")
        soundfile.write(mono, samples, rate, subtype="PCM_16")
        stereo = os.path.join(folder, "speech-48000-2-f32.wav")
        subprocess.run(["sox", "-D", mono, "-r", "48000", "-e", "floating-point", "-b", "32", stereo,
                        "remix", "1", "1v0.5"], check=True)
        for path, label in ((mono, "16 kHz 16-bit mono"), (stereo, "48 kHz float stereo")):
            data, file_rate = soundfile.read(path, dtype="int16" if path == mono else "float32", always_2d=True)
            channels = data.shape[1]
            cli = fastest(repeat, lambda: child_cpu([command, "vad", "--no-progress", path]))
            segments = fastest(repeat, lambda: own_cpu(lambda: oku.Vad(file_rate, channels=channels).segments(data)))
            whole = fastest(repeat, lambda: own_cpu(lambda: oku.segment_file(path)))
            found = oku.Vad(file_rate, channels=channels).segments(data)
            if len(found) != len(oku.segment_file(path).segments):
                sys.exit("python_speed.py: segments() and segment_file() disagree on %s" % path)
            ratio = segments / cli
            met = ratio <= GOAL
            failed += not met
            rows.append("| %s | %.3f | %.3f | %.3f | %.2f | %.2f | %s |" % (
                label, cli / hours, segments / hours, whole / hours, ratio, whole / cli, "met" if met else "NOT MET"))
    table = ["| recording | command, CPU s per hour of audio | Vad.segments() | segment_file() "
             "| segments() / command | segment_file() / command | goal: segments() <= %g x command |" % GOAL,
             "|---|---:|---:|---:|---:|---:|---|"] + rows
    text = "\n".join(table) + "\n"
    print(text)
    with open(out, "w", encoding="utf-8") as f:
        f.write(text)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
