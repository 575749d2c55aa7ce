"""okuvad and okuagc in real pipelines, against the Python package over the same samples and the analyzer's
timing rules on tone bursts placed on 20 ms frame boundaries (testaudio.py)."""
import array
import glob
import math
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from gsttest import Gst, GstAudio, activity, analyse, appsrc, audio, caps, dated, feed, named, ns, oku, run
from testaudio import BURSTS, EXPECTED, signal, write_float_wav


def handoffs(sink, take):
    sink.set_property("signal-handoffs", True)
    out = []
    sink.connect("handoff", lambda _s, buf, _p: out.append(take(buf)))
    return out


def level_meta(buf):
    meta = GstAudio.buffer_get_audio_level_meta(buf)
    return meta.level, meta.voice_activity


def rfc6464(data, f32):
    """A packet's level by RFC 6464: -dBov of its mean power (0 dBov: full scale), 0..127; NaN counts as 0."""
    values = [x if f32 else x / 32768 for x in memoryview(data).cast("f" if f32 else "h")]
    power = sum(x * x for x in values if math.isfinite(x)) / len(values)
    return 127 if power == 0 else min(127, math.floor(-10 * math.log10(power) + 0.5))


class Plugin(unittest.TestCase):
    def test_caps_are_the_librarys_lists(self):
        for name in ("okuvad", "okuagc"):
            self.assertEqual("audio/x-raw, format=(string){ S16LE, F32LE }, layout=(string)interleaved, rate=(int){ %s "
                             "}, channels=(int)[ 1, %d ]" % (", ".join(map(str, oku.INPUT_RATES)), oku.MAX_CHANNELS),
                             Gst.ElementFactory.make(name).get_pad_template("sink").get_caps().to_string())

    def test_installed_copy_loads_and_its_manual_is_there(self):
        build, work = os.environ.get("OKU_BUILD_DIR"), tempfile.mkdtemp(prefix="oku-gst-install-")
        self.addCleanup(shutil.rmtree, work)
        if not build:
            self.skipTest("OKU_BUILD_DIR not set")
        subprocess.run(["cmake", "--install", build, "--prefix", work], check=True, capture_output=True, timeout=300)
        plugins = [p for p in (os.path.join(work, d, "gstreamer-1.0") for d in os.listdir(work)) if os.path.isdir(p)]
        # the plugin finds its own libOKUVAD (LD_LIBRARY_PATH empty), and its manual where gst-inspect-1.0 says
        env = dict(os.environ, GST_PLUGIN_PATH=plugins[0], LD_LIBRARY_PATH="",
                   GST_REGISTRY_1_0=os.path.join(work, "registry.bin"))
        manual = os.path.relpath(glob.glob(os.path.join(work, "**", "gstreamer.md"), recursive=True)[0], work)
        for name in ("okuvad", "okuagc"):
            out = subprocess.run(["gst-inspect-1.0", name], capture_output=True, env=env, timeout=120, text=True).stdout
            self.assertIn(work, out)
            self.assertRegex(out, r"Doc-uri\s+file:///\S*/%s\n" % re.escape(manual))


class Vad(unittest.TestCase):
    def test_every_format_gives_the_librarys_answer(self):
        # (rate, channels, float); 16 kHz mono 16-bit reaches the analyzer untouched: the timing rules hold too
        for rate, channels, f32 in ((16000, 1, False), (44100, 2, False), (12000, 3, True), (96000, 1, True)):
            width, chunk, bad = (4 if f32 else 2) * channels, rate // 50, 7 if f32 else 0
            # the float audio begins with samples that are not numbers: silence to the analyzer, and counted
            data = array.array("f", ([math.nan, math.inf, -math.inf] * 3)[:bad]).tobytes() + \
                audio(signal(rate, BURSTS, 6.0), channels, f32)[4 * bad:]
            # at 16 kHz, 2 s to 3 s come as GAP buffers (their samples, the end of the first burst and the
            # pause, left in them): silence to the analyzer, so the first segment ends early
            gap = range(2 * rate, 3 * rate, chunk) if rate == 16000 else ()
            heard = data[:2 * rate * width] + bytes(rate * width) + data[3 * rate * width:] if gap else data
            p, src = appsrc("okuvad name=vad interval=100000000 ! fakesink name=sink", rate, channels, f32)
            levels = handoffs(p.get_by_name("sink"), level_meta)
            feed(src, data, rate, width, chunk=chunk, start=Gst.SECOND, gap=gap)
            messages = run(p)
            events, _, inside = analyse(heard, rate, channels, f32, chunk=chunk)
            self.assertEqual((events, dated(events, lambda pos: Gst.SECOND + ns(pos, rate))), activity(messages))
            self.assertEqual((bad, bool(bad)), (p.get_by_name("vad").get_property("nonfinite"),
                                                bool(named(messages, "warning"))))
            # a reading per 20 ms buffer, posted when 100 ms of input frames have passed
            readings = [m["position"] for m in named(messages, "oku-volume")]
            self.assertEqual({rate // 10}, {b - a for a, b in zip(readings, readings[1:])}, rate)
            # every buffer's level meta: its RFC 6464 level, and the analyzer's state once it has heard it
            self.assertEqual([(rfc6464(heard[i:i + chunk * width], f32), v)
                              for i, v in zip(range(0, len(data), chunk * width), inside)], levels)
            if rate == 16000:  # dated 140 ms before each burst, ended 280 ms after it; the gap ends the first
                self.assertEqual([860, 2280, 3360, 4980], [e[0] * 1000 // rate for e in events])
            else:
                self.assertEqual([round(t * rate) for seg in EXPECTED for t in seg], [e[0] for e in events])

    def test_gate_passes_exactly_the_speech_frames(self):
        # The second burst runs to the end, past the last whole frame (at 24 kHz by half an analysed
        # sample); the buffers start at 10 s, their timestamps jump at 2 s, inside the first segment (by 1 s;
        # at 24 kHz by 20 ms, too little to count unless the buffer is marked DISCONT, which it is there),
        # and 4 s to 4.5 s come as GAP buffers (silence to the analyzer, left as they are in the buffers),
        # at 24 kHz turned into GAP events on the way.
        for rate, channels, f32, shift, discont in ((16000, 1, False, Gst.SECOND, False),
                                                    (24000, 2, True, 20 * Gst.MSECOND, True)):
            width, start, jump, gap = (4 if f32 else 2) * channels, 10 * Gst.SECOND, 2 * rate, (4 * rate, 9 * rate // 2)
            data = audio(signal(rate, [(1.0, 2.5), (3.5, 6.0101)], 6.0101), channels, f32)
            silenced = data[:gap[0] * width] + bytes((gap[1] - gap[0]) * width) + data[gap[1] * width:]
            p, src = appsrc("okuvad name=vad mode=gate ! fakesink name=sink sync=false", rate, channels, f32, live=True)
            received = [0]  # frames of the input buffers the element has taken
            p.get_by_name("vad").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, lambda _p, info: (
                received.append(received[-1] + info.get_buffer().get_size() // width) or Gst.PadProbeReturn.OK))
            src.get_static_pad("src").add_probe(Gst.PadProbeType.BUFFER, lambda pad, info: (
                Gst.PadProbeReturn.OK if rate == 16000 or not info.get_buffer().get_flags() & Gst.BufferFlags.GAP
                else pad.push_event(Gst.Event.new_gap(info.get_buffer().pts, info.get_buffer().duration)) and
                Gst.PadProbeReturn.DROP))
            out = handoffs(p.get_by_name("sink"), lambda b: (
                b.pts, b.offset, bool(b.get_flags() & Gst.BufferFlags.DISCONT), b.extract_dup(0, b.get_size()),
                received[-2]))
            p.set_state(Gst.State.PLAYING)
            query = Gst.Query.new_latency()
            self.assertTrue(p.get_by_name("vad").get_static_pad("src").query(query))
            feed(src, data, rate, width, start=start, jumps={jump: shift}, discont=discont,
                 gap=range(gap[0], gap[1], 1000))
            got = activity(run(p))

            events, frames, _ = analyse(silenced, rate, channels, f32, frames=True)
            ends = [pos for pos, _ in frames[1:]] + [len(data) // width]  # a frame lasts until the next one
            speech = [(pos, end, i == 0 or not frames[i - 1][1])
                      for i, ((pos, inside), end) in enumerate(zip(frames, ends)) if inside]

            def time_of(pos):
                return start + ns(pos, rate) + (shift if pos >= jump else 0)
            # DISCONT where the output does not continue: after dropped frames and at the jump
            self.assertEqual([(time_of(pos), pos, after_gap or pos == jump) for pos, _, after_gap in speech],
                             [o[:3] for o in out])
            self.assertEqual(b"".join(silenced[pos * width:end * width] for pos, end, _ in speech),
                             b"".join(o[3] for o in out))
            self.assertEqual((events, dated(events, time_of)), got)
            self.assertEqual((len(data) // width, False), events[-1][:2])  # the open segment closed at EOS
            # the LATENCY query (live) covers how long any frame pushed with an input buffer was held
            live, latency, _ = query.parse_latency()
            self.assertTrue(live and max(ns(max(0, o[4] - o[1]), rate) for o in out) <= latency)

    def test_new_caps_a_float_file_and_a_seek(self):
        # 2 s at 16 kHz mono ending inside speech, then the bursts at 48 kHz float stereo
        first, second = audio(signal(16000, [(1.0, 2.5)], 2.0)), audio(signal(48000, BURSTS, 6.0), 2, True)
        p, src = appsrc("okuvad ! fakesink", 16000)
        feed(src, first, 16000, 2, eos=False)
        src.set_property("caps", Gst.Caps.from_string(caps(48000, 2, True)))
        feed(src, second, 48000, 8, start=2 * Gst.SECOND)
        a, b = analyse(first, 16000)[0], analyse(second, 48000, 2, True)[0]
        self.assertEqual((32000, False), a[-1][:2])  # the first run's open speech closed by the new caps
        self.assertEqual((a + b, dated(a, lambda pos: ns(pos, 16000)) +
                          dated(b, lambda pos: 2 * Gst.SECOND + ns(pos, 48000))), activity(run(p)))
        # the same 48 kHz stereo float audio as a file; then a flushing seek to 3 s, where the analyzer
        # starts afresh, and running time with it
        folder = tempfile.mkdtemp(prefix="oku-gst-")
        self.addCleanup(shutil.rmtree, folder)
        write_float_wav(os.path.join(folder, "b.wav"), 48000, memoryview(second).cast("f").tolist(), channels=2)
        p = Gst.parse_launch("filesrc location=%s ! wavparse ! okuvad ! fakesink" % os.path.join(folder, "b.wav"))
        self.assertEqual(b, activity(run(p))[0])
        p.set_state(Gst.State.PAUSED)
        p.get_state(Gst.CLOCK_TIME_NONE)
        self.assertTrue(p.seek_simple(Gst.Format.TIME, Gst.SeekFlags.FLUSH | Gst.SeekFlags.ACCURATE, 3 * Gst.SECOND))
        p.get_state(Gst.CLOCK_TIME_NONE)
        va = named(run(p), "voice-activity")
        rest = analyse(second[3 * 48000 * 8:], 48000, 2, True)[0]
        self.assertEqual((rest, dated(rest, lambda pos: 3 * Gst.SECOND + ns(pos, 48000))), activity(va))
        self.assertEqual([ns(pos, 48000) for pos, _, _ in rest], [m["running-time"] for m in va])

    def test_settings(self):
        data = audio(signal(16000, BURSTS, 6.0))
        # typed properties override the same key in params; a key no setting has is a warning naming it
        p, src = appsrc("okuvad name=vad params=EOSTimeoutMs=200;SpeechWindowSizeMs=300;EOSTimoutMs=9 "
                        "eos-timeout-ms=1000 ! fakesink", 16000)
        vad = p.get_by_name("vad")
        self.assertEqual((1000, 300), (vad.get_property("eos-timeout-ms"), vad.get_property("speech-window-size-ms")))
        feed(src, data, 16000, 2)
        messages = run(p)
        for params, same in (("EOSTimeoutMs=1000;SpeechWindowSizeMs=300", True),
                             ("EOSTimeoutMs=200;SpeechWindowSizeMs=300", False)):
            self.assertEqual(same, analyse(data, 16000, params=params)[0] == activity(messages)[0])
        self.assertEqual(["EOSTimoutMs"], re.findall("EOSTi[a-z]*Ms", str(named(messages, "warning"))))
        # a setting the library refuses stops the pipeline with a settings error
        for element, setting in (("okuvad", "params=EOSTimeoutMs=soon"), ("okuvad", "histogram-window-size-ms=0"),
                                 ("okuagc", "least-gain=0"), ("okuagc", "params=MinUpdateIntervalMs=10")):
            p, src = appsrc("%s %s ! fakesink" % (element, setting), 16000)
            feed(src, data[:32000], 16000, 2)
            with self.assertRaises(AssertionError) as e:
                run(p)
            self.assertTrue(e.exception.args[1].matches(Gst.LibraryError.quark(), Gst.LibraryError.SETTINGS), setting)


class Agc(unittest.TestCase):
    """okuagc as the host of the gain control for a volume element."""

    def volume(self, pipeline, samples, before, person=None, gap=()):
        """Runs the pipeline over 16 kHz audio, element "v" at volume `before`; person = (frame, volume): a
        person sets v there. Each decision must start from v's volume (the one the last decision set, or
        the person's), and v end at the last one set. Returns v's volume and the decisions."""
        p, src = appsrc(pipeline + " ! fakesink", 16000)
        v, turned = p.get_by_name("v"), ns(person[0], 16000) if person else Gst.CLOCK_TIME_NONE
        src.get_static_pad("src").add_probe(Gst.PadProbeType.BUFFER, lambda _p, info: (
            info.get_buffer().pts == turned and v.set_property("volume", person[1])) or Gst.PadProbeReturn.OK)
        feed(src, audio(samples), 16000, 2, chunk=320, gap=gap)
        messages = named(run(p), "oku-agc")
        for m in messages:
            if person and m["stream-time"] > turned:
                before, person = person[1], None
            self.assertAlmostEqual(before, m["volume-before"], places=6)
            before = m["volume-after"]
        self.assertEqual((None, round(before, 6)), (person, round(v.get_property("volume"), 6)))
        if p.get_by_name("near"):  # the volume not named is left alone
            self.assertEqual(1.0, p.get_by_name("near").get_property("volume"))
        return v.get_property("volume"), messages

    def test_drives_the_volume_it_finds(self):
        quiet, loud, silence = signal(16000, BURSTS, 6.0), signal(16000, BURSTS, 6.0, tone=30000), [0] * 96000
        # (pipeline, audio, v's volume, GAP buffers, a person's turn, which way v goes): 6 s of digital silence
        # reads as a microphone turned far down: as audio it raises v; as GAP buffers it must not move it
        for pipeline, samples, before, gap, person, way in (
                ("volume name=v volume=0.02 ! okuagc", quiet, 0.02, (), None, 1),
                ("volume name=v volume=1.0 ! okuagc", loud, 1.0, (), None, -1),
                ("( volume name=v volume=0.02 ) ! identity ! okuagc", quiet, 0.02, (), None, 1),
                ("volume name=v volume=0.02 ! volume name=near ! okuagc volume-element=v", quiet, 0.02, (), None, 1),
                ("volume name=v volume=0.02 ! okuagc", quiet, 0.02, (), (48000, 0.5), 1),
                ("volume name=v volume=0.5 ! okuagc", silence, 0.5, (), None, 1),
                ("volume name=v volume=0.5 ! okuagc", silence, 0.5, range(0, 96000, 320), None, 0)):
            volume, messages = self.volume(pipeline, samples, before, person, gap)
            self.assertEqual((way, bool(way)), ((volume > before) - (volume < before), bool(messages)), pipeline)

    def test_without_a_volume_element_the_decisions_are_the_librarys(self):
        # 48 kHz float stereo, too loud, its first sample not a number; each proposal taken as applied,
        # from max-volume on
        rate, chunk = 48000, 960
        data = array.array("f", [math.nan]).tobytes() + audio(signal(rate, BURSTS, 6.0, tone=30000), 2, True)[4:]
        p, src = appsrc("okuagc name=agc max-volume=2 ! fakesink", rate, 2, True)
        feed(src, data, rate, 8, chunk=chunk)
        got = [(m["control"], m["volume-before"], m["volume-after"]) for m in named(run(p), "oku-agc")]
        self.assertEqual(1, p.get_by_name("agc").get_property("nonfinite"))
        agc, gain, expected, samples = oku.Agc(rate, channels=2), 1.0, [], array.array("f", data)
        for i in range(0, len(samples), 2 * chunk):
            before = gain
            gain, d = agc.process(samples[i:i + 2 * chunk], before)
            if d.updated:
                expected.append((d.control, 2 * before, 2 * gain))
        self.assertIn("speech_too_high", [c for c, _, _ in expected])
        self.assertEqual(expected, got)


if __name__ == "__main__":
    unittest.main(verbosity=2)
