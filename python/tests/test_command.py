"""python -m oku on generated WAV files (see testaudio.py for the timing rules)."""
import json
import os
import subprocess
import sys
import tempfile
import unittest

from support import BURSTS, EXPECTED, ROOT, signal, write_wav


def run(*args):
    env = dict(os.environ, PYTHONPATH=os.path.join(ROOT, "python"), PYTHONDONTWRITEBYTECODE="1")
    return subprocess.run([sys.executable, "-m", "oku", *args], capture_output=True, env=env, timeout=300)


def records(stdout, kind):
    return [r for r in map(json.loads, stdout.decode().splitlines()) if r["type"] == kind]


class CommandTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.wav = cls.path("bursts.wav")
        write_wav(cls.wav, 16000, signal(16000, BURSTS, 6.0))
        cls.quiet = cls.path("quiet.wav")
        write_wav(cls.quiet, 8000, signal(8000, [(0.5, 5.5)], 6.0, noise=2, tone=300))

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    @classmethod
    def path(cls, name):
        return os.path.join(cls.dir.name, name)

    def test_vad_records(self):
        p = run("vad", "--meter", self.wav)
        self.assertEqual(0, p.returncode, p.stderr)
        segments = records(p.stdout, "segment")
        self.assertEqual([(s, e, round(e - s, 9), round(s * 16000), round(e * 16000)) for s, e in EXPECTED],
                         [(r["start_s"], r["end_s"], round(r["duration_s"], 9), r["start_sample"], r["end_sample"])
                          for r in segments])
        self.assertEqual([1, 2], [r["index"] for r in segments])
        self.assertEqual({self.wav}, {r["file"] for r in records(p.stdout, "meter")})
        [summary] = records(p.stdout, "summary")
        self.assertEqual(300, summary["readings"])  # one per 20 ms chunk of 6 s
        self.assertEqual(300, len(records(p.stdout, "meter")))
        self.assertEqual(300, sum(summary[a] for a in ("ok", "too_noisy", "too_soft", "too_loud")))
        self.assertEqual((16000, 16000, 6.0, 2), (summary["rate"], summary["original_rate"], summary["duration_s"],
                                                   summary["segments"]))
        self.assertAlmostEqual(sum(e - s for s, e in EXPECTED), summary["speech_s"], places=9)

    def test_agc_records_follow_the_volume(self):
        p = run("agc", "--volume", "2000", self.quiet)
        self.assertEqual(0, p.returncode, p.stderr)
        decisions = records(p.stdout, "decision")
        [summary] = records(p.stdout, "summary")
        # The first update after 120 ms; the quiet start is raised by 6 dB (2000 x 1.995 = 3990.5).
        self.assertEqual((0.12, "pause_too_low", 2000), tuple(decisions[0][k] for k in ("time_s", "control",
                                                                                        "volume_before")))
        self.assertIn(decisions[0]["volume_after"], (3989, 3990))
        # The volume changes only at decisions: each starts where the one before left it.
        for before, after in zip(decisions, decisions[1:]):
            self.assertEqual(before["volume_after"], after["volume_before"])
        self.assertEqual(decisions[-1]["volume_after"], summary["final_volume"])
        self.assertEqual(sum(d["volume_before"] != d["volume_after"] for d in decisions), summary["changes"])
        self.assertGreater(summary["final_volume"], 2000)  # a quiet recording is turned up
        counts = {}
        for d in decisions:
            counts[d["control"]] = counts.get(d["control"], 0) + 1
        self.assertEqual(len(decisions), summary["decisions"])
        self.assertEqual(counts, {c: n for c, n in summary.items() if c in counts})

    def test_bad_input(self):
        stereo = self.path("stereo.wav")
        write_wav(stereo, 16000, signal(16000, BURSTS, 1.0, channels=2), channels=2)
        fast = self.path("fast.wav")
        write_wav(fast, 44100, signal(44100, BURSTS, 1.0))
        p = run("vad", self.path("missing.wav"), stereo, fast, self.wav)
        self.assertEqual(1, p.returncode)
        self.assertEqual([self.wav], [r["file"] for r in records(p.stdout, "summary")])
        errors = p.stderr.decode().splitlines()
        self.assertEqual(3, len(errors), errors)
        self.assertIn("missing.wav", errors[0])
        self.assertIn("mix", errors[1])
        self.assertIn("22050", errors[2])
        for args in (["vad", "--params", "EOSTimeoutMs", self.wav], ["agc", "--volume", "70000", self.wav],
                     ["vad", "--chunk-ms", "0", self.wav]):
            p = run(*args)
            self.assertEqual((2, b""), (p.returncode, p.stdout), args)
        p = run("vad", "--params", "EOSTimeout=600", self.wav)
        self.assertEqual(0, p.returncode)
        self.assertIn("'EOSTimeout' is not a setting", p.stderr.decode())


if __name__ == "__main__":
    unittest.main()
