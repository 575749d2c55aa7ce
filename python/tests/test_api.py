"""The package's classes and functions, in this interpreter, on generated recordings.

The recordings are tone bursts over noise on 20 ms frame boundaries, so the
analyzer's timing rules give the segments exactly: a segment is dated 7 frames
before the first loud frame and ends 14 frames after the last (testaudio.py).
"""
import array
import ctypes
import os
import tempfile
import threading
import unittest
import warnings

from support import BURSTS, EXPECTED, numpy, oku, signal

from oku import _lib


def events(results):
    return [r for r in results if isinstance(r, (oku.SpeechStart, oku.SpeechEnd))]


class SegmentTest(unittest.TestCase):
    def test_segments_at_the_times_of_the_timing_rules(self):
        for rate in (8000, 16000, 22050):  # a 20 ms frame is a whole number of samples
            samples = signal(rate, BURSTS, 6.0)
            want = [oku.Segment(s * 1000, e * 1000, round(s * rate), round(e * rate)) for s, e in EXPECTED]
            with self.subTest(rate=rate):
                self.assertEqual(want, [oku.Segment(round(g.start_ms, 6), round(g.end_ms, 6), g.start_sample,
                                                    g.end_sample) for g in oku.Vad(rate).segments(samples)])
                # Chunking changes the volume readings, never the speech events.
                self.assertEqual(want[1].start_sample, oku.Vad(rate).segments(samples, chunk_ms=7.3)[1].start_sample)

    def test_every_form_of_samples_gives_the_same_results(self):
        samples = signal(16000, BURSTS, 6.0)
        want = oku.Vad(16000).process(samples)
        forms = [samples.tobytes(), bytearray(samples.tobytes()), list(samples), tuple(samples),
                 memoryview(samples), memoryview(samples.tobytes()).cast("h")]
        if numpy is not None:
            forms.append(numpy.array(samples, dtype=numpy.int16))
            forms.append(numpy.array(list(samples) * 2, dtype=numpy.int16).reshape(2, -1)[1])  # a row
        for form in forms:
            with self.subTest(form=type(form).__name__):
                self.assertEqual(want, oku.Vad(16000).process(form))
        # A strided view is read sample by sample, not as its underlying memory.
        if numpy is not None:
            a = numpy.array(samples, dtype=numpy.int16)
            self.assertEqual(oku.Vad(16000).process(samples[::2]), oku.Vad(16000).process(a[::2]))

    def test_chunks_give_the_events_of_one_call_and_a_reading_per_call(self):
        samples = signal(16000, BURSTS, 6.0)
        want = events(oku.Vad(16000).process(samples))
        vad, got = oku.Vad(16000), []
        for i in range(0, len(samples), 777):
            got += vad.process(samples[i:i + 777])
        self.assertEqual(want, events(got))
        # Each call of 777 samples completes at least one 320-sample frame, the last one (429) too.
        self.assertEqual(-(-len(samples) // 777), sum(isinstance(r, oku.Volume) for r in got))
        self.assertEqual(oku.to_segments(want), oku.Vad(16000).segments(samples))

    def test_frames_when_asked(self):
        vad = oku.Vad(8000, frames=True)
        frames = [r for r in vad.process([100] * 400) + vad.flush() if isinstance(r, oku.Frame)]
        self.assertEqual([0, 1, 2], [f.index for f in frames])
        self.assertEqual([160, 160, 80], [len(f.samples) for f in frames])  # 400 = 2 x 160 + 80
        self.assertEqual((100,) * 80, frames[2].samples)


class StrictInputTest(unittest.TestCase):
    def refuses(self, error, call, *args, **kwargs):
        with self.assertRaises(error, msg=repr(args)) as caught:
            call(*args, **kwargs)
        return str(caught.exception)

    def test_rates(self):
        for cls in (oku.Vad, oku.Agc):
            with self.subTest(cls=cls.__name__):
                for rate in (16000.5, 2 ** 32 + 16000, 44100, 0, -16000, float("nan"), float("inf")):
                    self.refuses(ValueError, cls, rate)
                for rate in ("16000", True, None, b"16000"):
                    self.refuses(TypeError, cls, rate)
                self.assertIn("22050", self.refuses(ValueError, cls, 44100))  # the rate to resample to
                self.assertEqual(16000, cls(16000.0).rate)
                if numpy is not None:
                    self.assertEqual(16000, cls(numpy.int64(16000)).rate)

    def test_params(self):
        for cls in (oku.Vad, oku.Agc):
            with self.subTest(cls=cls.__name__):
                self.refuses(TypeError, cls, 16000, b"EOSTimeoutMs=600")
                self.refuses(TypeError, cls, 16000, 600)
                self.assertIn("NUL", self.refuses(ValueError, cls, 16000, "LowerBound=50\0;nonsense"))
                self.assertIn("Invalid format", self.refuses(ValueError, cls, 16000, "EOSTimeoutMs"))
        self.assertIn("LeastGain", self.refuses(ValueError, oku.Agc, 16000, "LeastGain=7"))
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            oku.Vad(16000, "EOSTimeoutMS=600;EOSTimeoutMs=600")
        self.assertEqual(1, len(caught))
        self.assertIn("'EOSTimeoutMS'", str(caught[0].message))
        self.assertEqual(__file__, caught[0].filename)  # points at the caller

    def test_samples(self):
        vad = oku.Vad(16000)
        stereo = array.array("h", range(8))
        message = self.refuses(ValueError, vad.process, memoryview(stereo).cast("B").cast("h", [4, 2]))
        self.assertIn("mix", message)
        self.refuses(ValueError, vad.process, b"\x00\x01\x02")
        self.refuses(ValueError, vad.process, [0, 32768])
        self.refuses(TypeError, vad.process, [0.5, 1.0])
        self.refuses(TypeError, vad.process, "audio")
        self.refuses(TypeError, vad.process, 16000)
        self.refuses(TypeError, vad.process, array.array("f", [0.5]))
        self.refuses(TypeError, vad.process, array.array("H", [1]))  # unsigned
        self.refuses(TypeError, vad.process, array.array("i", [1]))
        if numpy is not None:
            self.assertIn("mix", self.refuses(ValueError, vad.process, numpy.zeros((320, 2), numpy.int16)))
            self.refuses(TypeError, vad.process, numpy.zeros(320, numpy.int32))
            self.refuses(TypeError, vad.process, numpy.zeros(320, ">i2" if numpy.little_endian else "<i2"))
        self.assertEqual([], vad.flush())  # nothing was taken

    def test_chunk_ms_and_gain(self):
        vad, agc = oku.Vad(16000), oku.Agc(16000)
        for chunk_ms in (0, -20, float("nan"), float("inf")):
            self.refuses(ValueError, vad.segments, [0] * 320, chunk_ms=chunk_ms)
        self.refuses(TypeError, vad.segments, [0] * 320, chunk_ms="20")
        for gain in (1.5, -0.1, float("nan"), float("inf"), 10 ** 400):
            self.refuses(ValueError, agc.process, [0] * 320, gain)
        for gain in ("0.5", None, True):
            self.refuses(TypeError, agc.process, [0] * 320, gain)
        self.assertEqual(0.0, agc.decision().time_ms)  # nothing was taken


class LifetimeTest(unittest.TestCase):
    def test_close_and_with(self):
        with oku.Vad(16000) as vad, oku.Agc(16000) as agc:
            self.assertFalse(vad.closed or agc.closed)
            vad.process([0] * 320)
        self.assertTrue(vad.closed and agc.closed)
        for call in (lambda: vad.process([0]), vad.flush, vad.reset, lambda: vad.segments([0]),
                     lambda: agc.process([0], 0.5), agc.decision):
            self.assertRaisesRegex(ValueError, "closed", call)
        vad.close()  # again: nothing happens
        with self.assertRaises(KeyError):
            with oku.Vad(16000) as failing:
                raise KeyError("inside")
        self.assertTrue(failing.closed)

    def test_log_exception_comes_out_of_process_after_the_call(self):
        class Stop(Exception):
            pass

        lines = []

        def log(line):
            lines.append(line)
            if len(lines) == 1:
                raise Stop(line)

        agc = oku.Agc(16000, log=log)
        with self.assertRaises(Stop) as caught:
            agc.process(bytes(2 * 6 * 320), 0.5)  # 120 ms: one update, one log line
        self.assertEqual(lines[0], caught.exception.args[0])
        self.assertTrue(agc.decision().updated)  # the audio was taken all the same
        self.assertEqual(120.0, agc.decision().time_ms)
        agc.process(bytes(2 * 6 * 320), 0.5)  # the next call logs and succeeds
        self.assertEqual(2, len(lines))

    def test_log_callback_must_not_call_back(self):
        agc = oku.Agc(16000, log=lambda line: agc.decision())
        self.assertRaisesRegex(RuntimeError, "own log callback", agc.process, bytes(2 * 6 * 320), 0.5)

    def test_threads_with_objects_of_their_own(self):
        recordings = [signal(16000, BURSTS, 6.0, seed=k + 1) for k in range(4)]
        serial = [(oku.Vad(16000).process(r), oku.Agc(16000).process(r, 0.5)) for r in recordings]
        results, started = [None] * 4, threading.Barrier(4, timeout=60)

        def work(k):
            started.wait()
            vad, agc = oku.Vad(16000), oku.Agc(16000)
            results[k] = (vad.process(recordings[k]), agc.process(recordings[k], 0.5))

        threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(timeout=120)
            self.assertFalse(t.is_alive())
        self.assertEqual(serial, results)


class ProcessManyTest(unittest.TestCase):
    def test_each_analyzer_gets_what_its_own_process_gives(self):
        rates = (8000, 11025, 16000, 22050, 16000)
        many = [oku.Vad(rate, frames=(i == 4)) for i, rate in enumerate(rates)]
        one = [oku.Vad(rate, frames=(i == 4)) for i, rate in enumerate(rates)]
        audio = [signal(rate, BURSTS, 6.0) for rate in rates]
        at, starts = [0] * len(rates), 0
        for call in range(40):
            chunks = []
            for i, rate in enumerate(rates):
                n = 0 if (call + i) % 6 == 0 else rate // 10 + 37 * ((call * 3 + i) % 11)
                chunk = audio[i][at[i]:at[i] + n]
                chunks.append(numpy.array(chunk, dtype=numpy.int16) if numpy is not None and i == 1 else chunk)
                at[i] += len(chunk)
            got = oku.process_many(many, chunks)
            want = [vad.process(chunk) for vad, chunk in zip(one, chunks)]
            self.assertEqual(want, got, "call %d" % call)
            starts += sum(isinstance(r, oku.SpeechStart) for results in got for r in results)
        self.assertGreater(starts, 0)
        self.assertEqual([], oku.process_many([], []))

    def test_refusals_take_nothing(self):
        samples = signal(16000, BURSTS, 2.0)
        a, b, twin = oku.Vad(16000), oku.Vad(16000), oku.Vad(16000)
        closed = oku.Vad(16000)
        closed.close()
        self.assertIn("one chunk per analyzer", str(self.assertRaisesValue(oku.process_many, [a, b], [samples])))
        self.assertIn("vads[1] is vads[0]", str(self.assertRaisesValue(oku.process_many, [a, a], [samples] * 2)))
        self.assertIn("closed", str(self.assertRaisesValue(oku.process_many, [a, closed], [samples] * 2)))
        self.assertRaisesValue(oku.process_many, [a, b], [samples, [1, 2, 70000]])
        with self.assertRaises(TypeError):
            oku.process_many([a, oku.Agc(16000)], [samples] * 2)
        with self.assertRaises(TypeError):
            oku.process_many([a, b], [samples, "audio"])
        want = twin.process(samples)
        self.assertEqual([want, want], oku.process_many([a, b], [samples, samples]))

    def assertRaisesValue(self, call, *args):
        with self.assertRaises(ValueError) as caught:
            call(*args)
        return caught.exception


class FactsTest(unittest.TestCase):
    def test_conversions_as_the_library_states_them(self):
        gain = oku.gain_from_volume(40000, 65535)
        self.assertEqual(ctypes.c_float(40000 / 65535).value, gain)
        self.assertEqual(39999, oku.volume_from_gain(gain, 65535))  # the round trip may lose one unit
        self.assertRaises(ValueError, oku.gain_from_volume, 70000, 65535)
        self.assertRaises(ValueError, oku.gain_from_volume, 2 ** 64, 65535)  # not wrapped to 0
        self.assertRaises(TypeError, oku.volume_from_gain, 0.5, 65535.0)

    def test_settings_and_their_check(self):
        vad = {s.key: s for s in oku.settings("vad")}
        self.assertEqual(420, vad["EOSTimeoutMs"].default)  # oku.h: the default at creation
        self.assertEqual("eos-timeout-ms", vad["EOSTimeoutMs"].name)
        oku.check_params("agc", "LowerBound=50")
        self.assertRaisesRegex(ValueError, "LeastGain", oku.check_params, "agc", "LeastGain=7")
        self.assertRaises(ValueError, oku.check_params, "gst", None)

    def test_chunks_and_unknown_keys_by_the_library_rules(self):
        # Halves round up (2.5 samples give 3), where Python's round() would give 2.
        self.assertEqual(3, oku.chunk_samples(8000, 0.3125))
        self.assertEqual(441, oku.chunk_samples(22050, 20))
        self.assertRaisesRegex(ValueError, "no sample", oku.chunk_samples, 8000, 0.05)
        # A key of the other service is unknown too; keys come in byte order.
        self.assertEqual(["EOSTimeoutMS", "LowerBound"],
                         oku.unknown_keys("vad", "LowerBound=50;EOSTimeoutMS=600;EOSTimeoutMs=600"))
        self.assertEqual([], oku.unknown_keys("agc", None))
        self.assertRaises(ValueError, oku.unknown_keys, "vad", "EOSTimeoutMs")

    def test_a_gain_changes_exactly_when_the_decision_says_so(self):
        rng = __import__("random").Random(5)
        agc, gain, changes = oku.Agc(16000), 0.3, 0
        for k in range(400):  # 8 s of noise that grows louder, then quiet
            level = 200 * (k + 1) if k < 300 else 30
            chunk = [max(-32768, min(32767, int(rng.gauss(0, level)))) for _ in range(320)]
            new_gain, d = agc.process(chunk, gain)
            if not d.changed:
                self.assertEqual(gain, new_gain)  # handed back as given
            else:
                self.assertNotEqual(ctypes.c_float(gain).value, ctypes.c_float(new_gain).value)
                changes += 1
            gain = new_gain
        self.assertGreater(changes, 0)

    def test_mismatches_are_named(self):
        class Short(ctypes.Structure):
            _fields_ = [("type", ctypes.c_int32)]

        problems = _lib.mismatches(_lib.lib, "0.0.0", {"oku_vad_result": Short, "oku_agc_decision": _lib.AgcDecision})
        self.assertEqual(2, len(problems))
        self.assertIn("version %s, the package 0.0.0" % oku.__version__, problems[0])
        self.assertRegex(problems[1], r"^oku_vad_result is \d+ bytes in the library, 4 in the package$")

    def test_oku_library_names_a_file(self):
        with tempfile.TemporaryDirectory() as folder:
            for value, problem in ((folder, "is a folder"), (os.path.join(folder, "gone.so"), "no such file")):
                path, tried = _lib.candidate(folder, {"OKU_LIBRARY": value})
                self.assertIsNone(path)
                self.assertIn(problem, tried[-1])
        path, _ = _lib.candidate(folder, {"OKU_LIBRARY": oku.LIBRARY_PATH})
        self.assertEqual(os.path.abspath(oku.LIBRARY_PATH), path)


if __name__ == "__main__":
    unittest.main()
