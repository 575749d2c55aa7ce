"""The gain control's closed loop through a real sound server (ctest label `live`: real time, PulseAudio).

A PulseAudio server of the test's own (a private folder, a socket there, a pipe source) is fed in real time
with a recording whose speech lies about 10 dB under the gain control's band; `pulsesrc ! okuagc
max-volume=10 ! okuvad ! fakesink` must raise pulsesrc's stream volume, which the server applies to what it
captures, until the speech lies in the band. Says "skipped" with the reason when no server can start."""
import array
import ctypes
import itertools
import math
import os
import shutil
import signal as signals
import subprocess
import sys
import tempfile
import threading
import time

from gsttest import SKIP, Gst, named, run
from testaudio import signal

RATE, TONE, NOISE = 16000, 300, 4  # the bursts' and the noise's peaks in the recording


def feed(fifo, data, stop, done):
    """Writes the recording into the pipe at its own pace, 20 ms at a time, calls done() after it, and
    writes silence until stopped (pulsesrc only sees an EOS while audio flows)."""
    fd, step, t0 = os.open(fifo, os.O_WRONLY), 2 * RATE // 50, time.monotonic()
    for k in itertools.takewhile(lambda _: not stop.is_set(), itertools.count()):
        if k * step == len(data):
            done()
        os.write(fd, data[k * step:(k + 1) * step] or bytes(step))
        time.sleep(max(0.0, t0 + (k + 1) * 0.02 - time.monotonic()))
    os.close(fd)


def main():
    if not shutil.which("pulseaudio"):
        print("skipped: no pulseaudio program (Debian: pulseaudio)")
        sys.exit(SKIP)
    folder, stop, writer = tempfile.mkdtemp(prefix="oku-pulse-"), threading.Event(), None
    socket, fifo, log = (os.path.join(folder, name) for name in ("native", "mic.fifo", "log"))
    env = dict((k, v) for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS"))  # not for it
    env.update(XDG_RUNTIME_DIR=folder, PULSE_RUNTIME_PATH=folder, HOME=folder, PULSE_STATE_PATH=folder)
    server = subprocess.Popen(  # -n: none of the system's configuration; ends with the test (PR_SET_PDEATHSIG)
        ["pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no", "--disable-shm=true",
         "--log-target=stderr", "--load=module-native-protocol-unix socket=%s auth-anonymous=1" % socket,
         "--load=module-pipe-source source_name=mic file=%s format=s16le rate=%d channels=1" % (fifo, RATE)],
        env=env, preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signals.SIGTERM), stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL, stderr=open(log, "wb"))
    try:
        deadline = time.monotonic() + 60  # a loaded machine
        while not (os.path.exists(socket) and os.path.exists(fifo)):
            if server.poll() is not None or time.monotonic() > deadline:
                print("skipped: no PulseAudio server could start here:\n" + open(log).read()[-800:])
                sys.exit(SKIP)
            time.sleep(0.1)
        p = Gst.parse_launch("pulsesrc name=mic server=unix:%s device=mic volume=1.0 ! audio/x-raw,format=S16LE,"
                             "rate=%d,channels=1 ! okuagc max-volume=10 ! okuvad name=vad ! fakesink" % (socket, RATE))
        captured = []

        def probe(pad, info):  # (running time, samples) as okuvad gets them
            buf, segment = info.get_buffer(), pad.get_sticky_event(Gst.EventType.SEGMENT, 0).parse_segment()
            captured.append((segment.to_running_time(Gst.Format.TIME, buf.pts), buf.extract_dup(0, buf.get_size())))
            return Gst.PadProbeReturn.OK
        p.get_by_name("vad").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, probe)
        # (EOS from a thread of its own: pulsesrc takes it only while the writer goes on)
        eos = threading.Thread(target=p.send_event, args=(Gst.Event.new_eos(),))
        samples = signal(RATE, [(0.5 + 2.0 * k, 2.0 + 2.0 * k) for k in range(12)], 25.0, noise=NOISE, tone=TONE)
        writer = threading.Thread(target=feed, args=(fifo, samples.tobytes(), stop, eos.start))
        writer.start()
        messages = run(p)
        final = p.get_by_name("mic").get_property("volume")
    finally:
        stop.set()
        if writer:
            writer.join()
        server.terminate()
        server.wait()
        shutil.rmtree(folder, ignore_errors=True)

    changes = [m for m in named(messages, "oku-agc") if m["volume-after"] != m["volume-before"]]
    print("%d changes, final volume %.3f" % (len(changes), final))
    assert named(messages, "voice-activity"), "no speech detected"
    assert changes and final > 1.0, "okuagc did not raise the volume of pulsesrc"
    assert abs(changes[-1]["volume-after"] - final) <= 0.01 * final, "pulsesrc's volume is not the one okuagc set"
    # a second after the last change (the server's buffer and ours hold a little at the old volume), the
    # speech level in dB of frame power, as the gain control measures it, lies in the gain control's band
    tail = array.array("h", b"".join(a for rt, a in captured if rt >= changes[-1]["running-time"] + Gst.SECOND))
    assert len(tail) >= 2 * RATE, "the volume did not settle 2 s before the end"
    frame, agc = RATE // 50, Gst.ElementFactory.make("okuagc")
    loud = sorted(db for db in (10 * math.log10(max(1e-9, sum(x * x for x in tail[i:i + frame]) / frame))
                                for i in range(0, len(tail) - frame + 1, frame)) if db > 40)
    band = agc.get_property("lower-bound"), loud[len(loud) // 2], agc.get_property("upper-bound")
    print("speech level %.1f dB (band %g to %g)" % (band[1], band[0], band[2]))
    assert band[0] <= band[1] <= band[2], "the speech lies outside the band"
    print("ok")


if __name__ == "__main__":
    main()
