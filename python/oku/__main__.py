"""python3 -m oku vad|agc [options] FILE.wav...: what the oku command prints.

Reads 16-bit WAV files with the standard wave module (mono at 8000, 11025,
16000 or 22050 Hz; the oku command also mixes down and resamples) and prints
the same records in the same formats: speech segments and a summary (vad), or
the gain decisions of a closed loop against a simulated microphone (agc).
"""
import argparse
import array
import ctypes
import json
import math
import sys
import wave

from . import ASSESSMENTS, CONTROLS, RATES, Agc, SpeechEnd, SpeechStart, Vad, Volume

VAD_CSV = ["file", "type", "index", "start_s", "end_s", "duration_s", "start_sample", "end_sample", "time_s", "peak",
           "dbfs", "snr_pct", "assessment", "speech", "rate", "original_rate", "segments", "speech_s", "readings",
           "ok", "too_noisy", "too_soft", "too_loud", "peak_dbfs"]
AGC_CSV = ["file", "type", "time_s", "volume_before", "volume_after", "control", "pause_db", "speech_db", "rate",
           "original_rate", "duration_s", "decisions", "changes", "final_volume", "unchanged", "pause_too_low",
           "speech_too_low", "speech_too_high", "operating_limit", "gain_estimate"]


class Writer:
    """Records as the oku command writes them: fields are (name, text, is_string)."""

    def __init__(self, fmt, command, name, out):
        self.fmt, self.command, self.name, self.out = fmt, command, name, out
        self.headed = set()

    def write(self, kind, fields):
        if self.fmt == "json":
            parts = ['"file":' + json.dumps(self.name), '"type":' + json.dumps(kind)]
            parts += [json.dumps(n) + ":" + (json.dumps(t) if q else t) for n, t, q in fields]
            self.out.write("{" + ",".join(parts) + "}\n")
        elif self.fmt == "csv":
            values = {n: t for n, t, _ in fields}
            values.update(file=self.name, type=kind)
            self.out.write(",".join(_csv(values.get(c, "")) for c in (VAD_CSV if self.command == "vad" else AGC_CSV))
                           + "\n")
        else:
            if kind != "summary" and kind not in self.headed:
                self.headed.add(kind)
                self.out.write("#".ljust(9) + "".join(" " + n.rjust(_width(n, q)) for n, _, q in fields) + "\n")
            if kind == "summary":
                self.out.write(kind.ljust(9) + "".join(" %s=%s" % (n, t) for n, t, _ in fields) + "\n")
            else:
                self.out.write(kind.ljust(9) + "".join(" " + t.rjust(_width(n, q)) for n, t, q in fields) + "\n")
        self.out.flush()

    def text(self, line):
        if self.fmt == "text":
            self.out.write(line + "\n")


def _width(name, quoted):
    return max(len(name), 15 if quoted else 8)


def _csv(s):
    return '"' + s.replace('"', '""') + '"' if any(c in s for c in ',"\n\r') else s


def f(name, value, decimals):
    return (name, "%.*f" % (decimals, value), False)


def i(name, value):
    return (name, str(int(value)), False)


def s(name, value):
    return (name, value, True)


def b(name, value):
    return (name, "true" if value else "false", False)


def read_wav(path):
    with wave.open(path, "rb") as w:
        if w.getsampwidth() != 2 or w.getnchannels() != 1:
            raise ValueError("only mono 16-bit WAV here (the oku command reads any format)")
        if w.getframerate() not in RATES:
            raise ValueError("sampling rate %d Hz is not supported here (the oku command resamples)"
                             % w.getframerate())
        samples = array.array("h")
        samples.frombytes(w.readframes(w.getnframes()))
        if sys.byteorder != "little":
            samples.byteswap()
        if not samples:
            raise ValueError("no audio in it (empty)")
        return w.getframerate(), samples


def run_vad(path, args, w):
    rate, samples = read_wav(path)
    vad = Vad(rate, args.params)
    step = max(1, int(round(args.chunk_ms * rate / 1000.0)))
    segments, start, speech_s, readings, peak = 0, None, 0.0, [0, 0, 0, 0], 0

    def handle(results):
        nonlocal segments, start, speech_s, peak
        for r in results:
            if isinstance(r, SpeechStart):
                start = r.time_ms / 1000.0
            elif isinstance(r, SpeechEnd):
                segments += 1
                t = r.time_ms / 1000.0
                speech_s += t - start
                w.write("segment", [i("index", segments), f("start_s", start, 3), f("end_s", t, 3),
                                    f("duration_s", t - start, 3), i("start_sample", round(start * rate)),
                                    i("end_sample", round(t * rate))])
            elif isinstance(r, Volume):
                readings[ASSESSMENTS.index(r.assessment)] += 1
                peak = max(peak, r.peak)
                if args.meter:
                    w.write("meter", [f("time_s", r.time_ms / 1000.0, 3), i("peak", r.peak), f("dbfs", r.level_dbfs, 1),
                                      f("snr_pct", r.snr_pct, 1), s("assessment", r.assessment),
                                      b("speech", r.speech)])

    for k in range(0, len(samples), step):
        handle(vad.process(samples[k:k + step]))
    handle(vad.flush())
    w.write("summary", [i("rate", rate), i("original_rate", rate), f("duration_s", len(samples) / rate, 3),
                        i("segments", segments), f("speech_s", speech_s, 3), i("readings", sum(readings)),
                        i("ok", readings[0]), i("too_noisy", readings[1]), i("too_soft", readings[2]),
                        i("too_loud", readings[3]), i("peak", peak),
                        f("peak_dbfs", 20.0 * math.log10(max(peak, 1.0) / 32768.0), 1)])


def _float32(x):
    return ctypes.c_float(x).value


def run_agc(path, args, w):
    rate, samples = read_wav(path)
    agc = Agc(rate, args.params)
    step = max(1, int(round(args.chunk_ms * rate / 1000.0)))
    bound, volume = args.bound, args.volume
    counts, changes = [0] * 6, 0
    for k in range(0, len(samples), step):
        chunk = samples[k:k + step]
        factor = args.mic_gain * volume / bound
        captured = array.array("h", (max(-32768, min(32767, round(x * factor))) for x in chunk))
        gain = _float32(volume / bound)
        new_gain, d = agc.process(captured, gain)
        before = volume
        if new_gain != gain:  # a careful host leaves the volume alone otherwise
            product = new_gain * _float32(bound)
            volume = bound if product >= _float32(bound) else int(product)
        if d.updated:
            counts[CONTROLS.index(d.control)] += 1
            changes += volume != before
            w.write("decision", [f("time_s", d.time_ms / 1000.0, 3), i("volume_before", before),
                                 i("volume_after", volume), s("control", d.control), f("pause_db", d.pause_db, 2),
                                 f("speech_db", d.speech_db, 2)])
    w.write("summary", [i("rate", rate), i("original_rate", rate), f("duration_s", len(samples) / rate, 3),
                        i("decisions", sum(counts)), i("changes", changes), i("final_volume", volume)]
            + [i(c, n) for c, n in zip(CONTROLS, counts)])


def main(argv=None):
    p = argparse.ArgumentParser(prog="python3 -m oku", description=__doc__.split("\n\n")[1])
    p.add_argument("command", choices=["vad", "agc"])
    p.add_argument("files", nargs="+", metavar="FILE.wav")
    p.add_argument("--format", choices=["text", "json", "csv"], default="text")
    p.add_argument("--params", default="")
    p.add_argument("--chunk-ms", type=float, default=20.0)
    p.add_argument("--meter", action="store_true", help="vad: also print every volume reading")
    p.add_argument("--bound", type=int, default=65535, help="agc: largest volume (default 65535)")
    p.add_argument("--volume", type=int, default=None, help="agc: starting volume (default half the bound)")
    p.add_argument("--mic-gain", type=float, default=1.0, help="agc: microphone gain at full volume")
    args = p.parse_args(argv)
    if args.volume is None:
        args.volume = args.bound // 2
    try:  # a bad parameter string stops everything, as in the oku command
        (Vad if args.command == "vad" else Agc)(16000, args.params)
    except ValueError as e:
        print("python3 -m oku: --params: %s" % e, file=sys.stderr)
        return 2
    if args.format == "csv":
        sys.stdout.write(",".join(VAD_CSV if args.command == "vad" else AGC_CSV) + "\n")
    status = 0
    for path in args.files:
        w = Writer(args.format, args.command, path, sys.stdout)
        if len(args.files) > 1:
            w.text("== " + path)
        try:
            (run_vad if args.command == "vad" else run_agc)(path, args, w)
        except (ValueError, OSError, EOFError, wave.Error) as e:
            print("python3 -m oku: %s: %s" % (path, e), file=sys.stderr)
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
