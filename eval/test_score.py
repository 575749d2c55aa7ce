"""Checks the scorer, the collector after WebRTC's VAD and the preset's rule
on hand-made cases whose scores follow from the definitions (eval/score.py,
eval/webrtc.py), and that the report fills every marker of its template.

Needs neither the library nor audio: python3 eval/test_score.py
"""
import json
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import report  # noqa: E402
import score  # noqa: E402
import webrtc  # noqa: E402

A, B = (100, 200), (300, 400)  # two utterances, 100 samples each, a pause of 100 between


class ScoreFile(unittest.TestCase):
    # utterances, segments, expected counts (the rest 0), start and end offsets.
    # Frames of 10 samples: utterance A holds the 10 centres 105..195.
    CASES = [
        ("exact", [A, B], [A, B], dict(one=2, tp=20), [0, 0], [0, 0]),
        ("padded", [A], [(80, 230)], dict(one=1, tp=10, fp=5), [-20], [30]),
        ("clipped at the start", [A], [(120, 260)], dict(one=1, clipped=1, tp=8, fp=6, fn=2), [20], [60]),
        ("clipped at the end", [A], [(90, 190)], dict(one=1, clipped=1, tp=9, fp=1, fn=1), [-10], [-10]),
        ("merged", [A, B], [(90, 410)], dict(merged=2, tp=20, fp=12), [], []),
        ("split", [(100, 400)], [(90, 200), (250, 420)], dict(split=1, tp=25, fp=3, fn=5), [], []),
        ("merged outranks split", [A, B], [(50, 150), (160, 350)], dict(merged=2, tp=14, fp=15, fn=6), [], []),
        ("missed, false on noise alone", [A], [(500, 600)], dict(missed=1, false_noise=1, fp=10, fn=10), [], []),
        ("missed, false in a pause", [A], [(220, 280)], dict(missed=1, false_pause=1, fp=6, fn=10), [], []),
        ("ends exclusive: touching is not meeting", [A], [(200, 300)], dict(missed=1, false_pause=1, fp=10, fn=10),
         [], []),
        ("one sample shared is meeting", [A], [(199, 300)], dict(one=1, clipped=1, fp=10, fn=10), [99], [100]),
        ("no segments", [A, B], [], dict(missed=2, fn=20), [], []),
    ]

    def test_cases(self):
        for name, utterances, segments, expected, starts, ends in self.CASES:
            with self.subTest(name):
                counts, s, e = score.score_file(utterances, segments, noise_alone=(450, 700), frame=10)
                want = dict(utterances=len(utterances), segments=len(segments), **expected)
                self.assertEqual({k: v for k, v in counts.items() if v}, {k: v for k, v in want.items() if v})
                self.assertEqual((s, e), (starts, ends))

    def test_bridged(self):
        self.assertEqual(score.bridged([A, B, (500, 600)], [(90, 410), (500, 600)]), [True, False])
        self.assertEqual(score.bridged([A, B], [(90, 250), (250, 410)]), [False])


class Helpers(unittest.TestCase):
    def test_frames_in_counts_centres(self):
        # (spans, frame, frames whose centre lies in them)
        for spans, frame, n in [([(0, 5)], 10, 0), ([(0, 6)], 10, 1), ([(5, 15)], 10, 1), ([(5, 16)], 10, 2),
                                ([(0, 160)], 160, 1), ([(0, 100), (100, 200)], 10, 20), ([(7, 7)], 10, 0)]:
            self.assertEqual(score.frames_in(spans, frame), n, (spans, frame))

    def test_intersection(self):
        self.assertEqual(score.intersection([(0, 10), (20, 30)], [(5, 25)]), [(5, 10), (20, 25)])
        self.assertEqual(score.intersection([(0, 10)], [(10, 20)]), [])

    def test_f1_and_percentile(self):
        p, r, f = score.f1({"tp": 8, "fp": 2, "fn": 8})
        self.assertAlmostEqual(p, 0.8)
        self.assertAlmostEqual(r, 0.5)
        self.assertAlmostEqual(f, 8 / 13)
        self.assertEqual(score.f1({"tp": 0, "fp": 0, "fn": 0}), (None, None, None))
        self.assertEqual([score.percentile([4, 1, 3, 2], q) for q in (0, 10, 50, 100)], [1, 1.3, 2.5, 4])
        self.assertIsNone(score.percentile([], 50))


class Collector(unittest.TestCase):
    # Judgements (1: voiced) per frame, frames of 1 sample, a ring of 10 and
    # more than 90 % of it to change state: segments.
    CASES = [
        ("silence", [0] * 30, []),
        ("nine voiced of ten do not start", [1] * 9 + [0] * 20, []),
        ("ten voiced start at the ring's oldest frame, open to the end", [0] * 5 + [1] * 10, [(5, 15)]),
        ("ten unvoiced end at the current frame", [1] * 10 + [0] * 10 + [1] * 3, [(0, 20)]),
        ("a voiced frame in the pause holds the segment", [1] * 10 + [0] * 9 + [1] + [0] * 9, [(0, 29)]),
        ("two segments", [1] * 10 + [0] * 10 + [0] * 3 + [1] * 10 + [0] * 10, [(0, 20), (23, 43)]),
    ]

    def test_cases(self):
        for name, voiced, expected in self.CASES:
            with self.subTest(name):
                self.assertEqual(webrtc.collect([bool(v) for v in voiced], 1), expected)

    def test_frames_in_samples(self):
        self.assertEqual(webrtc.collect([True] * 10, 480), [(0, 4800)])


class Rule(unittest.TestCase):
    def test_pick(self):
        row = lambda one, missed, false: {"one": one, "missed": missed, "false_noise": false}
        table = {"default": row(30, 10, 5),
                 "misses more": row(50, 11, 5),
                 "twice the false segments": row(45, 10, 10),
                 "more than twice": row(49, 10, 11),
                 "as many, fewer false": row(45, 2, 8)}
        self.assertEqual(score.pick(table), "as many, fewer false")
        self.assertEqual(score.pick({"default": row(30, 10, 5), "fewer": row(40, 10, 5), "twice": row(41, 10, 10)}),
                         "twice")
        self.assertIsNone(score.pick({"default": row(30, 0, 0), "worse": row(40, 1, 0)}))


class Report(unittest.TestCase):
    def test_page_from_scores(self):
        # Two files of one track at two SNRs, a steady file, two systems.
        truth = {"rate": 1000, "files": [
            {"file": "t-30.wav", "snr_db": 30, "noise": "pink", "frames": 5000, "utterances": [A, B],
             "pauses_after_s": [0.1], "noise_alone": [3000, 4000]},
            {"file": "t-0.wav", "snr_db": 0, "noise": "pink", "frames": 5000, "utterances": [A, B],
             "pauses_after_s": [0.1], "noise_alone": [3000, 4000]},
            {"file": "s.wav", "steady": True, "noise": "pink", "noise_dbfs": -15, "frames": 5000,
             "utterances": [], "noise_alone": [0, 5000]}]}
        found = {"t-30.wav": {"default": [(90, 410)], "preset": [A, B], "webrtc": [A, B, (3500, 3600)]},
                 "t-0.wav": {"default": [], "preset": [A], "webrtc": [A]},
                 "s.wav": {"default": [(0, 5000)], "preset": [(0, 5000)], "webrtc": []}}
        results, noise_s = score.scores(truth, found, ["default", "preset", "webrtc"])
        by = {(r["snr"], r["noise"]): r for r in results["preset"]["by"]}
        self.assertEqual((by[30, "all"]["one"], by[0, "all"]["one"], by[0, "all"]["missed"], by["all", "all"]["one"]),
                         (2, 1, 1, 3))
        self.assertEqual(results["default"]["bridged"], {"0.1": {"pauses": 2, "bridged": 1}})
        self.assertEqual(results["default"]["steady"][0]["detected"], 1.0)
        self.assertEqual(noise_s, {"30": 1.0, "0": 1.0})
        grid = {"default": by["all", "all"], "x": by["all", "all"]}
        info = {"results": results, "noise_alone_s": noise_s, "preset": "x", "grid_pick": "x", "jobs": 2,
                "grid_results": grid, "grid_by_snr": {"default": {"30": 1.0}, "x": {"30": 1.0}},
                "seconds": {"total": 90.0, "build": 30.0},
                "corpus": {"files": 2, "steady_files": 1, "hours": 0.1, "utterances": 4, "tuning_files": 1,
                           "tuning_utterances": 2, "voices": ["v"], "snrs_db": [30, 0], "pauses_s": [0.1, 1],
                           "speech_dbfs": [-30, -20], "steady_dbfs": [-60, -15]},
                "analysis_rates": {"48000": 16000}, "defaults": {"ThresholdUpperLimit": 70},
                "grid": {"EOSTimeoutMs": [300]},
                "machine": {"cpu": "cpu", "cpus": 2, "load": [0.5], "system": "s", "python": "3", "numpy": "1",
                            "oku": "1", "library": "lib", "espeak": "e", "sox": "x", "date": "today"}}
        with tempfile.TemporaryDirectory() as tmp:
            out, page = os.path.join(tmp, "accuracy.md"), os.path.join(tmp, "corpus.md")
            with open(os.path.join(tmp, "results.json"), "w") as f:
                json.dump(info, f)
            with open(page, "w") as f:
                f.write("before\n%s\nold\n%s\nafter\n" % (report.PAGE_START, report.PAGE_END))
            with open(os.devnull, "w") as null:
                stdout, sys.stdout = sys.stdout, null
                try:
                    report.main([os.path.join(tmp, "results.json"), "--markdown", out, "--corpus-page", page])
                finally:
                    sys.stdout = stdout
            with open(out) as f:
                text = f.read()
            with open(page) as f:
                corpus_page = f.read()
        self.assertNotRegex(text, r"@[A-Z_]+@")
        self.assertIn("(70 dB, about -20 dBFS for a frame's RMS)", text)
        self.assertIn("| 30 | offline preset | 2 | 100 | 0 | 0 | 0 | 0 | 0.0 | 0 |", text)
        self.assertIn("| 30 | WebRTC VAD | 2 | 100 | 0 | 0 | 0 | 1 | 600.0 | 0 |", text)
        self.assertIn("| 0.1 | 2 | 50 | 0 | 0 |", text)
        self.assertTrue(corpus_page.startswith("before\n") and corpus_page.endswith(report.PAGE_END + "\nafter\n"))
        self.assertNotIn("old", corpus_page)
        self.assertIn("| offline preset | 100 / 0 / 0 | - |", corpus_page)


if __name__ == "__main__":
    unittest.main(verbosity=2)
