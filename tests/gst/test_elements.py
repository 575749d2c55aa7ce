"""okuvad and okuagc in real pipelines.

Recordings are tone bursts over noise on 20 ms frame boundaries (testaudio.py),
so the analyzer's timing rules give the segments by hand; every position is
also compared with the handle API run directly over the same samples, and
every time with the buffer timestamps the samples came with.
"""
import array
import ctypes
import math
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from gsttest import (Gst, GstAudio, GstRtp, PipelineError, activity, as_array, caps, events, feed, make, named, ns,
                     oku, rates, run, settings)
from testaudio import BURSTS, EXPECTED, signal, write_wav

CONTROLS = set(oku.CONTROLS)
RAISES = {"pause_too_low", "speech_too_low", "gain_estimate"}


def appsrc_pipeline(tail, rate, live=False):
    p = make("appsrc name=src format=time max-bytes=0 is-live=%s ! %s" % ("true" if live else "false", tail))
    src = p.get_by_name("src")
    src.set_property("caps", caps(rate))
    return p, src


def collect_output(sink):
    """Every buffer reaching a fakesink: [(pts, flags, bytes)]."""
    out = []
    sink.set_property("signal-handoffs", True)
    sink.connect("handoff", lambda _s, buf, _p: out.append(
        (buf.pts, buf.get_flags(), buf.extract_dup(0, buf.get_size()))))
    return out


def collect_levels(sink):
    """The GstAudioLevelMeta of every buffer reaching a fakesink: [(level, voice_activity) or None]."""
    out = []
    sink.set_property("signal-handoffs", True)

    def handoff(_s, buf, _p):
        meta = GstAudio.buffer_get_audio_level_meta(buf)
        out.append((meta.level, meta.voice_activity) if meta else None)
    sink.connect("handoff", handoff)
    return out


def rfc6464_level(samples):
    """A packet's level as RFC 6464 defines it: -dBov of its mean power (0 dBov: full scale), 0..127."""
    power = sum(x * x for x in samples) / len(samples) if len(samples) else 0
    if power == 0:
        return 127
    return min(127, math.floor(-10 * math.log10(power / 32768.0 ** 2) + 0.5))


def speech_after_each_chunk(samples, rate, chunk):
    """Whether the analyzer (the handle API) is inside speech once it has heard each chunk."""
    vad, inside, out = oku.Vad(rate), False, []
    for i in range(0, len(samples), chunk):
        for r in vad.process(samples[i:i + chunk]):
            if isinstance(r, (oku.SpeechStart, oku.SpeechEnd)):
                inside = isinstance(r, oku.SpeechStart)
        out.append(inside)
    return out


def audio_level_extension(packet, ext_id):
    """The one-byte (RFC 8285) header extension element ext_id of an RTP packet: (voice, level), or None."""
    if not packet[0] & 0x10:
        return None
    at = 12 + 4 * (packet[0] & 0x0F)
    profile, words = int.from_bytes(packet[at:at + 2], "big"), int.from_bytes(packet[at + 2:at + 4], "big")
    if profile != 0xBEDE:
        return None
    data, k = packet[at + 4:at + 4 + 4 * words], 0
    while k < len(data):
        if data[k] == 0:  # padding
            k += 1
            continue
        element, length = data[k] >> 4, (data[k] & 0x0F) + 1
        if element == ext_id:
            return bool(data[k + 1] & 0x80), data[k + 1] & 0x7F
        k += 1 + length
    return None


class Plugin(unittest.TestCase):
    def test_inspect_and_properties_follow_the_library(self):
        for name in ("okuvad", "okuagc"):
            p = subprocess.run(["gst-inspect-1.0", name], capture_output=True, timeout=120)
            self.assertEqual(0, p.returncode, p.stderr)
        for name, service in (("okuvad", 0), ("okuagc", 1)):
            element = Gst.ElementFactory.make(name)
            for s in settings(service):
                param = element.find_property(s.name.decode())
                self.assertIsNotNone(param, s.name)
                self.assertEqual("gint" if s.type == 0 else "gdouble", param.value_type.name, s.name)
                self.assertEqual(s.default_value, param.default_value, s.name)
                # read back as the service takes it: the gain control keeps real settings as floats
                default = ctypes.c_float(s.default_value).value if service == 1 else s.default_value
                self.assertEqual(default, element.get_property(s.name.decode()), s.name)
            # on the base classes level and webrtcdsp use
            self.assertTrue(element.__gtype__.is_a(GstAudio.AudioFilter.__gtype__), name)
            template = element.get_pad_template("sink").get_caps()
            listed = re.search(r"rate=\(int\)\{ ([0-9, ]+) \}", template.to_string()).group(1)
            self.assertEqual(rates(), sorted(int(r) for r in listed.split(",")))

    def test_unknown_params_keys_are_a_warning(self):
        samples = signal(16000, BURSTS, 6.0)
        for element, params, unknown in (("okuvad", "EOSTimeoutMs=300;EOSTimoutMs=1000", ["EOSTimoutMs"]),
                                         ("okuagc", "EOSTimeoutMs=300", ["EOSTimeoutMs"])):
            p, src = appsrc_pipeline("%s params=%s ! fakesink" % (element, params), 16000)
            feed(src, samples, 16000)
            src.emit("end-of-stream")
            messages = run(p)
            warnings = named(messages, "warning")
            self.assertEqual(1, len(warnings), warnings)
            for key in unknown:
                self.assertIn(key, warnings[0]["message"])
            # the known keys still apply
            if element == "okuvad":
                self.assertEqual(events(samples, 16000, "EOSTimeoutMs=300"),
                                 [(pos, voice) for pos, voice, _, _ in activity(messages)])
        # known keys alone: no warning
        p, src = appsrc_pipeline("okuvad params=EOSTimeoutMs=300 ! fakesink", 16000)
        feed(src, samples[:16000], 16000)
        src.emit("end-of-stream")
        self.assertEqual([], named(run(p), "warning"))

    def test_installed_copy_loads(self):
        build = os.environ.get("OKU_BUILD_DIR")
        if not build:
            self.skipTest("OKU_BUILD_DIR not set")
        work = tempfile.mkdtemp(prefix="oku-gst-install-")
        try:
            subprocess.run(["cmake", "--install", build, "--prefix", work], check=True, capture_output=True,
                           timeout=300)
            plugins = [os.path.join(work, d, "gstreamer-1.0") for d in os.listdir(work)
                       if os.path.isdir(os.path.join(work, d, "gstreamer-1.0"))]
            self.assertEqual(1, len(plugins), os.listdir(work))
            env = {k: v for k, v in os.environ.items() if k not in ("LD_LIBRARY_PATH", "GST_PLUGIN_PATH")}
            env["GST_PLUGIN_PATH"] = plugins[0]
            env["GST_REGISTRY_1_0"] = os.path.join(work, "registry.bin")
            for name in ("okuvad", "okuagc"):
                p = subprocess.run(["gst-inspect-1.0", name], capture_output=True, env=env, timeout=120)
                self.assertEqual(0, p.returncode, p.stderr)
                self.assertIn(work, p.stdout.decode())
                # the manual the description names is installed there
                manual = re.search(r"Manual: (\S+)", p.stdout.decode()).group(1)
                self.assertTrue(os.path.isfile(os.path.join(work, manual)), manual)
        finally:
            shutil.rmtree(work)


class Vad(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="oku-gst-")
        cls.samples = signal(16000, BURSTS, 6.0)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def test_pass_mode_dates_speech_as_the_analyzer_does(self):
        p, src = appsrc_pipeline("okuvad interval=0 ! fakesink name=sink", 16000)
        out = collect_output(p.get_by_name("sink"))
        feed(src, self.samples, 16000, chunk=1000)
        src.emit("end-of-stream")
        messages = run(p)
        got = activity(messages)
        # the timing rules, by hand: each burst dated 140 ms before it, ended 280 ms after it
        rule = [(round(t * 16000), start) for seg in EXPECTED for t, start in zip(seg, (True, False))]
        self.assertEqual(rule, [(pos, voice) for pos, voice, _, _ in got])
        self.assertEqual(events(self.samples, 16000), [(pos, voice) for pos, voice, _, _ in got])
        for pos, _, stream_time, running_time in got:
            self.assertEqual(ns(pos, 16000), stream_time)
            self.assertEqual(ns(pos, 16000), running_time)
        # the audio goes through untouched
        self.assertEqual(self.samples.tobytes(), b"".join(data for _, _, data in out))
        # interval=0: one reading per buffer that completed a frame, as the handle API gives them
        vad = oku.Vad(16000)
        readings = [r for i in range(0, len(self.samples), 1000) for r in vad.process(self.samples[i:i + 1000])
                    if isinstance(r, oku.Volume)]
        volumes = named(messages, "oku-volume")
        self.assertEqual([(r.position, r.peak, r.level_dbfs, r.assessment, r.speech) for r in readings],
                         [(s["position"], s["peak"], s["level-dbfs"], s["assessment"], s["speech"]) for s in volumes])

    def test_volume_interval(self):
        p, src = appsrc_pipeline("okuvad interval=100000000 ! fakesink", 16000)
        feed(src, self.samples, 16000, chunk=320)
        src.emit("end-of-stream")
        positions = [s["position"] for s in named(run(p), "oku-volume")]
        gaps = [b - a for a, b in zip(positions, positions[1:])]
        # one reading per 20 ms buffer, posted when 100 ms (1600 samples) have passed since the last
        self.assertEqual(320, positions[0])
        self.assertEqual({1600}, set(gaps))
        self.assertEqual(len(self.samples) // 1600, len(positions))

    def test_resampled_stereo_44100(self):
        path = os.path.join(self.dir, "bursts44.wav")
        write_wav(path, 44100, signal(44100, BURSTS, 6.0, channels=2), channels=2)
        p = make("filesrc location=%s ! wavparse ! audioconvert ! audioresample ! okuvad ! fakesink name=sink" % path)
        out = collect_output(p.get_by_name("sink"))
        got = activity(run(p))
        resampled = as_array(b"".join(data for _, _, data in out))
        # 44100 Hz is analysed at 22050 Hz; positions count samples there
        self.assertEqual(events(resampled, 22050), [(pos, voice) for pos, voice, _, _ in got])
        times = [t for seg in EXPECTED for t in seg]
        for t, (pos, _, stream_time, _) in zip(times, got):
            self.assertLessEqual(abs(stream_time - t * Gst.SECOND), 20 * Gst.MSECOND)
        self.assertEqual(len(times), len(got))

    def test_gate_passes_exactly_the_speech_frames(self):
        # The second burst runs to the end of the audio (6.01 s, half a frame
        # past the last whole frame), the buffers start at 10 s and jump by
        # 1 s at 3 s.
        rate = 16000
        samples = signal(rate, [(1.0, 2.5), (3.5, 6.01)], 6.01)
        start, jump_at, jump = 10 * Gst.SECOND, 3 * rate, Gst.SECOND
        p, src = appsrc_pipeline("okuvad name=vad mode=gate ! fakesink name=sink sync=false", rate, live=True)
        vad = p.get_by_name("vad")
        out = collect_output(p.get_by_name("sink"))
        received = []  # samples before each input buffer, while it is being analysed
        count = [0]

        def on_input(_pad, info):
            received.append(count[0])
            count[0] += info.get_buffer().get_size() // 2
            return Gst.PadProbeReturn.OK
        vad.get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, on_input)
        held = []
        p.get_by_name("sink").connect("handoff", lambda _s, buf, _p: held.append(received[-1] - buf.offset))

        def time_of(position):
            return start + ns(position, rate) + (jump if position >= jump_at else 0)
        p.set_state(Gst.State.PLAYING)
        query = Gst.Query.new_latency()
        self.assertTrue(vad.get_static_pad("src").query(query))
        live, latency, _ = query.parse_latency()
        feed(src, samples, rate, chunk=1000, start=start, jumps={jump_at: jump})
        src.emit("end-of-stream")
        messages = run(p)

        analyzer = oku.Vad(rate, frames=True)
        frames = [r for i in range(0, len(samples), 1000) for r in analyzer.process(samples[i:i + 1000])
                  if isinstance(r, oku.Frame)]
        frames += [r for r in analyzer.flush() if isinstance(r, oku.Frame)]
        speech = [f for f in frames if f.speech]
        self.assertEqual([time_of(f.position) for f in speech], [pts for pts, _, _ in out])
        self.assertEqual(b"".join(array.array("h", f.samples).tobytes() for f in speech), b"".join(d for _, _, d in out))
        # DISCONT exactly on the first frame after each gap
        after_gap = [i == 0 or speech[i - 1].index != f.index - 1 for i, f in enumerate(speech)]
        self.assertEqual(after_gap, [bool(flags & Gst.BufferFlags.DISCONT) for _, flags, _ in out])
        self.assertEqual(2, sum(after_gap))
        # the open segment is flushed at EOS: the last frame is the half frame, and speech ends at the end
        self.assertEqual(160, len(out[-1][2]) // 2)
        got = activity(messages)
        self.assertEqual((len(samples), False), got[-1][:2])
        self.assertEqual([time_of(pos) for pos, _, _, _ in got], [t for _, _, t, _ in got])
        # what the LATENCY query answers covers how long any frame pushed was held
        self.assertTrue(live)
        self.assertGreater(latency, 0)
        self.assertLessEqual(ns(max(held), rate), latency)

    def test_level_meta_reaches_rtp_packets(self):
        # 20 ms buffers and 20 ms packets: one packet per buffer
        rate, chunk = 16000, 320
        p, src = appsrc_pipeline(
            "okuvad ! tee name=t ! queue ! fakesink name=meta t. ! queue ! audioconvert ! "
            "rtpL16pay name=pay min-ptime=20000000 max-ptime=20000000 ! fakesink name=rtp", rate)
        levels = collect_levels(p.get_by_name("meta"))
        packets = []
        p.get_by_name("rtp").set_property("signal-handoffs", True)
        p.get_by_name("rtp").connect("handoff", lambda _s, buf, _p: packets.append(buf.extract_dup(0, buf.get_size())))
        extension = GstRtp.RTPHeaderExtension.create_from_uri("urn:ietf:params:rtp-hdrext:ssrc-audio-level")
        extension.set_id(1)
        p.get_by_name("pay").emit("add-extension", extension)
        feed(src, self.samples, rate, chunk=chunk)
        src.emit("end-of-stream")
        segments = activity(run(p))

        chunks = [self.samples[i:i + chunk] for i in range(0, len(self.samples), chunk)]
        voice = speech_after_each_chunk(self.samples, rate, chunk)
        expected = [(rfc6464_level(c), v) for c, v in zip(chunks, voice)]
        self.assertEqual(expected, levels)
        # every packet carries the extension, with the buffer's level and voice bit
        self.assertEqual(len(chunks), len(packets))
        self.assertEqual([(v, level) for level, v in expected], [audio_level_extension(pk, 1) for pk in packets])
        # the voice bit agrees with the segments posted: one run of packets per segment, beginning
        # no earlier than the segment and no later than the analyzer's delay after it
        delay = 800 * rate // 1000
        runs = [i for i in range(len(voice)) if voice[i] and (i == 0 or not voice[i - 1])]
        starts = [pos for pos, has_voice, _, _ in segments if has_voice]
        self.assertEqual(len(starts), len(runs))
        for start, first in zip(starts, runs):
            self.assertLessEqual(start, (first + 1) * chunk)
            self.assertLessEqual((first + 1) * chunk - start, delay)

        # gate mode: every buffer out lies in speech, at the level of its samples
        p, src = appsrc_pipeline("okuvad mode=gate ! fakesink name=sink", rate)
        sink = p.get_by_name("sink")
        levels, out = collect_levels(sink), collect_output(sink)
        feed(src, self.samples, rate, chunk=chunk)
        src.emit("end-of-stream")
        run(p)
        self.assertTrue(out)
        self.assertEqual([(rfc6464_level(as_array(data)), True) for _, _, data in out], levels)

    def test_gap_buffers_are_silence_on_the_sample_clock(self):
        # 2 s to 3 s come as GAP buffers (their samples, the end of the first burst
        # and the pause after it, left in them): the analyzer hears zeros there and
        # counts them, so the first segment ends early and the second keeps its place
        rate, gap = 16000, range(2 * 16000, 3 * 16000)
        p, src = appsrc_pipeline("okuvad ! fakesink name=sink", rate)
        levels = collect_levels(p.get_by_name("sink"))
        feed(src, self.samples, rate, chunk=1000, gap=gap)
        src.emit("end-of-stream")
        got = [(pos, voice) for pos, voice, _, _ in activity(run(p))]
        silenced = array.array("h", self.samples)
        silenced[gap.start:gap.stop] = array.array("h", bytes(2 * len(gap)))
        self.assertEqual(events(silenced, rate), got)
        self.assertNotEqual(events(self.samples, rate), got)
        self.assertEqual({127}, {level for level, _ in levels[gap.start // 1000:gap.stop // 1000]})

        # the same second as GAP events in place of the buffers
        p, src = appsrc_pipeline("okuvad ! fakesink", rate)

        def to_gap_event(pad, info):
            buf = info.get_buffer()
            if buf.get_flags() & Gst.BufferFlags.GAP:
                pad.push_event(Gst.Event.new_gap(buf.pts, buf.duration))
                return Gst.PadProbeReturn.DROP
            return Gst.PadProbeReturn.OK
        src.get_static_pad("src").add_probe(Gst.PadProbeType.BUFFER, to_gap_event)
        feed(src, self.samples, rate, chunk=1000, gap=gap)
        src.emit("end-of-stream")
        self.assertEqual(got, [(pos, voice) for pos, voice, _, _ in activity(run(p))])

    def test_new_rate_and_flush_start_new_runs(self):
        # 2 s at 16 kHz ending inside speech, then the bursts at 8 kHz
        first, second = signal(16000, [(1.0, 2.5)], 2.0), signal(8000, BURSTS, 6.0)
        p, src = appsrc_pipeline("okuvad ! fakesink", 16000)
        feed(src, first, 16000)
        src.set_property("caps", caps(8000))
        feed(src, second, 8000, start=2 * Gst.SECOND)
        src.emit("end-of-stream")
        got = activity(run(p))
        expected = events(first, 16000) + events(second, 8000)
        self.assertEqual([(13760, True), (32000, False)], events(first, 16000))
        self.assertEqual(expected, [(pos, voice) for pos, voice, _, _ in got])
        self.assertEqual([ns(pos, 16000) for pos, _ in events(first, 16000)] +
                         [2 * Gst.SECOND + ns(pos, 8000) for pos, _ in events(second, 8000)],
                         [t for _, _, t, _ in got])

        # a flushing seek to 3 s: the analyzer starts afresh on the audio from there
        path = os.path.join(self.dir, "bursts.wav")
        write_wav(path, 16000, self.samples)
        p = make("filesrc location=%s ! wavparse ! okuvad ! fakesink" % path)
        p.set_state(Gst.State.PAUSED)
        p.get_state(Gst.CLOCK_TIME_NONE)
        self.assertTrue(p.seek_simple(Gst.Format.TIME, Gst.SeekFlags.FLUSH | Gst.SeekFlags.ACCURATE,
                                      3 * Gst.SECOND))
        p.get_state(Gst.CLOCK_TIME_NONE)
        got = activity(run(p))
        rest = self.samples[3 * 16000:]
        self.assertEqual(events(rest, 16000), [(pos, voice) for pos, voice, _, _ in got])
        self.assertEqual([3 * Gst.SECOND + ns(pos, 16000) for pos, _ in events(rest, 16000)],
                         [t for _, _, t, _ in got])
        # running time restarts at the seek
        self.assertEqual([ns(pos, 16000) for pos, _ in events(rest, 16000)], [t for _, _, _, t in got])

    def test_typed_settings_override_params(self):
        p, src = appsrc_pipeline("okuvad name=vad params=EOSTimeoutMs=200;SpeechWindowSizeMs=300 "
                                 "eos-timeout-ms=1000 ! fakesink", 16000)
        vad = p.get_by_name("vad")
        self.assertEqual(1000, vad.get_property("eos-timeout-ms"))
        self.assertEqual(300, vad.get_property("speech-window-size-ms"))  # from params
        feed(src, self.samples, 16000)
        src.emit("end-of-stream")
        got = [(pos, voice) for pos, voice, _, _ in activity(run(p))]
        self.assertEqual(events(self.samples, 16000, "EOSTimeoutMs=1000;SpeechWindowSizeMs=300"), got)
        self.assertNotEqual(events(self.samples, 16000, "EOSTimeoutMs=200;SpeechWindowSizeMs=300"), got)

    def test_bad_settings_stop_the_pipeline_with_the_reason(self):
        for element, setting, reason in (
                ("okuvad", "params=EOSTimeoutMs=soon", "EOSTimeoutMs"),
                ("okuvad", "params=garbage", "Invalid format"),
                ("okuvad", "histogram-window-size-ms=0", "HistogramWindowSizeMs"),
                ("okuagc", "least-gain=0", "LeastGain"),
                ("okuagc", "params=MinUpdateIntervalMs=10", "MinUpdateIntervalMs")):
            p, src = appsrc_pipeline("%s %s ! fakesink" % (element, setting), 16000)
            feed(src, self.samples[:16000], 16000)
            src.emit("end-of-stream")
            with self.assertRaises(PipelineError) as e:
                run(p)
            self.assertIn(reason, str(e.exception))


class Agc(unittest.TestCase):
    """okuagc as the host of the gain control for a volume element."""

    def run_agc(self, pipeline, samples, rate=16000, person=None):
        p, src = appsrc_pipeline(pipeline, rate)
        if person:  # (sample index, element name, volume): a person turns a knob
            at, name, volume = person
            seen = [0]

            def probe(_pad, info):
                if seen[0] <= at < seen[0] + info.get_buffer().get_size() // 2:
                    p.get_by_name(name).set_property("volume", volume)
                seen[0] += info.get_buffer().get_size() // 2
                return Gst.PadProbeReturn.OK
            src.get_static_pad("src").add_probe(Gst.PadProbeType.BUFFER, probe)
        feed(src, samples, rate, chunk=320)
        src.emit("end-of-stream")
        messages = named(run(p), "oku-agc")
        return p, messages

    def check_decisions(self, messages, first_before):
        self.assertTrue(messages)
        self.assertAlmostEqual(first_before, messages[0]["volume-before"], places=6)
        for s in messages:
            self.assertIn(s["control"], CONTROLS)
            if s["volume-after"] > s["volume-before"]:
                self.assertIn(s["control"], RAISES | {"operating_limit"})
            if s["volume-after"] < s["volume-before"]:
                self.assertIn(s["control"], {"speech_too_high", "operating_limit"})
        return [(s["volume-before"], s["volume-after"]) for s in messages]

    def test_raises_a_quiet_volume_and_respects_a_person(self):
        samples = signal(16000, BURSTS * 1, 6.0)
        p, messages = self.run_agc("volume name=v volume=0.02 ! okuagc ! fakesink", samples)
        steps = self.check_decisions(messages, 0.02)
        # each decision starts from the volume the last one set: the element's volume is read back
        for (_, after), (before, _) in zip(steps, steps[1:]):
            self.assertAlmostEqual(after, before, places=6)
        self.assertGreater(steps[-1][1], 0.04)
        self.assertAlmostEqual(steps[-1][1], p.get_by_name("v").get_property("volume"), places=6)
        # a person sets 0.5 at 3 s: the next decision starts from it
        _, messages = self.run_agc("volume name=v volume=0.02 ! okuagc ! fakesink", samples,
                                   person=(3 * 16000, "v", 0.5))
        later = [s for s in messages if s["stream-time"] > 3 * Gst.SECOND + 20 * Gst.MSECOND]
        self.assertAlmostEqual(0.5, later[0]["volume-before"], places=6)

    def test_lowers_a_loud_volume(self):
        samples = signal(16000, BURSTS, 6.0, tone=30000)
        p, messages = self.run_agc("volume name=v volume=1.0 ! okuagc ! fakesink", samples)
        steps = self.check_decisions(messages, 1.0)
        self.assertIn("speech_too_high", [s["control"] for s in messages])
        self.assertLess(p.get_by_name("v").get_property("volume"), 1.0)
        self.assertAlmostEqual(steps[-1][1], p.get_by_name("v").get_property("volume"), places=6)

    def test_gap_buffers_leave_the_volume_alone(self):
        # 6 s of digital silence reads as a microphone turned far down: as audio it
        # makes the gain control raise the volume; marked GAP it must not move it
        silence = array.array("h", bytes(2 * 6 * 16000))
        p, messages = self.run_agc("volume name=v volume=0.5 ! okuagc ! fakesink", silence)
        self.assertGreater(p.get_by_name("v").get_property("volume"), 0.5)
        p, src = appsrc_pipeline("volume name=v volume=0.5 ! okuagc ! fakesink", 16000)
        feed(src, silence, 16000, chunk=320, gap=range(len(silence)))
        src.emit("end-of-stream")
        self.assertEqual([], named(run(p), "oku-agc"))
        self.assertEqual(0.5, p.get_by_name("v").get_property("volume"))

    def test_which_volume_it_drives(self):
        samples = signal(16000, BURSTS, 4.0)
        # the nearest upstream volume, inside a bin, through its ghost pads
        p, src = appsrc_pipeline("identity name=id ! okuagc ! fakesink", 16000)
        bin_ = Gst.parse_bin_from_description("volume name=inner volume=0.02", True)
        identity = p.get_by_name("id")
        src.unlink(identity)
        p.add(bin_)
        src.link(bin_)
        bin_.link(identity)
        feed(src, samples, 16000, chunk=320)
        src.emit("end-of-stream")
        messages = named(run(p), "oku-agc")
        self.check_decisions(messages, 0.02)
        self.assertGreater(bin_.get_by_name("inner").get_property("volume"), 0.02)
        # the element named by volume-element, not the nearest one
        p, messages = self.run_agc(
            "volume name=far volume=0.02 ! volume name=near volume=1.0 ! okuagc volume-element=far ! fakesink",
            samples)
        self.check_decisions(messages, 0.02)
        self.assertGreater(p.get_by_name("far").get_property("volume"), 0.02)
        self.assertEqual(1.0, p.get_by_name("near").get_property("volume"))
        # none: the proposals are taken as applied, from max-volume on
        _, messages = self.run_agc("okuagc max-volume=2.0 ! fakesink", signal(16000, BURSTS, 4.0, tone=30000))
        steps = self.check_decisions(messages, 2.0)
        for (_, after), (before, _) in zip(steps, steps[1:]):
            self.assertEqual(after, before)
        self.assertLess(steps[-1][1], 2.0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
