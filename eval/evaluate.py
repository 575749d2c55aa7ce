"""Measures how well the analyzer finds utterances: builds the labelled
corpora (eval/corpus.py), runs the analyzer with its default settings and with
the offline preset, and WebRTC's VAD, scores them (eval/score.py), and writes
the figures as JSON for eval/report.py.

usage: python3 eval/evaluate.py WORK_DIR [--jobs N]

Run by `make eval` with OKU_LIBRARY naming the library to measure. WORK_DIR
receives the corpora (corpus/, tuning/), every system's segments
(segments.json) and the figures (results.json).

- The evaluation corpus (seed 1, six tracks per kind of noise) is scored for
  every system. At 16 kHz the analyzer takes the samples oku.read_file reads;
  the same files resampled by sox to 44.1 and 48 kHz go through
  oku.segment_file, the library's input path doing the rate conversion.
- The tuning corpus (seed 2, other sentences, two tracks per kind of noise)
  is scored for each setting of GRID: the preset was chosen on it, by
  score.pick's rule, so that the evaluation corpus judges the choice on
  audio it was not chosen on.
"""
import argparse
import itertools
import json
import multiprocessing
import os
import platform
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "python"))

import numpy as np  # noqa: E402

import corpus  # noqa: E402
import oku  # noqa: E402
import score  # noqa: E402
import webrtc  # noqa: E402

# The analyzer's settings for cutting recorded speech offline (docs/corpus.md).
PRESET = "EOSTimeoutMs=300;ThresholdOffsetPause=8;ThresholdOffsetSpeech=2"
SYSTEMS = (("default", None), ("preset", PRESET), ("webrtc", None))
FILE_RATES = (44100, 48000)
SEEDS = {"corpus": 1, "tuning": 2}
TRACKS = {"corpus": 6, "tuning": 2}
# The settings searched on the tuning corpus: every combination.
GRID = {"EOSTimeoutMs": (250, 300, 360, 420),
        "ThresholdOffsetPause": (6, 8, 10, 12, 16),
        "ThresholdOffsetSpeech": (2, 4, 6)}


def grid():
    """Every parameter string of GRID."""
    keys = list(GRID)
    return [";".join("%s=%g" % (k, v) for k, v in zip(keys, values))
            for values in itertools.product(*(GRID[k] for k in keys))]


def to_rate(segments, rate, truth_rate):
    """Segments of oku (input frames at rate) as (start, end) at the truth's rate."""
    return [(round(s.start_sample * truth_rate / rate), round(s.end_sample * truth_rate / rate)) for s in segments]


def run_file(job):
    """Every system's segments on one file, at the truth's rate."""
    path, truth_rate, settings, with_rates, tmp = job
    samples, rate = oku.read_file(path)
    assert rate == truth_rate and samples.shape[1] == 1, path
    out = {}
    for name, params in settings:
        if name == "webrtc":
            out[name] = webrtc.segments(np.ascontiguousarray(samples.reshape(-1)), rate)
        else:
            with oku.Vad(rate, params) as vad:
                out[name] = to_rate(vad.segments(samples), rate, truth_rate)
    for r in with_rates:
        resampled = os.path.join(tmp, "%d-%s" % (r, os.path.basename(path)))
        subprocess.run(["sox", "-R", path, "-r", str(r), resampled], check=True)
        try:
            for name, params in settings:
                if name != "webrtc":
                    cut = oku.segment_file(resampled, params)
                    out["%s@%d" % (name, r)] = to_rate(cut.segments, r, truth_rate)
        finally:
            os.remove(resampled)
    return os.path.basename(path), out


def run(folder, settings, with_rates, jobs):
    """{file: {system: segments}} over every file of a corpus folder."""
    with open(os.path.join(folder, "truth.json")) as f:
        truth = json.load(f)
    tmp = os.path.join(folder, "tmp")
    os.makedirs(tmp, exist_ok=True)
    work = [(os.path.join(folder, t["file"]), truth["rate"], settings,
             () if t.get("steady") else with_rates, tmp) for t in truth["files"]]
    with multiprocessing.Pool(jobs) as pool:
        found = dict(pool.imap(run_file, work))
    return truth, found


def tool_version(command):
    """The first line a tool prints for its version, its words joined by single
    spaces, up to a "Data at:" (where espeak-ng tells its data folder)."""
    try:
        line = subprocess.run(command, capture_output=True, text=True).stdout.strip().splitlines()[0]
    except (OSError, IndexError):
        return "unknown"
    return " ".join(line.split("Data at:")[0].split())


def machine():
    model = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            model = next((line.split(":", 1)[1].strip() for line in f if line.startswith("model name")), model)
    except OSError:
        pass
    return {"cpu": model, "cpus": os.cpu_count(), "load": list(os.getloadavg()), "system": platform.platform(),
            "python": platform.python_version(), "numpy": np.__version__, "oku": oku.__version__,
            "library": os.path.relpath(oku.LIBRARY_PATH), "espeak": tool_version(["espeak-ng", "--version"]),
            "sox": tool_version(["sox", "--version"]), "date": time.strftime("%Y-%m-%d")}


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("work_dir")
    parser.add_argument("--jobs", type=int, default=2)
    args = parser.parse_args(argv)
    started = time.time()
    info = {"machine": machine(), "jobs": args.jobs, "preset": PRESET, "grid": GRID, "seconds": {}}

    folders = {}
    for name in ("corpus", "tuning"):
        t = time.time()
        folders[name] = os.path.join(args.work_dir, name)
        truths = corpus.build(folders[name], SEEDS[name], TRACKS[name], args.jobs, steady_files=name == "corpus")
        info["seconds"]["build " + name] = time.time() - t
        print("eval: %s: %d files built in %.0f s" % (name, len(truths), time.time() - t), flush=True)

    t = time.time()
    truth, found = run(folders["corpus"], SYSTEMS, FILE_RATES, args.jobs)
    systems = sorted({s for f in found.values() for s in f})
    info["results"], info["noise_alone_s"] = score.scores(truth, found, systems)
    info["seconds"]["systems"] = time.time() - t
    print("eval: systems scored in %.0f s" % (time.time() - t), flush=True)

    t = time.time()
    candidates = [("default", None)] + [(p, p) for p in grid()]
    tuning_truth, tuning_found = run(folders["tuning"], candidates, (), args.jobs)
    tuning, _ = score.scores(tuning_truth, tuning_found, [name for name, _ in candidates])
    info["grid_results"] = {name: next(r for r in tuning[name]["by"] if r["snr"] == "all")
                            for name, _ in candidates}
    info["grid_by_snr"] = {name: {str(r["snr"]): r["one"] / r["utterances"] for r in tuning[name]["by"]
                                  if r["noise"] == "all" and r["snr"] != "all"} for name, _ in candidates}
    info["grid_pick"] = score.pick(info["grid_results"])
    info["seconds"]["grid"] = time.time() - t
    print("eval: %d settings scored on the tuning corpus in %.0f s" % (len(candidates), time.time() - t), flush=True)

    corpus_files = [t for t in truth["files"] if not t.get("steady")]
    info["corpus"] = {
        "files": len(corpus_files), "steady_files": len(truth["files"]) - len(corpus_files),
        "hours": sum(t["frames"] for t in truth["files"]) / truth["rate"] / 3600,
        "utterances": sum(len(t["utterances"]) for t in corpus_files),
        "tuning_files": len(tuning_truth["files"]),
        "tuning_utterances": sum(len(t["utterances"]) for t in tuning_truth["files"]),
        "voices": sorted({t["voice"] for t in corpus_files}),
        "snrs_db": corpus.SNRS_DB, "pauses_s": corpus.PAUSES_S, "speech_dbfs": corpus.SPEECH_DBFS,
        "steady_dbfs": corpus.STEADY_DBFS,
    }
    info["analysis_rates"] = {str(r): oku.analysis_rate(r) for r in FILE_RATES}
    info["defaults"] = {s.key: s.default for s in oku.settings("vad")}
    info["seconds"]["total"] = time.time() - started
    with open(os.path.join(args.work_dir, "segments.json"), "w") as f:
        json.dump(found, f)
    with open(os.path.join(args.work_dir, "results.json"), "w") as f:
        json.dump(info, f, indent=1)
    print("eval: %.0f s in all; figures in %s" % (info["seconds"]["total"],
                                                  os.path.join(args.work_dir, "results.json")))
    if info["grid_pick"] != PRESET:
        print("eval: note: on this run the preset's rule picks %s, not the preset" % info["grid_pick"])


if __name__ == "__main__":
    main(sys.argv[1:])
