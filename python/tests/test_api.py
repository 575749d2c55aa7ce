"""The package's classes and functions on generated recordings: tone bursts on
20 ms frame boundaries, whose segments the analyzer's timing rules give exactly."""
import array
import copy
import ctypes
import os
import pickle
import tempfile
import unittest
import warnings

from support import BURSTS, EXPECTED, numpy, oku, signal

from oku import _lib


def floats(samples, code="f"):
    """16-bit samples as floats of full scale 1: exact, so the library rounds them back to the same ints."""
    return array.array(code, (x / 32768 for x in samples))


class SegmentTest(unittest.TestCase):
    def test_audio_as_devices_deliver_it(self):
        # Each rate and form goes to the library as it is; positions count at the input rate: those
        # of the timing rules at an analysis rate, within a frame after a conversion (the converter's
        # delay is under 1 ms). The speech decisions do not depend on how the audio is cut into calls.
        for rate, channels in ((48000, 2), (44100, 1), (24000, 2), (22050, 1), (8000, 1)):
            samples = signal(rate, BURSTS, 6.0, channels=channels)
            vad = oku.Vad(rate, channels=channels)
            want = vad.segments(samples)
            slack = 0 if rate in oku.RATES else rate * 0.02
            self.assertEqual(len(EXPECTED), len(want))
            for got, (s, e) in zip(want, EXPECTED):
                self.assertLessEqual(abs(got.start_sample - s * rate), slack, (rate, got))
                self.assertLessEqual(abs(got.end_ms - e * 1000), slack and 20, (rate, got))
            forms = [samples.tobytes(), list(samples), memoryview(samples), floats(samples), floats(samples, "d")]
            if numpy is not None:
                frames = numpy.array(samples, dtype=numpy.int16).reshape(-1, channels)
                forms += [frames, numpy.asfortranarray(frames / 32768), (frames / 32768).astype(numpy.float32)]
            for form in forms:
                with self.subTest(rate=rate, form=type(form).__name__):
                    self.assertEqual(want, oku.Vad(rate, channels=channels).segments(form))
            self.assertEqual(want, vad.segments(samples, chunk_ms=20))
            step = oku.chunk_samples(rate, 7.3) * channels
            chunked = oku.Vad(rate, channels=channels)
            results = [r for i in range(0, len(samples), step) for r in chunked.process(samples[i:i + step])]
            self.assertEqual(want, oku.to_segments(results + chunked.flush()))
            agc = [oku.Agc(rate, channels=channels) for _ in range(2)]
            self.assertEqual(agc[0].process(samples, 0.5), agc[1].process(floats(samples), 0.5))
        self.assertEqual(0, vad.nonfinite)
        vad.process(array.array("f", [float("nan"), 0.0, float("inf"), 0.5]))
        self.assertEqual(2, vad.nonfinite)

    def test_long_segments_cut_by_the_library_rule(self):
        samples = signal(16000, [(0.5, 5.5)], 6.0)
        [whole] = oku.Vad(16000).segments(samples)
        pieces = oku.Vad(16000).segments(samples, max_ms=1000)
        self.assertEqual(-(-(whole.end_ms - whole.start_ms) // 1000), len(pieces))  # the fewest pieces
        edges = [whole.start_sample] + [p.end_sample for p in pieces]  # pieces tile the segment
        self.assertEqual(edges[:-1], [p.start_sample for p in pieces])
        self.assertEqual(whole.end_sample, edges[-1])
        self.assertLessEqual(max(b - a for a, b in zip(edges, edges[1:])), 16000)


class RefusalTest(unittest.TestCase):
    def test_bad_arguments_raise_and_take_nothing(self):
        vad, agc, stereo = oku.Vad(16000), oku.Agc(16000), oku.Vad(16000, channels=2)
        vad_args = [(16000.5,), (2 ** 32 + 16000,), (44101,), (float("nan"),), (16000, None, None, 0),
                    (16000, None, None, 65), (16000, "EOSTimeoutMs"), (16000, "LowerBound=50\0;nonsense")]
        cases = [(ValueError, cls, args) for cls in (oku.Vad, oku.Agc) for args in vad_args]
        cases += [(TypeError, cls, args) for cls in (oku.Vad, oku.Agc)
                  for args in (("16000",), (True,), (16000, b"EOSTimeoutMs=600"), (16000, None, None, "2"))]
        cases += [(ValueError, oku.Agc, (16000, "LeastGain=7"))]
        cases += [(ValueError, vad.process, (b"\x00\x01\x02",)), (ValueError, vad.process, ([0, 32768],)),
                  (ValueError, vad.process, (memoryview(array.array("h", range(8))).cast("B").cast("h", [4, 2]),)),
                  (ValueError, stereo.process, ([1, 2, 3],)), (TypeError, vad.process, ([0.5, 1.0],)),
                  (TypeError, vad.process, ("audio",)), (TypeError, vad.process, (array.array("H", [1]),)),
                  (TypeError, oku.process_many, ([vad, stereo], [[0], array.array("f", [0.0, 0.0])])),
                  (TypeError, oku.process_many, ([vad, agc], [[0], [0]]))]
        closed = oku.Vad(16000)
        closed.close()
        cases += [(ValueError, oku.process_many, (vads, chunks)) for vads, chunks in (([vad, stereo], [[0]]),
                  ([vad, vad], [[0], [0]]), ([vad, closed], [[0], [0]]), ([vad, stereo], [[0], [1, 70000]]))]
        if numpy is not None:
            cases += [(ValueError, vad.process, (numpy.zeros((2, 2, 2), numpy.float32),)),
                      (TypeError, vad.process, (numpy.zeros(320, numpy.int32),)),
                      (TypeError, vad.process, (numpy.zeros(320, ">i2" if numpy.little_endian else "<i2"),))]
        cases += [(ValueError, vad.segments, ([0] * 320,) + bad) for bad in ((0,), (float("nan"),), (20, -1))]
        cases += [(ValueError, agc.process, ([0] * 320, gain)) for gain in (1.5, float("nan"), 10 ** 400)]
        cases += [(TypeError, vad.segments, ([0] * 320, "20")), (TypeError, agc.process, ([0] * 320, "0.5"))]
        for error, call, args in cases:
            with self.subTest(call=getattr(call, "__qualname__", call), args=args):
                kwargs = {"channels": args[3]} if len(args) > 3 else {}  # creating one: channels by keyword
                self.assertRaises(error, call, *args[:3], **kwargs)
        self.assertEqual([], vad.flush() + stereo.flush())  # nothing was taken
        self.assertEqual(0.0, agc.decision().time_ms)

    def test_an_unknown_key_is_a_warning_at_the_caller(self):
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            oku.Vad(16000, "EOSTimeoutMS=600;EOSTimeoutMs=600")
        self.assertEqual([__file__], [w.filename for w in caught if "'EOSTimeoutMS'" in str(w.message)])


class LifetimeTest(unittest.TestCase):
    def test_close_and_with(self):
        with oku.Vad(16000) as vad, oku.Agc(16000) as agc:
            self.assertFalse(vad.closed or agc.closed)
            vad.process([0] * 320)
        self.assertTrue(vad.closed and agc.closed)
        vad.close()  # again: nothing happens
        for call in (lambda: vad.process([0]), vad.flush, vad.reset, lambda: vad.segments([0]),
                     lambda: agc.process([0], 0.5), agc.decision):
            self.assertRaises(ValueError, call)

    def test_pickles_and_copies_are_fresh_objects_with_the_same_arguments(self):
        samples = signal(48000, BURSTS, 6.0, channels=2)
        want = oku.Vad(48000, "EOSTimeoutMs=600", channels=2).segments(samples)
        vad = oku.Vad(48000, "EOSTimeoutMs=600", channels=2)
        vad.process(samples[:len(samples) // 2])  # not carried over
        for other in (pickle.loads(pickle.dumps(vad)), copy.copy(vad)):
            self.assertEqual((48000, 2, 16000), (other.rate, other.channels, other.analysis_rate))
            self.assertEqual(want, other.segments(samples))
        agc = oku.Agc(44100, "LowerBound=50", channels=2)
        twin = copy.deepcopy(agc)
        agc.close()  # its own handle: the copy lives on
        self.assertEqual(oku.Agc(44100, "LowerBound=50", channels=2).process(samples[:8820], 0.5),
                         twin.process(samples[:8820], 0.5))

    def test_log_exception_comes_out_of_process_after_the_call(self):
        lines = []
        agc = oku.Agc(16000, log=lambda line: lines.append(line) or len(lines) > 1 or 1 / 0)
        with self.assertRaises(ZeroDivisionError):  # raised by the first line
            agc.process(bytes(2 * 6 * 320), 0.5)  # 120 ms: one update, one log line
        self.assertTrue(agc.decision().updated)  # the audio was taken all the same
        self.assertEqual(120.0, agc.decision().time_ms)
        agc.process(bytes(2 * 6 * 320), 0.5)  # the next call logs and succeeds
        self.assertEqual(2, len(lines))
        recursive = oku.Agc(16000, log=lambda line: recursive.decision())
        self.assertRaises(RuntimeError, recursive.process, bytes(2 * 6 * 320), 0.5)


class ProcessManyTest(unittest.TestCase):
    def test_each_analyzer_gets_what_its_own_process_gives(self):
        rates = (8000, 11025, 16000, 22050, 48000)
        many = [oku.Vad(rate, frames=(i == 4)) for i, rate in enumerate(rates)]
        one = [oku.Vad(rate, frames=(i == 4)) for i, rate in enumerate(rates)]
        audio = [signal(rate, BURSTS, 6.0) for rate in rates]
        at, starts = [0] * len(rates), 0
        for call in range(40):
            n = [0 if (call + i) % 6 == 0 else rate // 10 + 37 * ((call * 3 + i) % 11) for i, rate in enumerate(rates)]
            chunks = [audio[i][at[i]:at[i] + n[i]] for i in range(len(rates))]
            chunks = [floats(c) for c in chunks] if call % 2 else chunks  # one kind per call, both kinds
            at = [a + k for a, k in zip(at, n)]
            got = oku.process_many(many, chunks)
            want = [vad.process(chunk) for vad, chunk in zip(one, chunks)]
            self.assertEqual(want, got, "call %d" % call)
            starts += sum(isinstance(r, oku.SpeechStart) for results in got for r in results)
        self.assertGreater(starts, 0)
        self.assertEqual([], oku.process_many([], []))


class FactsTest(unittest.TestCase):
    def test_settings_chunks_and_unknown_keys(self):
        self.assertRaises(ValueError, oku.check_params, "gst", None)
        self.assertRaises(ValueError, oku.gain_from_volume, 2 ** 64, 65535)  # not wrapped to 0
        self.assertEqual(3, oku.chunk_samples(8000, 0.3125))  # halves up, where round() gives 2
        # A key of the other service is unknown too; keys come in byte order.
        self.assertEqual(["EOSTimeoutMS", "LowerBound"],
                         oku.unknown_keys("vad", "LowerBound=50;EOSTimeoutMS=600;EOSTimeoutMs=600"))
        self.assertRaises(ValueError, oku.unknown_keys, "vad", "EOSTimeoutMs")

    def test_mismatches_are_named(self):
        class Short(ctypes.Structure):
            _fields_ = [("type", ctypes.c_int32)]

        problems = _lib.mismatches(_lib.lib, "0.0.0", {"oku_vad_result": Short, "oku_agc_decision": _lib.AgcDecision})
        self.assertEqual(["the library is version %s, the package 0.0.0" % oku.__version__,
                          "oku_vad_result is %d bytes in the library, 4 in the package"
                          % _lib.lib.oku_struct_size(b"oku_vad_result")], problems)

    def test_oku_library_names_a_file(self):
        with tempfile.TemporaryDirectory() as folder:
            for value, problem in ((folder, "is a folder"), (os.path.join(folder, "gone.so"), "no such file")):
                path, tried = _lib.candidate(folder, {"OKU_LIBRARY": value})
                self.assertEqual((None, True), (path, problem in tried[-1]))
        path, _ = _lib.candidate(folder, {"OKU_LIBRARY": oku.LIBRARY_PATH})
        self.assertEqual(os.path.abspath(oku.LIBRARY_PATH), path)


if __name__ == "__main__":
    unittest.main()
