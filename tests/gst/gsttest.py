"""What the GStreamer tests share: GStreamer through GObject introspection (or a skip with the reason),
pipelines played to EOS, audio fed through appsrc, and the Python package over the same samples for the
expected results (front ends agree bit for bit). CTest sets GST_PLUGIN_PATH, OKU_LIBRARY (the library the
package loads) and OKU_BUILD_DIR."""
import array
import os
import sys

SKIP = 77  # CTest's SKIP_RETURN_CODE for these tests
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "..", "..", "python")]  # testaudio, oku
import oku  # noqa: E402
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


def run(pipeline, timeout=300):
    """Plays the pipeline to EOS; returns its element messages and warnings as dicts (the structure's name,
    or "warning", under "name"). The timeout only guards against a hung pipeline."""
    bus, messages = pipeline.get_bus(), []
    pipeline.set_state(Gst.State.PLAYING)
    try:
        while True:
            m = bus.timed_pop_filtered(timeout * Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR |
                                       Gst.MessageType.ELEMENT | Gst.MessageType.WARNING)
            assert m, "no message for %d s" % timeout
            if m.type == Gst.MessageType.ERROR:  # (the GError second, for its domain and code)
                error, debug = m.parse_error()
                raise AssertionError("%s: %s (%s)" % (m.src.get_name(), error.message, debug), error)
            if m.type == Gst.MessageType.EOS:
                return messages
            s = m.get_structure() if m.type == Gst.MessageType.ELEMENT else None
            names = [s.nth_field_name(i) for i in range(s.n_fields())] if s else []
            messages.append(dict(((n, s.get_value(n)) for n in names), name=s.get_name()) if s else
                            {"name": "warning", "message": m.parse_warning()[0].message})
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
    # (more than two channels need a channel mask in GStreamer's raw audio; 0: no positions)
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


def feed(src, data, rate, width, chunk=1000, start=0, jumps=None, discont=True, gap=(), eos=True):
    """Pushes the bytes in buffers of `chunk` frames of `width` bytes, timestamped from `start` ns, then EOS.
    jumps maps a frame index (a buffer's first) to ns added from there on, that buffer marked DISCONT if discont;
    the buffers that start within gap (frame indices) are marked GAP, their bytes left as they are."""
    n, shift, jumps = len(data) // width, 0, jumps or {}
    for i in range(0, n, chunk):
        buf = Gst.Buffer.new_wrapped(data[i * width:min(n, i + chunk) * width])
        shift += jumps.get(i, 0)
        buf.set_flags(Gst.BufferFlags((Gst.BufferFlags.DISCONT if discont and i in jumps else 0) |
                                      (Gst.BufferFlags.GAP if i in gap else 0)))
        buf.pts, buf.duration = start + shift + ns(i, rate), ns(min(n, i + chunk), rate) - ns(i, rate)
        src.emit("push-buffer", buf)
    if eos:
        src.emit("end-of-stream")


def ns(frames, rate):
    return Gst.util_uint64_scale_int(frames, Gst.SECOND, rate)


def analyse(data, rate, channels=1, f32=False, chunk=1000, params=None, frames=False):
    """The package's analyzer over the bytes in chunks of `chunk` frames, flushed at the end: speech events
    as activity() gives them, (frames=True) the frames as [(position, speech)], and whether the analyzer is
    inside speech after each chunk."""
    vad, samples, step = oku.Vad(rate, params, frames, channels=channels), array.array("f" if f32 else "h", data), \
        chunk * channels
    events, decided, inside = [], [], []
    for i in range(0, len(samples) + step, step):
        for r in vad.process(samples[i:i + step]) if i < len(samples) else vad.flush():
            if isinstance(r, oku.SpeechStart):
                events.append((r.position, True, None))
            elif isinstance(r, oku.SpeechEnd):
                events.append((r.position, False, r.segment.start_sample))
            elif isinstance(r, oku.Frame):
                decided.append((r.position, r.speech))
        inside.append(bool(events) and events[-1][1])
    return events, decided, inside[:-1]
