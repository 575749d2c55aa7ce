"""The gain control's closed loop through a real sound server.

The test starts a PulseAudio server of its own (a private runtime folder, a
native-protocol socket there, a pipe source), feeds the pipe in real time with
a recording whose speech is far too quiet, and runs

    pulsesrc ! audioconvert ! audioresample ! okuagc max-volume=10 ! okuvad ! fakesink

against it. The recording at volume 1.0 puts speech about 10 dB under the
gain control's band, so okuagc must raise the stream volume of pulsesrc; the
server applies that volume to what it captures, which the test checks on the
samples themselves: at the end, with the volume settled, the tone's peak is
its amplitude in the recording times the volume, and its level lies in the
band. It says "skipped" with the reason when no server can start.
"""
import array
import ctypes
import os
import shutil
import signal as signals
import subprocess
import sys
import tempfile
import threading
import time

from gsttest import SKIP, Gst, fields, level_db, settings
from testaudio import signal

RATE = 16000
TONE = 300                                          # peak of the bursts in the recording
NOISE = 4                                           # peak of the noise under them
BURSTS = [(0.5 + 2.0 * k, 2.0 + 2.0 * k) for k in range(12)]
SECONDS = 25.0
MAX_VOLUME = 10.0
START_TIMEOUT = 60                                  # seconds for the server to come up (a loaded machine)


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def die_with_parent():
    """The server ends when the test does, however the test ends (Linux's PR_SET_PDEATHSIG)."""
    try:
        ctypes.CDLL(None).prctl(1, signals.SIGTERM)
    except (OSError, AttributeError):
        pass


def start_server(folder):
    """A PulseAudio server in folder; returns (process, socket, fifo) or exits with SKIP."""
    if not shutil.which("pulseaudio"):
        print("skipped: no pulseaudio program (Debian: pulseaudio)")
        sys.exit(SKIP)
    socket, fifo = os.path.join(folder, "native"), os.path.join(folder, "mic.fifo")
    # (a sanitizer runtime preloaded into the test is not for the server)
    env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS")}
    env.update(XDG_RUNTIME_DIR=folder, PULSE_RUNTIME_PATH=folder, HOME=folder, PULSE_STATE_PATH=folder)
    # -n: none of the system's configuration; as root the server only warns.
    server = subprocess.Popen(
        ["pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit", "--use-pid-file=no",
         "--system=false", "--disable-shm=true", "--log-target=stderr",
         "--load=module-native-protocol-unix socket=%s auth-anonymous=1" % socket,
         "--load=module-pipe-source source_name=mic file=%s format=s16le rate=%d channels=1" % (fifo, RATE)],
        env=env, preexec_fn=die_with_parent, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=open(os.path.join(folder, "log"), "wb"))
    deadline = time.monotonic() + START_TIMEOUT
    while not (os.path.exists(socket) and os.path.exists(fifo)):
        if server.poll() is not None or time.monotonic() > deadline:
            stop_server(server)
            with open(os.path.join(folder, "log"), errors="replace") as f:
                tail = f.read()[-800:]
            print("skipped: no PulseAudio server could start here:\n" + tail)
            sys.exit(SKIP)
        time.sleep(0.1)
    return server, socket, fifo


def stop_server(server):
    if server.poll() is None:
        server.send_signal(signals.SIGTERM)
        try:
            server.wait(timeout=20)
        except subprocess.TimeoutExpired:
            server.kill()
            server.wait()


def feed(fifo, samples, fed, stop):
    """Writes the recording into the pipe at its own pace, 20 ms at a time, then
    silence until stopped (pulsesrc only sees an EOS while audio flows)."""
    fd = os.open(fifo, os.O_WRONLY)
    try:
        data, step = samples.tobytes(), 2 * RATE // 50
        t0 = time.monotonic()
        k = 0
        while not stop.is_set():
            i = k * step
            if i >= len(data):
                fed.set()
            os.write(fd, data[i:i + step] if i < len(data) else bytes(step))
            k += 1
            wait = t0 + k * 0.02 - time.monotonic()
            if wait > 0:
                time.sleep(wait)
    finally:
        os.close(fd)


def main():
    band = {s.key.decode(): s.default_value for s in settings(1)}
    lower, upper = band["LowerBound"], band["UpperBound"]
    samples = signal(RATE, BURSTS, SECONDS, noise=NOISE, tone=TONE)
    folder = tempfile.mkdtemp(prefix="oku-pulse-")
    server = writer = None
    stop = threading.Event()
    try:
        server, socket, fifo = start_server(folder)
        p = Gst.parse_launch(
            "pulsesrc name=mic server=unix:%s device=mic volume=1.0 ! audioconvert ! audioresample ! "
            "audio/x-raw,rate=%d,channels=1 ! okuagc name=agc max-volume=%g ! okuvad name=vad ! fakesink"
            % (socket, RATE, MAX_VOLUME))
        captured = []  # (running time, samples) as okuvad gets them

        def probe(pad, info):
            buf = info.get_buffer()
            segment = pad.get_sticky_event(Gst.EventType.SEGMENT, 0).parse_segment()
            rt = segment.to_running_time(Gst.Format.TIME, buf.pts)
            a = array.array("h")
            a.frombytes(buf.extract_dup(0, buf.get_size()))
            captured.append((rt, a))
            return Gst.PadProbeReturn.OK
        p.get_by_name("vad").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, probe)

        bus = p.get_bus()
        p.set_state(Gst.State.PLAYING)
        fed = threading.Event()
        writer = threading.Thread(target=feed, args=(fifo, samples, fed, stop))
        writer.start()
        messages, eos_sent = [], False
        deadline = time.monotonic() + 300
        while True:
            if fed.is_set() and not eos_sent:
                p.send_event(Gst.Event.new_eos())
                eos_sent = True
            m = bus.timed_pop_filtered(Gst.SECOND // 5, Gst.MessageType.EOS | Gst.MessageType.ERROR |
                                       Gst.MessageType.ELEMENT)
            if m is not None and m.type == Gst.MessageType.ERROR:
                err, debug = m.parse_error()
                fail("%s: %s (%s)" % (m.src.get_name(), err.message, debug))
            if m is not None and m.type == Gst.MessageType.EOS:
                break
            if m is not None:
                messages.append(fields(m.get_structure()))
            if time.monotonic() > deadline:
                fail("the pipeline did not finish")
        final = p.get_by_name("mic").get_property("volume")
        p.set_state(Gst.State.NULL)
    finally:
        stop.set()
        if writer:
            writer.join()
        if server:
            stop_server(server)
        shutil.rmtree(folder, ignore_errors=True)

    decisions = [m for m in messages if m["name"] == "oku-agc"]
    changes = [m for m in decisions if m["volume-after"] != m["volume-before"]]
    starts = [m for m in messages if m["name"] == "voice-activity" and m["stream-has-voice"]]
    for m in changes:
        print("%.3f s %s: volume %.3f -> %.3f (speech %.2f dB, pause %.2f dB)" % (
            m["running-time"] / 1e9, m["control"], m["volume-before"], m["volume-after"], m["speech-db"], m["pause-db"]))
    print("%d decisions, %d changes, final volume %.3f, %d speech starts, %d buffers" %
          (len(decisions), len(changes), final, len(starts), len(captured)))
    if not starts:
        fail("no speech detected")
    if not changes or final <= 1.0:
        fail("okuagc did not raise the volume of pulsesrc (final %.3f)" % final)
    if abs(changes[-1]["volume-after"] - final) > 0.01 * final:
        fail("pulsesrc's volume %.4f is not the one okuagc set last (%.4f)" % (final, changes[-1]["volume-after"]))
    # The audio after the last change settles (the server's buffer and ours hold a little at the old volume).
    settled = changes[-1]["running-time"] + Gst.SECOND
    tail = array.array("h")
    for rt, a in captured:
        if rt >= settled:
            tail.extend(a)
    if len(tail) < 2 * RATE:
        fail("the volume did not settle 2 s before the end (last change at %.1f s)" % (changes[-1]["running-time"] / 1e9))
    peak = max(abs(x) for x in tail)
    # the tone's peak in the recording times the volume, plus the noise under it
    if not (TONE * final * 0.97 <= peak <= (TONE + NOISE) * final * 1.03):
        fail("captured peak %d does not match %d x volume %.3f" % (peak, TONE, final))
    frame = RATE // 50
    loud = [level_db(tail[i:i + frame]) for i in range(0, len(tail) - frame + 1, frame)]
    loud = [db for db in loud if db > 40]
    speech = sorted(loud)[len(loud) // 2] if loud else 0
    print("speech level %.1f dB of frame power (band %g to %g), peak %d" % (speech, lower, upper, peak))
    if not lower <= speech <= upper:
        fail("speech at %.1f dB is outside the band %g to %g" % (speech, lower, upper))
    print("ok")


if __name__ == "__main__":
    main()
