"""Tests of the oku Python package on generated recordings (see tests/testaudio.py)."""
import array
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests"))
import oku  # noqa: E402
from testaudio import BURSTS, EXPECTED, signal, write_wav  # noqa: E402

try:
    import numpy
except ImportError:
    numpy = None


class VadTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.samples = signal(16000, BURSTS, 6.0)

    def test_segments_of_a_recording(self):
        segs = oku.Vad(16000).segments(self.samples)
        self.assertEqual([(round(s * 1000), round(e * 1000)) for s, e in EXPECTED],
                         [(round(g.start_ms), round(g.end_ms)) for g in segs])
        self.assertEqual([round(s * 16000) for s, _ in EXPECTED], [g.start_sample for g in segs])

    def test_bytes_arrays_lists_and_chunking_agree(self):
        want = oku.Vad(16000).process(self.samples)
        self.assertEqual(want, oku.Vad(16000).process(self.samples.tobytes()))
        self.assertEqual(want, oku.Vad(16000).process(list(self.samples)))
        self.assertEqual(want, oku.Vad(16000).process(memoryview(self.samples)))
        chunked = oku.Vad(16000)
        got = []
        for i in range(0, len(self.samples), 777):
            got += chunked.process(self.samples[i:i + 777])
        events = [r for r in want if isinstance(r, (oku.SpeechStart, oku.SpeechEnd))]
        self.assertEqual(events, [r for r in got if isinstance(r, (oku.SpeechStart, oku.SpeechEnd))])
        # Every call of 777 samples completes at least one frame of 320, the last
        # one too (its 429 samples): one reading per call.
        self.assertEqual(-(-len(self.samples) // 777), sum(isinstance(r, oku.Volume) for r in got))

    @unittest.skipIf(numpy is None, "numpy is not installed")
    def test_numpy_arrays(self):
        a = numpy.frombuffer(self.samples.tobytes(), dtype=numpy.int16)
        self.assertEqual(oku.Vad(16000).process(self.samples), oku.Vad(16000).process(a))
        self.assertEqual(oku.Vad(16000).process(self.samples[::2]), oku.Vad(16000).process(a[::2]))

    def test_results_carry_their_fields(self):
        results = oku.Vad(16000).process(self.samples)
        self.assertIsInstance(results[0], oku.SpeechStart)
        self.assertEqual(860.0, results[0].time_ms)
        self.assertEqual(13760, results[0].position)
        volume = results[-1]
        self.assertIsInstance(volume, oku.Volume)  # one reading for the whole chunk, after its events
        self.assertEqual(6000.0, volume.time_ms)
        self.assertIn(volume.assessment, oku.ASSESSMENTS)
        self.assertLessEqual(abs(volume.peak - 8000), 100)

    def test_frames_when_asked(self):
        vad = oku.Vad(8000, frames=True)
        results = vad.process([100] * 400) + vad.flush()
        frames = [r for r in results if isinstance(r, oku.Frame)]
        self.assertEqual([0, 1, 2], [f.index for f in frames])
        self.assertEqual([160, 160, 80], [len(f.samples) for f in frames])
        self.assertEqual((100,) * 80, frames[2].samples)

    def test_errors(self):
        with self.assertRaisesRegex(ValueError, "^Sampling rate$"):
            oku.Vad(44100)
        with self.assertRaisesRegex(ValueError, "^Invalid format$"):
            oku.Vad(16000, "EOSTimeoutMs")
        with self.assertRaisesRegex(ValueError, "HistogramWindowSizeMs"):
            oku.Vad(16000, "HistogramWindowSizeMs=1")
        with self.assertRaisesRegex(ValueError, "LeastGain"):
            oku.Agc(16000, "LeastGain=7")
        with self.assertRaisesRegex(ValueError, "gain must lie"):
            oku.Agc(16000).process([0] * 10, 1.5)
        with self.assertRaises(TypeError):
            oku.Vad(16000).process("not audio")
        with self.assertRaises(TypeError):
            oku.Vad(16000).process(array.array("f", [0.5]))
        with self.assertRaises(ValueError):
            oku.Vad(16000).process(b"\x00")


class AgcTest(unittest.TestCase):
    def test_silence_raises_six_decibels_per_update(self):
        agc = oku.Agc(16000)
        lines = []
        logged = oku.Agc(16000, log=lines.append)
        gain, d = agc.process(bytes(2 * 5 * 320), 0.01)
        self.assertEqual(0.01, round(gain, 6))
        self.assertFalse(d.updated)
        gain, d = agc.process(bytes(2 * 320), 0.01)
        self.assertTrue(d.updated)
        self.assertEqual("pause_too_low", d.control)
        self.assertAlmostEqual(10 ** (6 / 20) * 0.01, gain, places=6)
        logged.process(bytes(2 * 6 * 320), 0.5)
        self.assertEqual(1, len(lines))
        self.assertTrue(lines[0].startswith("120\t 0.5\t0\t 0\t"))

    def test_zero_gain_asks_for_an_estimate(self):
        gain, d = oku.Agc(8000).process(b"", 0.0)
        self.assertAlmostEqual(0.001 ** 0.5, gain, places=6)
        self.assertEqual("gain_estimate", d.control)


class ModuleCommandTest(unittest.TestCase):
    """python3 -m oku prints what the oku command prints."""

    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.wav = os.path.join(cls.dir.name, "bursts.wav")
        write_wav(cls.wav, 16000, signal(16000, BURSTS, 6.0))
        cls.quiet = os.path.join(cls.dir.name, "quiet.wav")
        write_wav(cls.quiet, 16000, signal(16000, [(0.5, 5.5)], 6.0, noise=2, tone=300))

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def run_python(self, *args):
        env = dict(os.environ, PYTHONPATH=os.path.join(HERE, ".."))
        return subprocess.run([sys.executable, "-m", "oku", *args], capture_output=True, env=env, timeout=120)

    @unittest.skipUnless(os.environ.get("OKU"), "OKU names the oku command to compare with")
    def test_same_output_as_the_command(self):
        for args in (["vad", self.wav], ["vad", "--meter", "--format", "json", self.wav],
                     ["vad", "--format", "csv", "--params", "EOSTimeoutMs=1200", self.wav],
                     ["agc", "--volume", "20000", self.quiet], ["agc", "--format", "json", self.wav, self.quiet]):
            mine = self.run_python(*args)
            theirs = subprocess.run([os.environ["OKU"], *args], capture_output=True, timeout=120)
            self.assertEqual(0, mine.returncode, mine.stderr)
            self.assertEqual(theirs.stdout.decode(), mine.stdout.decode(), args)

    def test_bad_parameters_exit_with_two(self):
        p = self.run_python("vad", "--params", "EOSTimeoutMs", self.wav)
        self.assertEqual(2, p.returncode)
        self.assertIn(b"Invalid format", p.stderr)
        p = self.run_python("vad", os.path.join(self.dir.name, "missing.wav"), self.wav)
        self.assertEqual(1, p.returncode)
        self.assertIn(b"segment", p.stdout)


if __name__ == "__main__":
    unittest.main()
