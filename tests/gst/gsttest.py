"""What the GStreamer tests share: GStreamer through Python's GObject
introspection (or a skip with the reason), pipelines run to their end with
their messages collected, audio fed through appsrc, and the library's handle
API run directly over the same samples for the expected results.

Environment (set by CTest): GST_PLUGIN_PATH (the folder of libgstoku.so),
OKU_LIBRARY (libOKUVAD, for the handle API), OKU_BUILD_DIR (for the installed
copy).
"""
import array
import ctypes
import os
import sys
import time

SKIP = 77  # CTest's SKIP_RETURN_CODE for these tests

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))                  # testaudio
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))  # the oku package

try:
    import gi
    gi.require_version("Gst", "1.0")
    gi.require_version("GstAudio", "1.0")
    gi.require_version("GstRtp", "1.0")
    from gi.repository import Gst, GstAudio, GstRtp  # noqa: F401  (GstAudio and GstRtp for the tests)
except (ImportError, ValueError) as e:
    print("skipped: GStreamer is not reachable from Python here (python3-gi, gir1.2-gstreamer-1.0 and gir1.2-gst-plugins-base-1.0): %s" % e)
    sys.exit(SKIP)

Gst.init(None)
if Gst.ElementFactory.find("okuvad") is None:
    print("skipped: the oku plugin does not load here (GST_PLUGIN_PATH=%s); an instrumented build cannot be "
          "loaded into a plain interpreter" % os.environ.get("GST_PLUGIN_PATH"))
    sys.exit(SKIP)

import oku  # noqa: E402  (the handle API, for expected results)

TIMEOUT = 300  # seconds: only a guard against a hung pipeline, never a measure


class PipelineError(AssertionError):
    pass


def make(description):
    return Gst.parse_launch(description)


def run(pipeline, timeout=TIMEOUT):
    """Plays the pipeline to EOS; returns its element messages (structures with the element's name),
    warnings among them as {"name": "warning", "message": ..., "debug": ...}."""
    bus = pipeline.get_bus()
    messages = []
    pipeline.set_state(Gst.State.PLAYING)
    deadline = time.monotonic() + timeout
    try:
        while True:
            m = bus.timed_pop_filtered(
                Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR | Gst.MessageType.ELEMENT |
                Gst.MessageType.WARNING)
            if m is None:
                if time.monotonic() > deadline:
                    raise PipelineError("no EOS after %d s" % timeout)
                continue
            if m.type == Gst.MessageType.ERROR:
                err, debug = m.parse_error()
                raise PipelineError("%s: %s (%s)" % (m.src.get_name(), err.message, debug))
            if m.type == Gst.MessageType.EOS:
                return messages
            if m.type == Gst.MessageType.WARNING:
                err, debug = m.parse_warning()
                messages.append((m.src.get_name(), {"name": "warning", "message": err.message, "debug": debug}))
                continue
            messages.append((m.src.get_name(), fields(m.get_structure())))
    finally:
        pipeline.set_state(Gst.State.NULL)


def fields(structure):
    """A message's structure as a dict, its name under "name"."""
    d = {structure.nth_field_name(i): structure.get_value(structure.nth_field_name(i))
         for i in range(structure.n_fields())}
    d["name"] = structure.get_name()
    return d


def named(messages, name):
    return [s for _, s in messages if s["name"] == name]


def caps(rate, channels=1):
    return Gst.Caps.from_string("audio/x-raw,format=S16LE,layout=interleaved,rate=%d,channels=%d" % (rate, channels))


def feed(appsrc, samples, rate, chunk=1000, start=0, jumps=None, channels=1, timestamps=True, gap=None):
    """Queues the samples on appsrc in chunks of `chunk` frames, timestamped from `start`
    (ns); jumps maps a sample index (a chunk boundary) to extra ns added from there on,
    the first buffer after it marked DISCONT; the chunks that start within gap (a range
    of sample indices) are marked GAP, their samples left as they are."""
    data = samples.tobytes()
    frame_bytes = 2 * channels
    n = len(data) // frame_bytes
    shift = 0
    for i in range(0, n, chunk):
        buf = Gst.Buffer.new_wrapped(data[i * frame_bytes:min(n, i + chunk) * frame_bytes])
        if jumps and i in jumps:
            shift += jumps[i]
            buf.set_flags(Gst.BufferFlags.DISCONT)
        if gap and i in gap:
            buf.set_flags(buf.get_flags() | Gst.BufferFlags.GAP)
        if timestamps:
            buf.pts = start + shift + Gst.util_uint64_scale_int(i, Gst.SECOND, rate)
            buf.duration = Gst.util_uint64_scale_int(min(n, i + chunk) - i, Gst.SECOND, rate)
        appsrc.emit("push-buffer", buf)


def ns(position, rate):
    return Gst.util_uint64_scale_int(position, Gst.SECOND, rate)


def events(samples, rate, params="", chunk=1000):
    """Speech starts and ends of the handle API over the samples, fed in chunks and flushed:
    [(position, is_start)]."""
    vad = oku.Vad(rate, params)
    out = []
    for i in range(0, len(samples), chunk):
        out += vad.process(samples[i:i + chunk])
    out += vad.flush()
    return [(r.position, isinstance(r, oku.SpeechStart)) for r in out
            if isinstance(r, (oku.SpeechStart, oku.SpeechEnd))]


def activity(messages):
    """The voice-activity messages as [(position, has_voice, stream_time, running_time)]."""
    return [(s["position"], s["stream-has-voice"], s["stream-time"], s["running-time"])
            for s in named(messages, "voice-activity")]


class Setting(ctypes.Structure):
    _fields_ = [("key", ctypes.c_char_p), ("name", ctypes.c_char_p), ("unit", ctypes.c_char_p),
                ("meaning", ctypes.c_char_p), ("type", ctypes.c_int32), ("reserved", ctypes.c_int32),
                ("default_value", ctypes.c_double)]


def settings(service):
    """The library's settings table of a service (0 analyzer, 1 gain control)."""
    lib = oku._lib.lib
    lib.oku_settings.restype = ctypes.POINTER(Setting)
    lib.oku_settings.argtypes = [ctypes.c_int, ctypes.POINTER(ctypes.c_size_t)]
    count = ctypes.c_size_t()
    table = lib.oku_settings(service, ctypes.byref(count))
    return [table[i] for i in range(count.value)]


def rates():
    lib = oku._lib.lib
    lib.oku_rates.restype = ctypes.POINTER(ctypes.c_int)
    lib.oku_rates.argtypes = [ctypes.POINTER(ctypes.c_size_t)]
    count = ctypes.c_size_t()
    r = lib.oku_rates(ctypes.byref(count))
    return [r[i] for i in range(count.value)]


def level_db(samples):
    """Frame power in dB, as the gain control measures its levels: 10 log10 of the mean square."""
    import math
    ms = sum(x * x for x in samples) / max(1, len(samples))
    return 10 * math.log10(ms) if ms > 0 else 0.0


def as_array(data):
    a = array.array("h")
    a.frombytes(data)
    return a
