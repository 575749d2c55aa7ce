"""python -m oku vad|agc [options] FILE.wav...: the package from the command line.

Reads 16-bit mono WAV files at a supported rate with the standard wave module
and prints JSON Lines records, one object per line, with the record types and
field names of the oku command: "segment" records and a "summary" per file
(vad; "meter" records too with --meter), or the "decision" records of the gain
control in a closed loop with a simulated microphone and a "summary" (agc).
Every record starts with "file" and "type". Exit status: 0 when every file was
processed, 1 when one could not be (stderr names it; the others are still
processed), 2 for a bad option or parameter string.
"""
import argparse
import array
import json
import math
import os
import sys
import wave
import warnings
from typing import IO, Any, Callable, Dict, Iterator, List, Optional, Tuple

from . import (ASSESSMENTS, CONTROLS, RATES, Agc, Vad, Volume, __version__, check_params, gain_from_volume,
               nearest_rate, volume_from_gain)
from ._facts import _SERVICE_NAMES, chunk_samples, unknown_keys
from ._vad import SegmentPairer

PROG = "python -m oku"
Emit = Callable[..., None]


def read_wav(path: str) -> Tuple[int, "array.array[int]"]:
    """The rate and samples of a mono 16-bit WAV file at a supported rate."""
    with wave.open(path, "rb") as w:
        if w.getsampwidth() != 2:
            raise ValueError("%d-bit samples; 16-bit samples are needed" % (8 * w.getsampwidth()))
        if w.getnchannels() != 1:
            raise ValueError("%d channels; mix them down to mono first (the oku command does)" % w.getnchannels())
        rate = w.getframerate()
        if rate not in RATES:
            raise ValueError("%d Hz is not a supported rate; resample to %d Hz first (the oku command does)"
                             % (rate, nearest_rate(rate)))
        samples = array.array("h")
        samples.frombytes(w.readframes(w.getnframes()))
    if sys.byteorder != "little":
        samples.byteswap()
    if not samples:
        raise ValueError("no audio in it (empty)")
    return rate, samples


def chunks(samples: "array.array[int]", chunk_ms: float, rate: int) -> Iterator["array.array[int]"]:
    """The samples in pieces of chunk_ms, cut as the oku command cuts them."""
    step = chunk_samples(rate, chunk_ms)
    for k in range(0, len(samples), step):
        yield samples[k:k + step]


def run_vad(path: str, args: argparse.Namespace, emit: Emit) -> None:
    rate, samples = read_wav(path)
    readings = {name: 0 for name in ASSESSMENTS}
    segments: List[Tuple[float, float]] = []  # in ms, for exact differences
    peak = 0
    pairer = SegmentPairer()

    def handle(results: List[Any]) -> None:
        nonlocal peak
        for r in results:
            for s in pairer.add([r]):  # records in the order of the results
                segments.append((s.start_ms, s.end_ms))
                emit("segment", index=len(segments), start_s=s.start_ms / 1000.0, end_s=s.end_ms / 1000.0,
                     duration_s=(s.end_ms - s.start_ms) / 1000.0, start_sample=s.start_sample,
                     end_sample=s.end_sample)
            if isinstance(r, Volume):
                readings[r.assessment] += 1
                peak = max(peak, r.peak)
                if args.meter:
                    emit("meter", time_s=r.time_ms / 1000.0, peak=r.peak, dbfs=r.level_dbfs, snr_pct=r.snr_pct,
                         assessment=r.assessment, speech=r.speech)

    with Vad(rate, args.params) as vad:
        for chunk in chunks(samples, args.chunk_ms, rate):
            handle(vad.process(chunk))
        handle(vad.flush())
    emit("summary", rate=rate, original_rate=rate, duration_s=len(samples) / rate, segments=len(segments),
         speech_s=sum(end - begin for begin, end in segments) / 1000.0, readings=sum(readings.values()), **readings,
         peak=peak, peak_dbfs=20.0 * math.log10(max(peak, 1) / 32768.0))


def run_agc(path: str, args: argparse.Namespace, emit: Emit) -> None:
    """The gain control against a simulated microphone: each chunk is the
    recording times --mic-gain times volume / --bound, clipped to 16 bits. The
    proposed volume applies from the next chunk; like a careful host, the
    volume changes only when the decision says the gain changed."""
    rate, samples = read_wav(path)
    bound, volume = args.bound, args.volume
    counts = {name: 0 for name in CONTROLS}
    changes = 0
    with Agc(rate, args.params) as agc:
        for chunk in chunks(samples, args.chunk_ms, rate):
            factor = args.mic_gain * volume / bound
            captured = array.array("h", (max(-32768, min(32767, round(x * factor))) for x in chunk))
            gain = gain_from_volume(volume, bound)
            new_gain, d = agc.process(captured, gain)
            before = volume
            if d.changed:
                volume = volume_from_gain(new_gain, bound)
            if d.updated:
                counts[d.control] += 1
                changes += volume != before
                emit("decision", time_s=d.time_ms / 1000.0, volume_before=before, volume_after=volume,
                     control=d.control, pause_db=d.pause_db, speech_db=d.speech_db)
    emit("summary", rate=rate, original_rate=rate, duration_s=len(samples) / rate, decisions=sum(counts.values()),
         changes=changes, final_volume=volume, **counts)


def _above_zero(text: str) -> float:
    value = float(text)
    if not (math.isfinite(value) and value > 0):
        raise argparse.ArgumentTypeError("must be above 0")
    return value


def _not_negative(text: str) -> float:
    value = float(text)
    if not (math.isfinite(value) and value >= 0):
        raise argparse.ArgumentTypeError("must be 0 or more")
    return value


def parser() -> argparse.ArgumentParser:
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("files", nargs="+", metavar="FILE.wav", help="16-bit mono WAV files at a supported rate")
    common.add_argument("--params", default=None, help='parameter string, "Key=Value;..."')
    common.add_argument("--chunk-ms", type=_above_zero, default=20.0, help="audio per library call (default 20)")
    p = argparse.ArgumentParser(prog=PROG, description="Speech segments (vad) or gain decisions (agc) of 16-bit "
                                "mono WAV files, printed as JSON Lines records.")
    p.add_argument("--version", action="version", version=__version__)
    commands = p.add_subparsers(dest="command", metavar="vad|agc", required=True)
    vad = commands.add_parser("vad", parents=[common], help="speech segments and volume readings")
    vad.add_argument("--meter", action="store_true", help="also print every volume reading")
    agc = commands.add_parser("agc", parents=[common], help="gain decisions against a simulated microphone")
    agc.add_argument("--bound", type=int, default=65535, help="volume of full gain (default 65535)")
    agc.add_argument("--volume", type=int, default=None, help="starting volume (default half the bound)")
    agc.add_argument("--mic-gain", type=_not_negative, default=1.0, help="microphone gain at full volume (default 1)")
    return p


def main(argv: Optional[List[str]] = None, out: IO[str] = sys.stdout, err: IO[str] = sys.stderr) -> int:
    """Runs the command; returns its exit status."""
    args = parser().parse_args(argv)
    try:
        check_params(args.command, args.params)
        unknown = unknown_keys(args.command, args.params)
    except ValueError as e:
        print("%s: --params: %s" % (PROG, e), file=err)
        return 2
    if args.command == "agc":
        if args.volume is None:
            args.volume = args.bound // 2
        try:
            gain_from_volume(args.volume, args.bound)  # refuses what it cannot convert
        except ValueError as e:
            print("%s: --bound %d, --volume %d: %s" % (PROG, args.bound, args.volume, e), file=err)
            return 2
    for key in unknown:
        print("%s: --params: %r is not a setting of %s; it is ignored" % (PROG, key, _SERVICE_NAMES[args.command]),
              file=err)

    status = 0
    for path in args.files:
        def emit(kind: str, **fields: Any) -> None:
            record: Dict[str, Any] = {"file": path, "type": kind}
            record.update(fields)
            out.write(json.dumps(record, separators=(",", ":"), allow_nan=False) + "\n")

        try:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")  # unknown keys were reported once above
                (run_vad if args.command == "vad" else run_agc)(path, args, emit)
        except BrokenPipeError:
            raise
        except (ValueError, OSError, EOFError, wave.Error) as e:
            print("%s: %s: %s" % (PROG, path, e), file=err)
            status = 1
        out.flush()
    return status


if __name__ == "__main__":
    try:
        exit_status = main()
    except BrokenPipeError:  # the reader went away (| head): stop without a traceback
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        exit_status = 1
    sys.exit(exit_status)
