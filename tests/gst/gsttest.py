"""What the GStreamer tests share: GStreamer through GObject introspection (or a skip with the reason),
pipelines played to EOS, audio fed through appsrc, and the library's handle API called directly over the
same samples for the expected results. CTest sets GST_PLUGIN_PATH, OKU_LIBRARY and OKU_BUILD_DIR."""
import array
import ctypes
import os
import sys
import time
from ctypes import POINTER, byref, c_char_p, c_double, c_float, c_int, c_int32, c_int64, c_size_t, c_void_p

SKIP = 77  # CTest's SKIP_RETURN_CODE for these tests
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))  # testaudio
try:
    import gi
    gi.require_version("Gst", "1.0")
    gi.require_version("GstAudio", "1.0")
    from gi.repository import Gst, GstAudio  # noqa: F401  (for the tests)
except (ImportError, ValueError) as e:
    print("skipped: no GStreamer for Python (python3-gi, gir1.2-gstreamer-1.0, gir1.2-gst-plugins-base-1.0): %s" % e)
    sys.exit(SKIP)
Gst.init(None)
if Gst.ElementFactory.find("okuvad") is None:
    print("skipped: the oku plugin does not load here (GST_PLUGIN_PATH=%s); an instrumented build cannot be "
          "loaded into a plain interpreter" % os.environ.get("GST_PLUGIN_PATH"))
    sys.exit(SKIP)


def struct(*fields):
    return type("Struct", (ctypes.Structure,), {"_fields_": list(fields)})


Result = struct(("type", c_int32), ("speech", c_int32), ("time_ms", c_double), ("position", c_int64),
                ("assessment", c_int32), ("reserved", c_int32), ("peak", c_double), ("level_dbfs", c_double),
                ("snr_pct", c_double), ("frame_index", c_int32), ("sample_count", c_int32), ("samples", c_void_p))
Segment = struct(("start", c_int64), ("end", c_int64), ("start_ms", c_double), ("end_ms", c_double))
Decision = struct(("control", c_int32), ("updated", c_int32), ("time_ms", c_double), ("pause_db", c_float),
                  ("speech_db", c_float), ("changed", c_int32), ("reserved", c_int32))
lib = ctypes.CDLL(os.environ["OKU_LIBRARY"])
lib.oku_struct_size.restype = c_size_t
assert [ctypes.sizeof(t) for t in (Result, Segment, Decision)] == [
    lib.oku_struct_size(name) for name in (b"oku_vad_result", b"oku_vad_segment", b"oku_agc_decision")]
lib.oku_input_rates.restype, lib.oku_agc_control_name.restype = POINTER(c_int), c_char_p
for fn in (lib.oku_vad_process, lib.oku_vad_process_f32):
    fn.argtypes = [c_void_p, c_char_p, c_size_t]
for fn in (lib.oku_agc_process, lib.oku_agc_process_f32):
    fn.argtypes = [c_void_p, c_char_p, c_size_t, c_double, POINTER(c_double)]


def table(fn, *args):
    count = c_size_t()
    items = fn(*args, byref(count))
    return [items[i] for i in range(count.value)]


class PipelineError(AssertionError):
    def __init__(self, element, error, debug):
        super().__init__("%s: %s (%s)" % (element, error.message, debug))
        self.error = error  # the GError, for its domain and code


def run(pipeline, timeout=300):
    """Plays the pipeline to EOS; returns its element messages and warnings as dicts (the structure's name,
    or "warning", under "name"). The timeout only guards against a hung pipeline."""
    bus, messages, deadline = pipeline.get_bus(), [], time.monotonic() + timeout
    pipeline.set_state(Gst.State.PLAYING)
    try:
        while True:
            m = bus.timed_pop_filtered(Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR |
                                       Gst.MessageType.ELEMENT | Gst.MessageType.WARNING)
            assert m or time.monotonic() < deadline, "no EOS after %d s" % timeout
            if m and m.type == Gst.MessageType.ERROR:
                raise PipelineError(m.src.get_name(), *m.parse_error())
            if m and m.type == Gst.MessageType.EOS:
                return messages
            if m and m.type == Gst.MessageType.WARNING:
                messages.append({"name": "warning", "message": m.parse_warning()[0].message})
            elif m:
                s = m.get_structure()
                names = [s.nth_field_name(i) for i in range(s.n_fields())]
                messages.append(dict(((n, s.get_value(n)) for n in names), name=s.get_name()))
    finally:
        pipeline.set_state(Gst.State.NULL)


def named(messages, name):
    return [m for m in messages if m["name"] == name]


def activity(messages):
    """voice-activity messages as [(position, has_voice, start position of an end)], and their stream
    times as [(stream-time, start-stream-time of an end)]."""
    va = named(messages, "voice-activity")
    return ([(m["position"], m["stream-has-voice"], m.get("start-position")) for m in va],
            [(m["stream-time"], m.get("start-stream-time")) for m in va])


def dated(events, time_of):
    """The stream times activity() should give for the events, time_of mapping a position to its time."""
    return [(time_of(pos), None if start is None else time_of(start)) for pos, _, start in events]


def caps(rate, channels=1, f32=False):
    """(More than two channels need a channel mask in GStreamer's raw audio; 0: no positions.)"""
    return "audio/x-raw,format=%s,layout=interleaved,rate=%d,channels=%d%s" % (
        "F32LE" if f32 else "S16LE", rate, channels, ",channel-mask=(bitmask)0" if channels > 2 else "")


def appsrc(tail, rate, channels=1, f32=False, live=False):
    p = Gst.parse_launch('appsrc name=src format=time max-bytes=0 is-live=%s caps="%s" ! %s'
                         % ("true" if live else "false", caps(rate, channels, f32), tail))
    return p, p.get_by_name("src")


def audio(samples, channels=1, f32=False):
    """16-bit mono samples as interleaved bytes (the machine's order), channel k at 1 / (k + 1) of the level."""
    out = array.array("f" if f32 else "h", bytes((4 if f32 else 2) * channels * len(samples)))
    for k in range(channels):
        out[k::channels] = array.array(out.typecode, (x / (k + 1) / 32768 if f32 else int(x / (k + 1))
                                                      for x in samples))
    return out.tobytes()


def feed(src, data, rate, width, chunk=1000, start=0, jumps=None, gap=(), eos=True):
    """Pushes the bytes in buffers of `chunk` frames of `width` bytes, timestamped from `start` ns, then EOS.
    jumps maps a frame index (a buffer's first) to ns added from there on, that buffer marked DISCONT;
    the buffers that start within gap (frame indices) are marked GAP, their bytes left as they are."""
    n, shift, jumps = len(data) // width, 0, jumps or {}
    for i in range(0, n, chunk):
        buf = Gst.Buffer.new_wrapped(data[i * width:min(n, i + chunk) * width])
        shift += jumps.get(i, 0)
        buf.set_flags(Gst.BufferFlags((Gst.BufferFlags.DISCONT if i in jumps else 0) |
                                      (Gst.BufferFlags.GAP if i in gap else 0)))
        buf.pts, buf.duration = start + shift + ns(i, rate), ns(min(n, i + chunk), rate) - ns(i, rate)
        src.emit("push-buffer", buf)
    if eos:
        src.emit("end-of-stream")


def ns(frames, rate):
    return Gst.util_uint64_scale_int(frames, Gst.SECOND, rate)


def analyse(data, rate, channels=1, f32=False, chunk=1000, params=None, frames=False):
    """The handle API over the bytes in chunks of `chunk` frames, flushed at the end: speech events as
    activity() gives them, (frames=True) the frames as [(position, speech)], and whether the analyzer is
    inside speech after each chunk."""
    vad, r, s, events, decided, inside = c_void_p(), Result(), Segment(), [], [], []
    assert lib.oku_vad_open(rate, channels, params, 1 if frames else 0, byref(vad)) == 0
    process, width = (lib.oku_vad_process_f32, 4 * channels) if f32 else (lib.oku_vad_process, 2 * channels)
    for i in range(0, len(data) + chunk * width, chunk * width):
        if i < len(data):
            assert process(vad, data[i:i + chunk * width], len(data[i:i + chunk * width]) // width * channels) == 0
        else:
            lib.oku_vad_flush(vad)
        while lib.oku_vad_take(vad, byref(r), byref(s)) == 0 and r.type:
            if r.type in (1, 2):
                events.append((r.position, r.type == 1, None if r.type == 1 else s.start))
            elif r.type == 4:
                decided.append((r.position, bool(r.speech)))
        inside.append(bool(events) and events[-1][1])
    lib.oku_vad_destroy(vad)
    return events, decided, inside[:-1]
