"""oku.segment_file on generated files, and the Dask recipe of docs/corpus.md
on a local cluster of two worker processes (skipped, with the reason, without
soundfile or Dask's distributed scheduler)."""
import importlib.util
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import warnings
from pathlib import Path

from support import BURSTS, EXPECTED, ROOT, numpy, oku, signal, write_wav

try:
    import soundfile
except ImportError:
    soundfile = None

# name, rate, channels, libsndfile subtype
FILES = [("mono16k.wav", 16000, 1, "PCM_16"), ("stereo44k.flac", 44100, 2, "PCM_24"),
         ("float48k.wav", 48000, 2, "FLOAT"), ("byte8k.wav", 8000, 1, "PCM_U8"), ("stereo24k.wav", 24000, 2, "PCM_16")]


class WithoutSoundfileTest(unittest.TestCase):
    @unittest.skipIf(soundfile is not None, "soundfile is installed")
    def test_files_need_soundfile(self):
        self.assertRaises(ImportError, oku.segment_file, os.path.join(ROOT, "data", "speech16k.wav"))


@unittest.skipIf(soundfile is None, "the soundfile package is not installed for %s" % sys.executable)
class SegmentFileTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="oku-files-")
        cls.paths = []
        for name, rate, channels, subtype in FILES:
            samples = numpy.array(signal(rate, BURSTS, 6.0, channels=channels)).reshape(-1, channels)
            cls.paths.append(cls.path(name))
            soundfile.write(cls.paths[-1], samples / 32768, rate, subtype=subtype)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def path(cls, name):
        return os.path.join(cls.tmp.name, name)

    def test_a_file_gives_the_segments_of_its_samples(self):
        # 16-bit PCM goes to the library as 16-bit ints, everything else as the floats libsndfile
        # decodes, at the file's rate and channels: the rule the oku command follows too.
        for path, (name, rate, channels, subtype) in zip(self.paths, FILES):
            with self.subTest(name=name):
                cut = oku.segment_file(path)
                samples = soundfile.read(path, dtype="int16" if subtype == "PCM_16" else "float32", always_2d=True)[0]
                self.assertTrue(numpy.array_equal(samples, oku.read_file(path)[0]))
                self.assertEqual((rate, channels, 6 * rate, 6 * rate), (cut.rate, cut.channels, cut.frames,
                                                                          cut.declared_frames or 6 * rate))
                self.assertEqual(oku.Vad(rate, channels=channels).segments(samples), list(cut.segments))
                self.assertEqual([round(s * rate, -2) for s, _ in EXPECTED],
                                 [round(s.start_sample, -2) for s in cut.segments])

    def test_a_variable_bit_rate_mp3_is_read_whole(self):
        # lamemp3enc writes variable bit rate frames and no header giving the length, which
        # libsndfile alone reads only as far as the first frame's bit rate suggests.
        mp3 = self.path("bursts.mp3")
        if not shutil.which("gst-launch-1.0") or subprocess.run(("gst-launch-1.0 -q filesrc location=%s ! wavparse ! "
                "audioconvert ! lamemp3enc ! filesink location=%s" % (self.paths[0], mp3)).split()).returncode:
            self.skipTest("GStreamer's lamemp3enc is not installed")
        cut = oku.segment_file(mp3)
        self.assertAlmostEqual(6.0, cut.duration_s, delta=0.15)  # the codec's delay and padding
        self.assertEqual((cut.frames, 1), oku.read_file(mp3)[0].shape)
        self.assertEqual([round(s, 1) for s, _ in EXPECTED], [round(s.start_ms / 1000, 1) for s in cut.segments])

    def test_files_that_cannot_be_cut(self):
        wav, flac = (Path(p).read_bytes() for p in self.paths[:2])
        for name, data in (("notes.wav", b"not audio"), ("short.flac", flac[:len(flac) // 2]), ("header.wav", wav[:44]),
                           ("cut.wav", wav[:44 + 2 * 16000 * 3])):
            Path(self.path(name)).write_bytes(data)
        write_wav(self.path("odd.wav"), 44000, signal(44000, BURSTS, 1.0))
        for name, error in (("missing.wav", FileNotFoundError), ("", IsADirectoryError), ("notes.wav", ValueError),
                            ("short.flac", ValueError), ("header.wav", ValueError), ("odd.wav", ValueError)):
            self.assertRaises(error, oku.segment_file, self.path(name))
        self.assertRaises(ValueError, oku.segment_file, self.paths[0], "EOSTimeoutMs")
        # A truncated WAV file is cut as far as it goes, with a warning; a length a streaming writer
        # left open (espeak-ng --stdout writes 0x7FFFF000) and a coding of many frames per block
        # (IMA ADPCM) declare nothing, as the oku command reads them.
        opened = bytearray(wav)
        opened[40:44] = (0x7FFFF000).to_bytes(4, "little")
        Path(self.path("open.wav")).write_bytes(bytes(opened))
        soundfile.write(self.path("adpcm.wav"), numpy.array(signal(16000, BURSTS, 6.0), dtype=numpy.int16), 16000,
                        subtype="IMA_ADPCM")
        for name, frames, declared, warned in (("cut.wav", 3 * 16000, 6 * 16000, 1), ("open.wav", 6 * 16000, None, 0),
                                               ("adpcm.wav", None, None, 0)):
            with self.subTest(name), warnings.catch_warnings(record=True) as caught:
                warnings.simplefilter("always")
                cut = oku.segment_file(self.path(name))
                self.assertEqual((frames or cut.frames, declared, warned), (cut.frames, cut.declared_frames, len(caught)))
        self.assertEqual(oku.segment_file(self.paths[0]).segments[0], oku.segment_file(self.path("cut.wav")).segments[0])

    def test_the_dask_recipe_gives_the_manifest_of_one_process(self):
        if importlib.util.find_spec("distributed") is None:
            self.skipTest("Dask's distributed scheduler is not installed for %s" % sys.executable)
        page = Path(ROOT, "docs", "corpus.md").read_text(encoding="utf-8")
        [script] = [b for b in re.findall(r"```python\n(.*?)```", page, flags=re.S) if "LocalCluster" in b]
        cut, listing, manifest = (Path(self.path(name)) for name in ("cut.py", "files.txt", "manifest.jsonl"))
        cut.write_text(script)
        paths = self.paths + [self.path("missing.wav")]
        listing.write_text("\n".join(paths) + "\n")
        env = dict(os.environ, PYTHONPATH=os.path.join(ROOT, "python"), PYTHONDONTWRITEBYTECODE="1")
        p = subprocess.run([sys.executable, str(cut), "2", str(listing), str(manifest)], capture_output=True, env=env,
                           timeout=600)
        self.assertEqual(0, p.returncode, p.stderr.decode())
        recipe = {"__name__": "recipe"}
        exec(compile(script, str(cut), "exec"), recipe)
        want = "".join(json.dumps(r) + "\n" for path in paths for r in recipe["records"](path))
        self.assertEqual(want, manifest.read_text())
        self.assertEqual(2 * len(FILES) + 1, want.count("\n"))  # two segments a file, one error


if __name__ == "__main__":
    unittest.main()
