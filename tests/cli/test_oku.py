"""End-to-end tests of the oku command on generated recordings.

The recordings are tone bursts over noise, placed on 20 ms frame boundaries,
so the analyzer's timing rules give the expected segments exactly: a segment is
dated 7 frames (140 ms) before the first loud frame and ends 14 frames (280 ms)
after the last one (the 21st quiet decision falls 21 frames after it and the
end is dated 7 frames before that decision). See testaudio.py.
"""
import json
import os
import select
import shutil
import subprocess
import sys
import tempfile
import unittest
import wave
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from testaudio import BURSTS, EXPECTED, signal, write_wav  # noqa: E402

OKU = os.environ.get("OKU", "oku")


def run(*args, stdin=None):
    return subprocess.run([OKU, *args], input=stdin, capture_output=True, timeout=120)


def records(stdout, kind):
    return [r for r in map(json.loads, stdout.decode().splitlines()) if r["type"] == kind]


class OkuTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="oku-cli-")
        cls.wav = os.path.join(cls.dir, "bursts.wav")
        write_wav(cls.wav, 16000, signal(16000, BURSTS, 6.0))
        cls.stereo = os.path.join(cls.dir, "bursts44.wav")
        write_wav(cls.stereo, 44100, signal(44100, BURSTS, 6.0, channels=2), channels=2)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def path(self, name):
        return os.path.join(self.dir, name)


class Segments(OkuTest):
    def test_json_segments_follow_the_timing_rules(self):
        p = run("vad", "--format", "json", self.wav)
        self.assertEqual(0, p.returncode, p.stderr)
        segs = records(p.stdout, "segment")
        self.assertEqual(len(EXPECTED), len(segs))
        for (start, end), r in zip(EXPECTED, segs):
            self.assertAlmostEqual(start, r["start_s"], places=3)
            self.assertAlmostEqual(end, r["end_s"], places=3)
            self.assertEqual(round(start * 16000), r["start_sample"])
            self.assertEqual(round(end * 16000), r["end_sample"])
            self.assertAlmostEqual(end - start, r["duration_s"], places=3)
        summary = records(p.stdout, "summary")[0]
        self.assertEqual(2, summary["segments"])
        self.assertEqual(summary["readings"],
                         summary["ok"] + summary["too_noisy"] + summary["too_soft"] + summary["too_loud"])
        self.assertEqual(300, summary["readings"])  # one per 20 ms chunk of 6 s
        # Peak: tone 8000 plus noise of at most 100.
        self.assertLessEqual(abs(summary["peak"] - 8000), 100)

    def test_text_and_csv_carry_the_same_segments(self):
        text = run("vad", self.wav).stdout.decode().splitlines()
        rows = [l.split() for l in text if l.startswith("segment")]
        self.assertEqual([[str(i + 1), "%.3f" % s, "%.3f" % e] for i, (s, e) in enumerate(EXPECTED)],
                         [r[1:4] for r in rows])
        self.assertTrue(any(l.startswith("summary") and "segments=2" in l for l in text))
        csv = run("vad", "--format", "csv", self.wav).stdout.decode().splitlines()
        header = csv[0].split(",")
        segs = [dict(zip(header, l.split(","))) for l in csv[1:] if ",segment," in l]
        self.assertEqual(["%.3f" % s for s, _ in EXPECTED], [r["start_s"] for r in segs])
        self.assertEqual(["%.3f" % e for _, e in EXPECTED], [r["end_s"] for r in segs])

    def test_meter_prints_every_reading(self):
        p = run("vad", "--meter", "--format", "json", self.wav)
        meters = records(p.stdout, "meter")
        self.assertEqual(300, len(meters))
        self.assertAlmostEqual(0.02, meters[0]["time_s"])
        # A reading after W measured frames is in speech from W = s + 4 (speech is
        # detected at frame s + 2, decided once frame s + 3 is measured) up to
        # W = e + 22 (the 21st quiet decision, frame e + 21, ends it).
        for m in meters:
            w = round(m["time_s"] / 0.02)
            inside = any(round(s / 0.02) + 4 <= w <= round(e / 0.02) + 22 for s, e in BURSTS)
            self.assertEqual(inside, m["speech"], m)
        self.assertEqual({"ok"}, {m["assessment"] for m in meters})

    def test_stereo_44k_gives_the_same_times_within_a_frame(self):
        p = run("vad", "--format", "json", self.stereo)
        self.assertEqual(0, p.returncode)
        self.assertIn(b"resampling 44100 Hz to 22050 Hz", p.stderr)
        self.assertIn(b"mixing 2 channels down to mono", p.stderr)
        segs = records(p.stdout, "segment")
        self.assertEqual(len(EXPECTED), len(segs))
        for (start, end), r in zip(EXPECTED, segs):
            self.assertLessEqual(abs(start - r["start_s"]), 0.02)
            self.assertLessEqual(abs(end - r["end_s"]), 0.02)
            self.assertLessEqual(abs(r["start_s"] * 44100 - r["start_sample"]), 1)

    def test_params_reach_the_analyzer(self):
        # The bursts are 1 s apart: the default 420 ms timeout ends the first; 1000 ms merges them.
        p = run("vad", "--format", "json", "--params", "EOSTimeoutMs=1200", self.wav)
        segs = records(p.stdout, "segment")
        self.assertEqual(1, len(segs))
        self.assertAlmostEqual(0.86, segs[0]["start_s"], places=3)

    def test_split_writes_one_file_per_segment(self):
        out = self.path("split")
        p = run("vad", "--split", out, self.stereo)
        self.assertEqual(0, p.returncode, p.stderr)
        files = sorted(os.listdir(out))
        self.assertEqual(2, len(files))
        segs = records(run("vad", "--format", "json", self.stereo).stdout, "segment")
        for name, r in zip(files, segs):
            self.assertTrue(name.startswith("bursts44-"), name)
            self.assertIn("%.3fs" % r["start_s"], name)
            with wave.open(os.path.join(out, name)) as w:
                self.assertEqual(44100, w.getframerate())
                self.assertEqual(2, w.getnchannels())
                self.assertEqual(r["end_sample"] - r["start_sample"], w.getnframes())

    def test_parallel_jobs_keep_input_order(self):
        p = run("vad", "--format", "json", "--jobs", "2", self.stereo, self.wav, self.stereo)
        files = [r["file"] for r in records(p.stdout, "summary")]
        self.assertEqual([self.stereo, self.wav, self.stereo], files)

    def test_plot_is_svg_with_one_band_per_segment(self):
        svg = self.path("plot.svg")
        self.assertEqual(0, run("vad", "--plot", svg, self.wav).returncode)
        root = ET.parse(svg).getroot()
        ns = "{http://www.w3.org/2000/svg}"
        self.assertEqual(ns + "svg", root.tag)
        bands = [e for e in root.iter(ns + "rect") if e.get("class") == "segment"]
        self.assertEqual(2, len(bands))
        self.assertEqual(300, len([e for e in root.iter(ns + "line") if e.get("class") == "meter"]))


class Streaming(OkuTest):
    def test_raw_stdin_prints_the_start_before_the_input_ends(self):
        raw = signal(16000, BURSTS, 6.0).tobytes()
        half = int(3.0 * 16000) * 2
        proc = subprocess.Popen([OKU, "vad", "--raw", "--rate", "16000", "--format", "json", "-"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            proc.stdin.write(raw[:half])
            proc.stdin.flush()
            lines = []
            while len(lines) < 2:  # the first start and the first segment lie in the first half
                ready, _, _ = select.select([proc.stdout], [], [], 10)
                self.assertTrue(ready, "no output before the input ended: %r" % lines)
                lines.append(json.loads(proc.stdout.readline()))
            self.assertEqual(["start", "segment"], [r["type"] for r in lines])
            self.assertAlmostEqual(0.86, lines[0]["start_s"], places=3)
            proc.stdin.write(raw[half:])
            proc.stdin.close()
            rest = [json.loads(l) for l in proc.stdout.read().decode().splitlines()]
            self.assertEqual(["start", "segment", "summary"], [r["type"] for r in rest])
            self.assertEqual(0, proc.wait(timeout=30))
        finally:
            proc.kill()
            proc.wait()
            proc.stdout.close()
            proc.stderr.close()

    def test_wav_on_stdin(self):
        with open(self.wav, "rb") as f:
            p = run("vad", "--format", "json", "-", stdin=f.read())
        self.assertEqual(len(EXPECTED), len(records(p.stdout, "segment")))


class GainControl(OkuTest):
    def test_closed_loop_raises_a_quiet_recording(self):
        quiet = self.path("quiet.wav")
        write_wav(quiet, 16000, signal(16000, [(0.5, 5.5)], 6.0, noise=2, tone=300))
        log, out, svg = self.path("agc.log"), self.path("captured.wav"), self.path("agc.svg")
        p = run("agc", "--format", "json", "--volume", "20000", "--log", log, "--out", out, "--plot", svg, quiet)
        self.assertEqual(0, p.returncode, p.stderr)
        decisions = records(p.stdout, "decision")
        summary = records(p.stdout, "summary")[0]
        self.assertGreater(summary["final_volume"], 20000)
        self.assertEqual(summary["decisions"], len(decisions))
        self.assertTrue(all(d["volume_after"] >= d["volume_before"] for d in decisions))
        self.assertEqual(50, len(decisions))  # one update per 120 ms of 6 s
        raised = [d for d in decisions if d["volume_after"] > d["volume_before"]]
        self.assertTrue(raised and all(d["control"] in ("pause_too_low", "speech_too_low", "operating_limit")
                                       for d in raised))
        with open(log) as f:
            self.assertEqual(len(decisions), len(f.read().splitlines()))  # one log line per update
        with wave.open(out) as w:
            self.assertEqual(6 * 16000, w.getnframes())
        ET.parse(svg)

    def test_starting_volume_zero_asks_for_an_estimate(self):
        p = run("agc", "--format", "json", "--volume", "0", self.wav)
        first = records(p.stdout, "decision")[0]
        self.assertEqual("gain_estimate", first["control"])
        self.assertEqual(int(0.0316228 * 65535), first["volume_after"])


class BadInput(OkuTest):
    def expect(self, args, status, message, stdin=None):
        p = run(*args, stdin=stdin)
        self.assertEqual(status, p.returncode, p.stderr)
        err = p.stderr.decode()
        self.assertIn(message, err)
        return p

    def test_input_problems_name_the_file_and_the_others_go_on(self):
        empty, text = self.path("empty.wav"), self.path("text.wav")
        open(empty, "wb").close()
        with open(text, "w") as f:
            f.write("not audio\n")
        p = self.expect(["vad", "--format", "json", "missing.wav", empty, text, self.wav], 1,
                        "oku: missing.wav: cannot open: No such file or directory")
        err = p.stderr.decode()
        self.assertIn("oku: %s: empty file" % empty, err)
        self.assertIn("oku: %s: not an audio file" % text, err)
        self.assertEqual([self.wav], [r["file"] for r in records(p.stdout, "summary")])
        self.assertEqual(3, len(err.splitlines()))

    def test_streams(self):
        self.expect(["vad", "--raw", "--rate", "16000", "-"], 1, "oku: -: no audio in it", stdin=b"")
        self.expect(["vad", "--raw", "--rate", "100", "-"], 1, "cannot resample a sampling rate of 100 Hz",
                    stdin=b"\0" * 1000)
        self.expect(["vad", "-"], 1, "oku: -: no audio in it", stdin=b"")

    def test_bad_options_and_parameters_exit_with_two(self):
        self.expect(["vad", "--jobs", "0", self.wav], 2, "--jobs: expected a whole number")
        self.expect(["vad", "--format", "xml", self.wav], 2, "--format: expected text, json or csv")
        self.expect(["vad", "--raw", "-"], 2, "--raw needs --rate")
        self.expect(["agc", "--volume", "70000", self.wav], 2, "--volume: 70000 is above the bound 65535")
        self.expect(["vad", "--bogus", self.wav], 2, "unknown option '--bogus'")
        self.expect(["vad"], 2, "no input files")
        self.expect(["vad", "--params", "EOSTimeoutMs", self.wav], 2, "--params: malformed parameter string")
        self.expect(["vad", "--params", "EOSTimeoutMs=soon", self.wav], 2, "--params: EOSTimeoutMs: 'soon' is not")
        self.expect(["agc", "--params", "LeastGain=0", self.wav], 2, "--params: LeastGain must lie in (0, 1]")
        self.expect(["vad", "--params", "HistogramWindowSizeMs=5", self.wav], 2, "HistogramWindowSizeMs")

    def test_help_and_version(self):
        self.assertIn(b"usage: oku vad", run("vad", "--help").stdout)
        self.assertIn(b"--mic-gain", run("agc", "--help").stdout)
        self.assertRegex(run("--version").stdout.decode(), r"^oku \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
