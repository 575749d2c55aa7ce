"""End-to-end tests of the oku command on recordings the tests generate.

The recordings are tone bursts over noise, placed on 20 ms frame boundaries,
so the analyzer's timing rules give the expected segments exactly: a segment is
dated 7 frames (140 ms) before the first loud frame and ends 14 frames (280 ms)
after the last one (the 21st quiet decision falls 21 frames after it and the
end is dated 7 frames before that decision). See testaudio.py.

Child processes are read through their raw pipe descriptors with os.read and
our own line splitting, and every wait has a generous timeout: nothing here
depends on how fast or idle the machine is.
"""
import array
import csv
import io
import json
import os
import resource
import select
import shutil
import stat
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import wave
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from testaudio import (BURSTS, EXPECTED, le_bytes, read_float_wav, signal, write_float_wav,  # noqa: E402
                       write_wav)

OKU = os.environ.get("OKU", "oku")
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
TIMEOUT = 600
# An instrumented build runs many times slower: the long-stream tests then use
# shorter streams; what they check (bounded memory and size) does not depend on it.
SANITIZED = os.environ.get("OKU_SANITIZED") == "1"
HOURS = 2 if SANITIZED else 20
# AddressSanitizer holds freed memory in a quarantine of 256 MB: resident size
# says nothing about the command's own memory there.
RSS_LIMIT_KIB = None if SANITIZED else 64 * 1024


def run(*args, stdin=None, cwd=None, preexec=None, stdout=subprocess.PIPE):
    return subprocess.run([OKU, *args], input=stdin, stdout=stdout, stderr=subprocess.PIPE, timeout=TIMEOUT,
                          cwd=cwd, preexec_fn=preexec)


def sox(*args):
    subprocess.run(["sox", "-D", *args], check=True, capture_output=True, timeout=TIMEOUT)


def python_segments(paths):
    """[(start_sample, end_sample), ...] per file as the Python package's segment_file cuts it,
    run by Debian's Python (which has soundfile) over the library beside the command; None when
    that cannot run here (an instrumented library does not load into a plain Python)."""
    library = os.path.join(os.path.dirname(shutil.which(OKU) or OKU), "libOKUVAD.so")
    if SANITIZED or not (os.path.exists("/usr/bin/python3") and os.path.exists(library)):
        return None
    script = ("import json, sys, warnings; sys.path.insert(0, %r); warnings.simplefilter('ignore')\n"
              "import soundfile, oku\n"
              "for p in sys.argv[1:]:\n"
              "    print(json.dumps([[s.start_sample, s.end_sample] for s in oku.segment_file(p).segments]))"
              % os.path.join(ROOT, "python"))
    p = subprocess.run(["/usr/bin/python3", "-c", script, *paths], capture_output=True, timeout=TIMEOUT,
                       env=dict(os.environ, OKU_LIBRARY=library))
    if p.returncode != 0 and b"No module named" in p.stderr:
        return None
    assert p.returncode == 0, p.stderr
    return [[tuple(s) for s in json.loads(line)] for line in p.stdout.decode().splitlines()]


def records(stdout, kind=None):
    rows = [json.loads(line) for line in stdout.decode("utf-8").splitlines()]
    return [r for r in rows if kind is None or r["type"] == kind]


class LineReader:
    """Lines of a child's pipe, read with os.read on its descriptor (no second buffer)."""

    def __init__(self, pipe):
        self.fd, self.pending, self.lines = pipe.fileno(), b"", []

    def next(self, timeout):
        deadline = time.monotonic() + timeout
        while not self.lines:
            left = deadline - time.monotonic()
            ready, _, _ = select.select([self.fd], [], [], max(0.0, left))
            if not ready:
                return None
            chunk = os.read(self.fd, 65536)
            if not chunk:
                return None
            *whole, self.pending = (self.pending + chunk).split(b"\n")
            self.lines += whole
        return self.lines.pop(0)


class OkuTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="oku-cli-")
        cls.samples = signal(16000, BURSTS, 6.0)
        cls.wav = os.path.join(cls.dir, "bursts.wav")
        write_wav(cls.wav, 16000, cls.samples)
        cls.stereo = os.path.join(cls.dir, "bursts44.wav")
        write_wav(cls.stereo, 44100, signal(44100, BURSTS, 6.0, channels=2), channels=2)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def path(self, *names):
        return os.path.join(self.dir, *names)

    def fresh_dir(self, name):
        d = self.path(name)
        shutil.rmtree(d, ignore_errors=True)
        os.mkdir(d)
        return d

    def encoded(self, name, *encoder):
        """The shipped recording encoded by GStreamer's `encoder` elements into `name`; the
        test is skipped when GStreamer or the first element is not installed."""
        if shutil.which("gst-launch-1.0") is None or subprocess.run(
                ["gst-inspect-1.0", encoder[0]], capture_output=True, timeout=TIMEOUT).returncode != 0:
            self.skipTest("GStreamer's %s is not installed" % encoder[0])
        out = self.path(name)
        argv = ["gst-launch-1.0", "-q", "filesrc", "location=" + self.wav]
        for element in ("wavparse", "audioconvert", "audioresample") + encoder:
            argv += ["!", element]
        argv += ["!", "filesink", "location=" + out]
        subprocess.run(argv, check=True, capture_output=True, timeout=TIMEOUT)
        return out

    def expect(self, args, status, message, **kw):
        p = run(*args, **kw)
        self.assertEqual(status, p.returncode, p.stderr)
        self.assertIn(message, p.stderr.decode("utf-8", "replace"))
        return p


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
        summary = records(p.stdout, "summary")[0]
        self.assertEqual(2, summary["segments"])
        self.assertEqual(300, summary["readings"])  # one per 20 ms chunk of 6 s
        self.assertEqual(summary["readings"],
                         summary["ok"] + summary["too_noisy"] + summary["too_soft"] + summary["too_loud"])
        self.assertLessEqual(abs(summary["peak"] - 8000), 100)  # tone 8000 plus noise of at most 100
        self.assertEqual(0, summary["nonfinite_samples"])

    def test_text_and_csv_carry_the_same_segments(self):
        text = run("vad", self.wav).stdout.decode().splitlines()
        rows = [line.split() for line in text if line.startswith("segment")]
        self.assertEqual([[str(i + 1), "%.3f" % s, "%.3f" % e] for i, (s, e) in enumerate(EXPECTED)],
                         [r[1:4] for r in rows])
        self.assertTrue(any(line.startswith("summary") and "segments=2" in line for line in text))
        csv = run("vad", "--format", "csv", self.wav).stdout.decode().splitlines()
        header = csv[0].split(",")
        segs = [dict(zip(header, line.split(","))) for line in csv[1:] if ",segment," in line]
        self.assertEqual(["%.3f" % s for s, _ in EXPECTED], [r["start_s"] for r in segs])
        self.assertEqual(["%.3f" % e for _, e in EXPECTED], [r["end_s"] for r in segs])

    def test_meter_prints_every_reading(self):
        meters = records(run("vad", "--meter", "--format", "json", self.wav).stdout, "meter")
        self.assertEqual(300, len(meters))
        # A reading after W measured frames is in speech from W = s + 4 (speech is
        # detected at frame s + 2, decided once frame s + 3 is measured) up to
        # W = e + 22 (the 21st quiet decision, frame e + 21, ends it).
        for m in meters:
            w = round(m["time_s"] / 0.02)
            inside = any(round(s / 0.02) + 4 <= w <= round(e / 0.02) + 22 for s, e in BURSTS)
            self.assertEqual(inside, m["speech"], m)
        self.assertEqual({"ok"}, {m["assessment"] for m in meters})
        # the level under the library's name, and under its old name for earlier readers
        self.assertTrue(all(m["level_dbfs"] == m["dbfs"] <= 0 for m in meters))

    def test_positions_of_a_resampled_input_stay_within_it(self):
        # Speech up to the last sample: the segment closes at the end of the input,
        # and its end position must be the input's last sample at most.
        for rate in (44100, 48000, 12000):
            path = self.path("to-the-end-%d.wav" % rate)
            write_wav(path, rate, signal(rate, [(1.0, 3.0)], 3.0))
            p = run("vad", "--format", "json", path)
            seg = records(p.stdout, "segment")[-1]
            summary = records(p.stdout, "summary")[0]
            self.assertLessEqual(seg["end_sample"], 3 * rate, rate)
            self.assertLessEqual(seg["end_s"], summary["duration_s"], rate)
            self.assertAlmostEqual(3.0, summary["duration_s"], places=3)

    def test_params_reach_the_analyzer_and_unknown_keys_are_warned_about(self):
        # The bursts are 1 s apart: the default 420 ms timeout ends the first; 1200 ms merges them.
        p = run("vad", "--format", "json", "--params", "EOSTimeoutMs=1200;EOSTimeOut=5", self.wav)
        self.assertEqual(1, len(records(p.stdout, "segment")))
        self.assertIn(b"warning: --params: EOSTimeOut is not a setting of oku vad", p.stderr)

    def test_parallel_jobs_keep_input_order(self):
        p = run("vad", "--format", "json", "--jobs", "2", self.stereo, self.wav, self.stereo)
        self.assertEqual([self.stereo, self.wav, self.stereo], [r["file"] for r in records(p.stdout, "summary")])

    def test_each_text_record_type_has_its_own_header(self):
        p = run("vad", "--raw", "--rate", "16000", "-", stdin=le_bytes(self.samples))
        lines = p.stdout.decode().splitlines()
        kinds = [line.split()[0] for line in lines]
        self.assertEqual(["#", "start", "#", "segment", "#", "start", "#", "segment", "summary"], kinds)
        self.assertEqual(["index", "start_s", "start_sample"], lines[0].split()[1:])
        self.assertEqual("end_s", lines[2].split()[3])


class InputPath(OkuTest):
    """Files reach the library at their own rate and channels, 16-bit PCM as 16-bit samples and
    everything else as floats; positions come back in the file's own frames."""

    # name, sox arguments from the 16 kHz recording, rate, channels, sample type handed over, resampler
    FILES = [("mono16.wav", [], 16000, 1, "int16", "none"),
             ("float48st.wav", ["-r", "48000", "-c", "2", "-e", "floating-point"], 48000, 2, "float32", "library"),
             ("pcm44st.wav", ["-r", "44100", "-c", "2"], 44100, 2, "int16", "library"),
             ("pcm24_44.flac", ["-r", "44100", "-b", "24"], 44100, 1, "float32", "library"),
             ("pcm24_96st.wav", ["-r", "96000", "-c", "2", "-b", "24"], 96000, 2, "float32", "library"),
             ("pcm16_24k3.wav", ["-r", "24000", "-c", "3"], 24000, 3, "int16", "library"),
             ("odd37800.wav", ["-r", "37800"], 37800, 1, "float32", "libsoxr")]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name, args, *_ in cls.FILES:
            sox(cls.wav, *args, os.path.join(cls.dir, name))

    def test_every_rate_and_encoding_gives_the_bursts_in_its_own_frames(self):
        paths = [self.path(f[0]) for f in self.FILES]
        p = run("vad", "--format", "json", "--jobs", "2", *paths)
        self.assertEqual(0, p.returncode, p.stderr)
        for path, (name, _, rate, channels, kind, resampler) in zip(paths, self.FILES):
            with self.subTest(name=name):
                rows = [r for r in records(p.stdout) if r["file"] == path]
                summary = rows[-1]
                self.assertEqual((rate, channels, kind, resampler, 6 * rate),
                                 (summary["original_rate"], summary["channels"], summary["sample_type"],
                                  summary["resampler"], summary["frames"]))
                self.assertEqual(summary["frames"], summary["declared_frames"])
                segs = [r for r in rows if r["type"] == "segment"]
                self.assertEqual(len(EXPECTED), len(segs))
                for (start, end), r in zip(EXPECTED, segs):
                    # Within a frame of the timing rules (libsoxr's own filter may shift an edge).
                    self.assertLessEqual(abs(start - r["start_s"]), 0.0201)
                    self.assertLessEqual(abs(end - r["end_s"]), 0.0201)
                    if resampler != "libsoxr":  # frame edges are whole input frames at every input rate
                        self.assertEqual(round(r["start_s"] * rate), r["start_sample"])
                        self.assertEqual(round(r["end_s"] * rate), r["end_sample"])
        self.assertIn(b"37800 Hz, not an input rate of the library: resampled to 22050 Hz with libsoxr", p.stderr)
        self.assertIn(b"3 channels at 24000 Hz: the library mixes them to one and analyses at 16000 Hz", p.stderr)

    def test_the_command_and_python_cut_a_file_alike(self):
        paths = [self.path(f[0]) for f in self.FILES if f[5] != "libsoxr"]  # Python refuses other rates
        try:
            paths.append(self.encoded("bursts.mp3", "lamemp3enc"))
        except unittest.SkipTest:
            pass
        python = python_segments(paths)
        if python is None:
            self.skipTest("Debian's Python with soundfile, or the library beside the command, is missing")
        p = run("vad", "--format", "json", *paths)
        for path, theirs in zip(paths, python):
            ours = [(r["start_sample"], r["end_sample"]) for r in records(p.stdout, "segment") if r["file"] == path]
            self.assertEqual(theirs, ours, path)

    def test_one_audio_in_any_encoding_gives_identical_results(self):
        # The same 16-bit values as 16, 24 and 32-bit integers and as floats: the library takes
        # a float that is a 16-bit value over 32768 as that value, so segments, meter readings
        # and gain decisions agree to the last digit. A wrong scale or channel order shows.
        variants = [self.stereo]
        for name, args in (("b24.wav", ["-b", "24"]), ("b32.wav", ["-b", "32"]),
                           ("f32.wav", ["-e", "floating-point"]), ("b24.flac", ["-b", "24"])):
            variants.append(self.path(name))
            sox(self.stereo, *args, variants[-1])
        for command, kinds in (("vad", ("segment", "meter")), ("agc", ("decision",))):
            outputs = []
            for path in variants:
                p = run(command, "--meter", "--format", "json", path) if command == "vad" else \
                    run(command, "--format", "json", path)
                self.assertEqual(0, p.returncode, p.stderr)
                outputs.append([{k: v for k, v in r.items() if k != "file"} for r in records(p.stdout)
                                if r["type"] in kinds])
            self.assertTrue(outputs[0])
            for path, out in zip(variants[1:], outputs[1:]):
                self.assertEqual(outputs[0], out, (command, path))

    def test_channels_beyond_the_library_limit_are_refused_by_it(self):
        many = self.path("many.wav")
        sox(self.wav, "-c", "65", many)
        p = self.expect(["vad", "--format", "json", many, self.wav], 1,
                        "the analyzer does not take 65 channels at 16000 Hz: channels must lie in 1 to 64")
        self.assertEqual(["error", "summary"], [r["type"] for r in records(p.stdout) if r["type"] != "segment"])



class Streaming(OkuTest):
    def test_raw_stdin_prints_the_start_before_the_input_ends(self):
        raw = le_bytes(self.samples)
        half = int(3.0 * 16000) * 2
        proc = subprocess.Popen([OKU, "vad", "--raw", "--rate", "16000", "--format", "json", "-"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        try:
            proc.stdin.write(raw[:half])
            proc.stdin.flush()
            reader = LineReader(proc.stdout)
            lines = []
            while len(lines) < 2:  # the first start and the first segment lie in the first half
                line = reader.next(TIMEOUT)
                self.assertIsNotNone(line, "no output before the input ended: %r" % lines)
                lines.append(json.loads(line))
            self.assertEqual(["start", "segment"], [r["type"] for r in lines])
            self.assertAlmostEqual(0.86, lines[0]["start_s"], places=3)
            proc.stdin.write(raw[half:])
            proc.stdin.close()
            rest = []
            while True:
                line = reader.next(TIMEOUT)
                if line is None:
                    break
                rest.append(json.loads(line))
            self.assertEqual(["start", "segment", "summary"], [r["type"] for r in rest])
            self.assertEqual(0, proc.wait(timeout=TIMEOUT))
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            proc.stdout.close()

    def test_raw_input_from_a_named_file_and_a_fifo(self):
        raw = self.path("bursts.raw")
        with open(raw, "wb") as f:
            f.write(le_bytes(self.samples))
        p = run("vad", "--format", "json", "--raw", "--rate", "16000", raw)
        self.assertEqual(0, p.returncode, p.stderr)
        self.assertEqual([0.86, 3.36], [r["start_s"] for r in records(p.stdout, "segment")])
        fifo = self.path("bursts.fifo")
        os.mkfifo(fifo)
        proc = subprocess.Popen(["sh", "-c", 'cat "$1" > "$2"', "sh", raw, fifo])
        try:
            p = run("vad", "--format", "json", "--raw", "--rate", "16000", fifo)
        finally:
            proc.wait(timeout=TIMEOUT)
            os.unlink(fifo)
        self.assertEqual(0, p.returncode, p.stderr)
        self.assertEqual([0.86, 3.36], [r["start_s"] for r in records(p.stdout, "segment")])

    def test_wav_and_flac_on_stdin(self):
        flac = self.path("bursts.flac")
        subprocess.run(["sox", self.wav, flac], check=True, timeout=TIMEOUT)
        for path in (self.wav, flac):
            with open(path, "rb") as f:
                data = f.read()
            p = run("vad", "--format", "json", "-", stdin=data)
            self.assertEqual(0, p.returncode, p.stderr)
            self.assertEqual(len(EXPECTED), len(records(p.stdout, "segment")), path)

    def test_a_variable_bit_rate_mp3_is_read_whole(self):
        # lamemp3enc writes variable bit rate frames and no header giving the
        # length: libsndfile alone reads such a file only as far as the first
        # frame's bit rate suggests (here 3.6 of 6 s, and one segment lost).
        mp3 = self.encoded("bursts.mp3", "lamemp3enc")
        p = run("vad", "--format", "json", mp3)
        self.assertEqual(0, p.returncode, p.stderr)
        # The encoder and decoder add a few dozen milliseconds of delay and padding.
        self.assertAlmostEqual(6.0, records(p.stdout, "summary")[0]["duration_s"], delta=0.15)
        starts = [r["start_s"] for r in records(p.stdout, "segment")]
        self.assertEqual(len(EXPECTED), len(starts))
        for got, want in zip(starts, [0.86, 3.36]):
            self.assertAlmostEqual(want, got, delta=0.1)


class Split(OkuTest):
    def test_segments_of_a_float_recording_are_its_own_samples(self):
        # Float samples in [-0.5, 0.5): written as 16-bit shorts they would all be 0.
        values = [s / 65536.0 for s in self.samples]
        src = self.path("float.wav")
        write_float_wav(src, 16000, values)
        out = self.fresh_dir("split-float")
        p = run("vad", "--format", "json", "--split", out, src)
        self.assertEqual(0, p.returncode, p.stderr)
        segs = records(p.stdout, "segment")
        files = sorted(os.listdir(out))
        self.assertEqual(["float-001-0.860s.wav", "float-002-3.360s.wav"], files)
        for name, seg in zip(files, segs):
            rate, channels, got = read_float_wav(os.path.join(out, name))
            self.assertEqual((16000, 1), (rate, channels))
            self.assertEqual(values[seg["start_sample"]:seg["end_sample"]], got)

    def test_segments_of_an_opus_recording_are_float(self):
        # A lossy decoder's output is floats: cut to 16 bits, the segments would lose what was
        # below the last bit, so they are written as float WAV files like the decoder's samples.
        opus = self.encoded("bursts.opus", "opusenc", "oggmux")
        out = self.fresh_dir("split-opus")
        p = run("vad", "--format", "json", "--split", out, opus)
        self.assertEqual(0, p.returncode, p.stderr)
        files = sorted(os.listdir(out))
        self.assertEqual(len(EXPECTED), len(files))
        for name in files:
            rate, channels, values = read_float_wav(os.path.join(out, name))
            self.assertEqual(1, channels)
            self.assertTrue(values and any(v != round(v * 32768) / 32768 for v in values), name)

    def raw(self, path, bits):
        """A file's samples as sox gives them: signed little-endian integers of `bits` bits."""
        return subprocess.run(["sox", path, "-t", "raw", "-e", "signed", "-b", str(bits), "-L", "-"], check=True,
                              capture_output=True, timeout=TIMEOUT).stdout

    def test_clips_are_the_inputs_own_frames_and_named_in_their_records(self):
        deep = self.path("deep24.flac")  # true 24-bit values, not 16-bit ones shifted
        sox(self.stereo, "-b", "24", deep, "vol", "0.937")
        byte = self.path("byte.wav")
        sox(self.wav, "-b", "8", "-e", "unsigned", byte)
        # input, --split-format, bits of its samples, channels
        for src, fmt, bits, channels in ((self.stereo, "wav", 16, 2), (self.stereo, "flac", 16, 2),
                                         (deep, "flac", 24, 2), (deep, "wav", 24, 2), (byte, "flac", 8, 1)):
            with self.subTest(src=src, fmt=fmt):
                out = self.fresh_dir("clips")
                p = run("vad", "--format", "json", "--split", out, "--split-format", fmt, src)
                self.assertEqual(0, p.returncode, p.stderr)
                segs = records(p.stdout, "segment")
                self.assertEqual(sorted(r["clip"] for r in segs), sorted(os.path.join(out, f) for f in os.listdir(out)))
                whole, size = self.raw(src, bits), bits // 8 * channels
                for seg in segs:
                    self.assertTrue(seg["clip"].endswith("." + fmt))
                    info = subprocess.run(["soxi", seg["clip"]], capture_output=True, timeout=TIMEOUT).stdout
                    self.assertIn(b"Channels       : %d" % channels, info)
                    self.assertEqual(whole[seg["start_sample"] * size:seg["end_sample"] * size],
                                     self.raw(seg["clip"], bits))
        # FLAC holds neither floats nor 32-bit integers: such an input fails, with a record, and
        # the others go on.
        floats, ints = self.path("f32.wav"), self.path("i32.wav")
        sox(self.wav, "-e", "floating-point", floats)
        sox(self.wav, "-b", "32", ints)
        p = self.expect(["vad", "--format", "json", "--split", self.fresh_dir("clips"), "--split-format", "flac",
                         floats, ints, self.wav], 1, "FLAC holds integers (--split-format wav keeps them)")
        self.assertEqual(["error", "error", "summary"],
                         [r["type"] for r in records(p.stdout) if r["type"] != "segment"])

    def test_clip_names_follow_the_template(self):
        for d in ("a", "b"):
            os.makedirs(self.path("twins", d), exist_ok=True)
            shutil.copy(self.wav, self.path("twins", d, "x.wav"))
        twins = ["twins/a/x.wav", "twins/b/x.wav"]  # relative to the test folder
        absolute = self.path("twins", "a", "x.wav")
        # --split-name, inputs, the clips under the folder (or the usage error)
        for template, inputs, want in (
                ("{dir}/{base}-{index}", twins, ["twins/a/x-001", "twins/a/x-002", "twins/b/x-001", "twins/b/x-002"]),
                ("{base}/{index}_{start}_{end}", twins[:1], ["x/001_0.860_2.780", "x/002_3.360_4.980"]),
                ("{dir}/{base}-{index}", [absolute], [absolute[1:-4] + "-001", absolute[1:-4] + "-002"]),
                ("./{base}//{index}", twins[:1], ["x/001", "x/002"]),
                (None, twins, "would both write clips/x-001-0.000s.wav and so on; give a --split-name"),
                ("{dir}-{index}", twins, ["twins/a-001", "twins/a-002", "twins/b-001", "twins/b-002"]),
                ("{base}/{index}", twins, "would both write clips/x/001.wav"),
                ("{base}-{start}", twins[:1], "needs {index}"),
                ("{base}-{index}-{speaker}", twins[:1], "no field {speaker}; the fields are"),
                ("{base-{index}", twins[:1], "no field {base-{index}"),
                ("{base}}-{index}", twins[:1], "a '}' that closes no field"),
                ("../{base}-{index}", twins[:1], "would leave the --split folder"),
                ("{index}/", twins[:1], "would have no file name")):
            with self.subTest(template=template, inputs=inputs):
                out = self.fresh_dir("clips")
                args = ["vad", "--format", "json", "--split", "clips"] + (["--split-name", template] if template else [])
                p = run(*args, *inputs, cwd=self.dir)
                if isinstance(want, str):
                    self.assertEqual(2, p.returncode, p.stderr)
                    self.assertIn(want, p.stderr.decode())
                    self.assertEqual([], os.listdir(out))
                    continue
                self.assertEqual(0, p.returncode, p.stderr)
                clips = [r["clip"] for r in records(p.stdout, "segment")]
                self.assertEqual(["clips/%s.wav" % w for w in want], clips)
                self.assertTrue(all(os.path.isfile(self.path(c)) for c in clips))
        self.expect(["vad", "--split-name", "{base}-{index}", self.wav], 2, "apply to --split only")

    def test_clips_on_another_file_system_below_the_folder_are_copied(self):
        out = self.fresh_dir("clips")
        below = os.path.join(out, "bursts44")
        os.mkdir(below)
        mount = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8m", "tmpfs", below], capture_output=True,
                               timeout=TIMEOUT)
        if mount.returncode != 0:
            self.skipTest("cannot mount a file system here: %s" % mount.stderr.decode().strip())
        try:  # the temporary file cannot be renamed across: it is copied
            p = run("vad", "--format", "json", "--split", out, "--split-name", "{base}/{index}", self.stereo)
            self.assertEqual(0, p.returncode, p.stderr)
            whole = self.raw(self.stereo, 16)
            for r in records(p.stdout, "segment"):
                self.assertEqual(whole[r["start_sample"] * 4:r["end_sample"] * 4], self.raw(r["clip"], 16))
            self.assertEqual(["bursts44"], os.listdir(out))
            self.assertEqual(["001.wav", "002.wav"], sorted(os.listdir(below)))
        finally:
            subprocess.run(["umount", below], timeout=TIMEOUT)

    def test_long_segments_are_cut_into_equal_pieces(self):
        # 44.1 kHz stereo, pieces of at most 700 ms: each burst's segment (1.92 and 1.62 s) gives
        # three, by the rule: of L frames in n pieces, piece i spans floor(i L / n) to floor((i + 1) L / n).
        rate, max_ms = 44100, 700
        want = []
        for start, end in EXPECTED:
            first, length = round(start * rate), round((end - start) * rate)
            n = -(-length * 1000 // (max_ms * rate))
            want += [(first + i * length // n, first + (i + 1) * length // n) for i in range(n)]
        out = self.fresh_dir("pieces")
        p = run("vad", "--format", "json", "--split", out, "--max-segment-ms", str(max_ms), self.stereo)
        self.assertEqual(0, p.returncode, p.stderr)
        segs = records(p.stdout, "segment")
        self.assertEqual(want, [(r["start_sample"], r["end_sample"]) for r in segs])
        self.assertEqual(list(range(1, len(want) + 1)), [r["index"] for r in segs])
        self.assertEqual(len(want), records(p.stdout, "summary")[0]["segments"])
        whole = self.raw(self.stereo, 16)
        for r in segs:
            self.assertEqual(whole[r["start_sample"] * 4:r["end_sample"] * 4], self.raw(r["clip"], 16))
        self.assertEqual(len(want), len(os.listdir(out)))  # no temporary file left behind
        # Shorter than a frame: the library's refusal, per input.
        self.expect(["vad", "--max-segment-ms", "0.001", self.wav], 1, "--max-segment-ms 0.001: ")
        self.expect(["agc", "--max-segment-ms", "100", self.wav], 2, "unknown option '--max-segment-ms'")

    def test_stdin_segments_are_written_as_they_close_with_bounded_memory(self):
        # Hours at 8 kHz of the bursts on repeat (3.3 plain): every segment file
        # exists, and memory does not grow with the stream.
        block = le_bytes(signal(8000, BURSTS, 6.0))
        out = self.fresh_dir("split-stdin")
        repeats = HOURS * 3600 // 6 // 6
        args = ["vad", "--no-progress", "--format", "json", "--raw", "--rate", "8000", "--split", out, "-"]
        proc = subprocess.Popen([OKU, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL)
        try:
            reader = LineReader(proc.stdout)
            proc.stdin.write(block * 2)  # 12 s: the first segment closes within it
            proc.stdin.flush()
            first = None
            while first is None or first.get("type") != "segment":
                line = reader.next(TIMEOUT)
                self.assertIsNotNone(line, "no segment before the input ended")
                first = json.loads(line)
            name = os.path.join(out, "stdin-001-0.860s.wav")
            with wave.open(name) as w:  # complete before the input ended
                self.assertEqual(first["end_sample"] - first["start_sample"], w.getnframes())
            # The rest from a thread, while this one reads the records, so that
            # neither side waits on a full pipe.
            def rest():
                for _ in range(repeats - 2):
                    proc.stdin.write(block)
                proc.stdin.close()

            writer = threading.Thread(target=rest)
            writer.start()
            while reader.next(TIMEOUT) is not None:
                pass
            writer.join(TIMEOUT)
            _, status, usage = os.wait4(proc.pid, 0)
            self.assertEqual(0, os.waitstatus_to_exitcode(status))
            self.assertEqual(2 * repeats, len(os.listdir(out)))
            if RSS_LIMIT_KIB:  # the stream is 192 MB
                self.assertLess(usage.ru_maxrss, RSS_LIMIT_KIB)
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            proc.stdout.close()
        shutil.rmtree(out)


class Outputs(OkuTest):
    def test_no_file_is_written_that_was_not_asked_for(self):
        work = self.fresh_dir("quiet-cwd")
        p = run("agc", "--no-progress", self.wav, self.stereo, cwd=work)
        self.assertEqual(0, p.returncode, p.stderr)
        p = run("vad", "--no-progress", "--meter", self.wav, self.stereo, cwd=work)
        self.assertEqual(0, p.returncode, p.stderr)
        self.assertEqual([], os.listdir(work))

    def test_an_output_that_names_an_input_is_refused_before_anything_is_written(self):
        victim = self.path("victim.wav")
        shutil.copy(self.wav, victim)
        link = self.path("victim-link.wav")
        if os.path.lexists(link):
            os.unlink(link)
        os.symlink(victim, link)
        hard = self.path("victim-hard.wav")
        if os.path.exists(hard):
            os.unlink(hard)
        os.link(victim, hard)
        with open(victim, "rb") as f:
            before = f.read()
        for option in ("--out", "--log", "--plot"):
            for name in (victim, os.path.join(self.dir, ".", "victim.wav"), link, hard):
                self.expect(["agc", option, name, victim], 2, "is the input")
        self.expect(["vad", "--plot", link, victim], 2, "is the input")
        self.expect(["agc", "--plot", self.path("same.x"), "--log", self.path("same.x"), victim], 2,
                    "two outputs would write one file")
        with open(victim, "rb") as f:
            self.assertEqual(before, f.read())
        self.assertFalse(os.path.exists(self.path("same.x")))

    def test_empty_and_unusable_output_names_are_usage_errors(self):
        for option in ("--out", "--log", "--plot"):
            self.expect(["agc", option, "", self.wav], 2, option + ": an empty file name")
        self.expect(["vad", "--split", "", self.wav], 2, "--split: an empty file name")
        self.expect(["agc", "--out", self.path("no-such-dir", "x.wav"), self.wav], 2, "cannot be written")
        self.expect(["agc", "--out", self.dir, self.wav], 2, "is a directory")
        self.expect(["vad", "--split", self.wav, self.wav], 2, "is not a directory")

    def test_a_failed_write_names_the_file_and_fails_the_input(self):
        for args in (["agc", "--out", "/dev/full"], ["agc", "--log", "/dev/full"], ["agc", "--plot", "/dev/full"],
                     ["vad", "--plot", "/dev/full"]):
            p = self.expect(args + [self.wav], 1, "/dev/full: cannot write")
            self.assertNotIn(b"summary", p.stdout)  # the input is not reported as done
        with open("/dev/full", "wb") as full:
            p = run("vad", self.wav, stdout=full)
        self.assertEqual(1, p.returncode)
        self.assertIn(b"standard output: No space left on device", p.stderr)
        # Several inputs: standard output fails once and the run stops.
        with open("/dev/full", "wb") as full:
            p = run("vad", "--jobs", "1", self.wav, self.wav, self.wav, stdout=full)
        self.assertEqual(1, p.returncode)
        self.assertEqual(1, p.stderr.count(b"standard output"))

    def test_a_full_disk_leaves_no_truncated_output(self):
        disk = self.fresh_dir("small-disk")
        mount = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", disk], capture_output=True,
                               timeout=TIMEOUT)
        if mount.returncode != 0:
            self.skipTest("cannot mount a small file system here: %s" % mount.stderr.decode().strip())
        try:
            out = os.path.join(disk, "captured.wav")
            p = self.expect(["agc", "--out", out, self.wav], 1, out + ": cannot write")
            self.assertFalse(os.path.exists(out))
            self.assertNotIn(b"summary", p.stdout)
            seg = os.path.join(disk, "seg")
            p = self.expect(["vad", "--format", "json", "--split", seg, self.stereo], 1, "cannot write")
            self.assertEqual([], os.listdir(seg))  # no clip, and no temporary file
            self.assertEqual(["error"], [r["type"] for r in records(p.stdout)])
            self.assertIn("No space left on device", records(p.stdout)[0]["message"])
        finally:
            subprocess.run(["umount", disk], timeout=TIMEOUT)

    def test_closed_standard_streams_never_land_in_an_output_file(self):
        log, out = self.path("closed.log"), self.path("closed.wav")
        for fd in (1, 2):
            p = run("agc", "--format", "json", "--log", log, "--out", out, self.wav,
                    preexec=lambda fd=fd: os.close(fd))
            if fd == 1:
                self.assertEqual(1, p.returncode)
                self.assertIn(b"standard output: Bad file descriptor", p.stderr)
            else:
                self.assertEqual(0, p.returncode)
                with open(log) as f:
                    lines = f.read().splitlines()
                self.assertTrue(lines and all(not line.startswith("{") and "\t" in line for line in lines))
                with wave.open(out) as w:
                    self.assertEqual(6 * 16000, w.getnframes())

    def test_plots_stay_small_and_memory_bounded_for_20_hours(self):
        # 20 hours of stdin at 8 kHz (1.2 GB; 2 hours in an instrumented build).
        block = le_bytes(signal(8000, BURSTS, 6.0))
        for command in ("vad", "agc"):
            svg = self.path("long-%s.svg" % command)
            status, err, rss = self._run_fed([command, "--no-progress", "--raw", "--rate", "8000", "--plot", svg,
                                                 "-"], block, HOURS * 3600 // 6)
            self.assertEqual(0, status, err)
            self.assertLess(os.path.getsize(svg), 2 * 1024 * 1024)
            if RSS_LIMIT_KIB:
                self.assertLess(rss, RSS_LIMIT_KIB)
            root = ET.parse(svg).getroot()
            ns = "{http://www.w3.org/2000/svg}"
            if command == "vad":  # 12000 segments drawn as at most one band per bucket run
                bands = [e for e in root.iter(ns + "rect") if e.get("class") == "segment"]
                self.assertTrue(0 < len(bands) <= 4096)

    def _run_fed(self, args, block, repeats):
        """Runs the command on `repeats` copies of block on standard input: (status, stderr, max RSS in KiB)."""
        proc = subprocess.Popen([OKU, *args], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE)
        try:
            for _ in range(repeats):
                proc.stdin.write(block)
            proc.stdin.close()
            err = proc.stderr.read()
            _, status, usage = os.wait4(proc.pid, 0)
            return os.waitstatus_to_exitcode(status), err, usage.ru_maxrss
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            proc.stderr.close()

    def test_plot_shows_one_band_per_segment(self):
        svg = self.path("plot.svg")
        self.assertEqual(0, run("vad", "--plot", svg, self.wav).returncode)
        root = ET.parse(svg).getroot()
        ns = "{http://www.w3.org/2000/svg}"
        self.assertEqual(ns + "svg", root.tag)
        self.assertEqual(2, len([e for e in root.iter(ns + "rect") if e.get("class") == "segment"]))
        meters = [e for e in root.iter(ns + "path") if e.get("class") == "meter"]
        self.assertEqual(["ok"], [e.get("data-assessment") for e in meters])


class Samples(OkuTest):
    def test_nan_and_infinite_samples_count_as_zero(self):
        values = [s / 65536.0 for s in self.samples]
        for i in range(100, 400):  # in the quiet first second
            values[i] = float("nan") if i % 3 else float("inf") * (-1) ** i
        src = self.path("nan.wav")
        write_float_wav(src, 16000, values)
        p = run("vad", "--format", "json", src)
        self.assertEqual(0, p.returncode, p.stderr)
        summary = records(p.stdout, "summary")[0]
        self.assertEqual(300, summary["nonfinite_samples"])
        self.assertIn(b"300 samples NaN or infinite, read as 0", p.stderr)
        self.assertLess(summary["peak"], 5000)  # the tone at half scale, not full scale
        self.assertEqual([0.86, 3.36], [r["start_s"] for r in records(p.stdout, "segment")])

    def test_a_length_the_header_declares_is_checked(self):
        with open(self.wav, "rb") as f:
            intact = f.read()
        flac = self.path("whole.flac")
        sox(self.wav, flac)
        with open(flac, "rb") as f:
            encoded = f.read()
        open_length = bytearray(intact)
        open_length[40:44] = (0x7FFFF000).to_bytes(4, "little")  # as espeak-ng --stdout leaves it
        raw = self.path("declared.raw")
        with open(raw, "wb") as f:
            f.write(le_bytes(self.samples))
        # file, its bytes, the frames decoded and declared (None: no declaration); a warning when they differ
        for name, data, frames, declared in (("intact.wav", intact, 96000, 96000),
                                             ("cut.wav", intact[:44 + 2 * 50000], 50000, 96000),
                                             ("cut.flac", encoded[:len(encoded) * 6 // 10], None, 96000),
                                             ("open.wav", bytes(open_length), 96000, None)):
            with self.subTest(name=name):
                path = self.path(name)
                with open(path, "wb") as f:
                    f.write(data)
                p = run("vad", "--format", "json", "--quiet", path)
                self.assertEqual(0, p.returncode, p.stderr)
                summary = records(p.stdout, "summary")[0]
                self.assertEqual(declared, summary["declared_frames"])
                if frames is not None:
                    self.assertEqual(frames, summary["frames"])
                self.assertLess(0, summary["frames"])
                warned = summary["frames"] != (declared or summary["frames"])
                self.assertEqual(b"oku: %s: warning: %d frames decoded, its header declares %d (a truncated file?)\n"
                                 % (path.encode(), summary["frames"], declared) if warned else b"", p.stderr)
        p = run("vad", "--format", "json", "--raw", "--rate", "16000", raw)
        self.assertIsNone(records(p.stdout, "summary")[0]["declared_frames"])

    def test_quiet_leaves_out_information_but_not_warnings(self):
        note = "oku: %s: 2 channels at 44100 Hz: the library mixes them to one and analyses at 22050 Hz\n" % self.stereo
        self.assertEqual(note.encode(), run("vad", self.stereo).stderr)
        self.assertEqual(b"", run("vad", "--quiet", self.stereo).stderr)
        p = run("vad", "--quiet", "--params", "Bogus=1", self.wav)
        self.assertIn(b"warning: --params: Bogus is not a setting", p.stderr)

    def test_a_rejected_input_releases_what_it_opened(self):
        # Files libsndfile refuses, and WAV files it opens that hold no audio.
        bad, empty = self.path("bad.wav"), self.path("empty.wav")
        with open(bad, "w") as f:
            f.write("not audio\n")
        write_wav(empty, 16000, array.array("h"))
        limit = 30
        for rejected, message in ((bad, b"not an audio file"), (empty, b"no audio in it (empty)")):
            for command in ("vad", "agc"):
                p = run(command, "--jobs", "1", "--format", "json", *([rejected] * (3 * limit)), self.wav,
                        preexec=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit)))
                self.assertEqual(1, p.returncode)
                self.assertEqual([self.wav], [r["file"] for r in records(p.stdout, "summary")])
                self.assertEqual(3 * limit, p.stderr.count(message), p.stderr[-300:])
                self.assertNotIn(b"Too many open files", p.stderr)


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
        self.assertEqual(50, len(decisions))  # one update per 120 ms of 6 s
        self.assertTrue(all(d["volume_after"] >= d["volume_before"] for d in decisions))
        raised = [d for d in decisions if d["volume_after"] > d["volume_before"]]
        self.assertTrue(raised and all(d["control"] in ("pause_too_low", "speech_too_low", "operating_limit")
                                       for d in raised))
        with open(log) as f:
            self.assertEqual(len(decisions), len(f.read().splitlines()))  # one log line per update
        with wave.open(out) as w:
            self.assertEqual(6 * 16000, w.getnframes())
        circles = [e for e in ET.parse(svg).getroot().iter("{http://www.w3.org/2000/svg}circle")
                   if e.get("class") == "decision"]
        self.assertTrue(0 < len(circles) <= len(raised))

    def test_captured_audio_keeps_the_inputs_rate_channels_and_sample_type(self):
        floats = self.path("agc-float48.wav")
        sox(self.wav, "-r", "48000", "-c", "2", "-e", "floating-point", floats)
        for src, rate, channels, encoding in ((self.stereo, 44100, 2, b"16-bit Signed Integer PCM"),
                                              (floats, 48000, 2, b"32-bit Floating Point PCM")):
            out = self.path("captured-%d.wav" % rate)
            p = run("agc", "--format", "json", "--out", out, src)
            self.assertEqual(0, p.returncode, p.stderr)
            info = subprocess.run(["soxi", out], capture_output=True, timeout=TIMEOUT).stdout
            for line in (b"Sample Rate    : %d" % rate, b"Channels       : %d" % channels, encoding,
                         b"= %d samples" % (6 * rate)):
                self.assertIn(line, info)
            self.assertEqual(6 * rate, records(p.stdout, "summary")[0]["frames"])

    def test_starting_volume_zero_asks_for_an_estimate(self):
        first = records(run("agc", "--format", "json", "--volume", "0", self.wav).stdout, "decision")[0]
        self.assertEqual("gain_estimate", first["control"])
        self.assertEqual(int(0.0316228 * 65535), first["volume_after"])  # sqrt(0.001) of the bound


class Messages(OkuTest):
    def test_input_problems_name_the_file_and_the_others_go_on(self):
        empty, text, rate0 = self.path("empty.wav"), self.path("text.wav"), self.path("rate0.wav")
        open(empty, "wb").close()
        with open(text, "w") as f:
            f.write("not audio\n")
        with open(self.wav, "rb") as f:
            header = bytearray(f.read())
        header[24:28] = b"\0\0\0\0"  # the fmt chunk's rate
        with open(rate0, "wb") as f:
            f.write(header)
        inputs = ["missing.wav", empty, text, self.dir, rate0, self.wav]
        messages = ["cannot open: No such file or directory", "empty file", "not an audio file",
                    "is a directory", "the sampling rate in its header, 0 Hz, cannot be used"]
        for command in ("vad", "agc"):
            p = self.expect([command, "--format", "json", "--jobs", "2", *inputs], 1, "")
            err = p.stderr.decode().splitlines()  # in the order the jobs failed
            self.assertEqual(len(messages), len(err), err)
            for name, message in zip(inputs, messages):
                self.assertEqual(1, sum(line.startswith("oku: %s: %s" % (name, message)) for line in err), err)
            # JSON Lines: an error record per failed input, in input order, with the message.
            rows = records(p.stdout)
            self.assertEqual([(name, "error") for name in inputs[:-1]] + [(self.wav, "summary")],
                             [(r["file"], r["type"]) for r in rows if r["type"] in ("error", "summary")])
            self.assertEqual(sorted(err),
                             sorted("oku: %s: %s" % (r["file"], r["message"]) for r in rows if r["type"] == "error"))
            # CSV: the same rows, the message in its own column; text: only on standard error.
            table = csv.DictReader(io.StringIO(run(command, "--format", "csv", *inputs).stdout.decode()))
            self.assertEqual([(name, "error", m) for name, m in zip(inputs, messages)] + [(self.wav, "summary", "")],
                             [(r["file"], r["type"], r["message"][:len(m)])
                              for r, m in zip((r for r in table if r["type"] in ("error", "summary")), messages + [""])])
            self.assertNotIn(b"error", run(command, *inputs).stdout)

    def test_json_is_valid_utf8_whatever_the_file_name(self):
        name = os.path.join(os.fsencode(self.dir), b"caf\xe9-\xff.wav")  # Latin-1 bytes, not UTF-8
        shutil.copy(self.wav, name)
        p = subprocess.run([os.fsencode(OKU), b"vad", b"--format", b"json", name], capture_output=True,
                           timeout=TIMEOUT)
        self.assertEqual(0, p.returncode, p.stderr)
        rows = records(p.stdout)  # strict UTF-8 decoding
        self.assertTrue(rows[0]["file"].endswith("caf\ufffd-\ufffd.wav"))
        p = subprocess.run([os.fsencode(OKU), b"vad", b"--format", b"csv", name], capture_output=True, timeout=TIMEOUT)
        p.stdout.decode("utf-8")

    def test_streams(self):
        self.expect(["vad", "--raw", "--rate", "16000", "-"], 1, "oku: -: no audio in it", stdin=b"")
        self.expect(["vad", "--raw", "--rate", "16000", "-"], 1, "ends in the middle of a frame", stdin=b"\0\0\0")
        self.expect(["vad", "-"], 1, "oku: -: empty file", stdin=b"")

    def test_bad_options_and_parameters_exit_with_two(self):
        self.expect(["vad", "--jobs", "0", self.wav], 2, "--jobs: expected a whole number from 1 to 1024")
        self.expect(["vad", "--chunk-ms", "0", self.wav], 2, "expected a number above 0 and at most 10000, got '0'")
        self.expect(["vad", "--format", "xml", self.wav], 2, "--format: expected text, json or csv")
        self.expect(["vad", "--raw", "-"], 2, "--raw needs --rate")
        self.expect(["vad", "--raw", "--rate", "100", "-"], 2, "--rate: expected a whole number from 1000 to 768000")
        self.expect(["agc", "--volume", "70000", self.wav], 2, "--volume: 70000 is above the bound 65535")
        self.expect(["vad", "--bogus", self.wav], 2, "unknown option '--bogus'")
        self.expect(["vad"], 2, "no input files")
        self.expect(["vad", "--params", "EOSTimeoutMs", self.wav], 2, "--params: Invalid format")
        self.expect(["vad", "--params", "EOSTimeoutMs=soon", self.wav], 2,
                    "--params: EOSTimeoutMs: 'soon' is not a whole number")
        self.expect(["agc", "--params", "LeastGain=0", self.wav], 2, "--params: LeastGain must lie in (0, 1]")
        self.expect(["vad", "--params", "HistogramWindowSizeMs=5", self.wav], 2, "HistogramWindowSizeMs")

    def test_help_and_version(self):
        self.assertIn(b"usage: oku vad", run("vad", "--help").stdout)
        self.assertIn(b"--mic-gain", run("agc", "--help").stdout)
        self.assertRegex(run("--version").stdout.decode(), r"^oku \d+\.\d+\.\d+\n$")
        with open("/dev/full", "wb") as full:
            self.assertEqual(1, run("--version", stdout=full).returncode)


if __name__ == "__main__":
    unittest.main()
