"""Voice-activity analyzer and automatic gain control for 16-bit speech audio.

    >>> import oku
    >>> vad = oku.Vad(16000)
    >>> for seg in vad.segments(samples):          # a whole recording
    ...     print(seg.start_ms, seg.end_ms)
    >>> results = vad.process(chunk)              # or chunk by chunk: a list of results
    >>> agc = oku.Agc(16000)
    >>> gain, decision = agc.process(chunk, gain)  # the gain to apply next, and why

Samples are mono signed 16-bit: bytes (little-endian), array('h'), a list of
ints, or anything with the buffer protocol and 16-bit items (a numpy int16
array, for instance). Rates: 8000, 11025, 16000 and 22050 Hz. Settings are
given as the library's parameter string ("EOSTimeoutMs=600;..."). Bad rates and
settings raise ValueError with the library's message.

Each object is independent and may be used from its own thread. The library is
found next to the package (after `cmake --install`), or through the
environment variable OKU_LIBRARY.
"""
import array
import ctypes
import sys
from dataclasses import dataclass
from typing import List, Optional, Tuple

from ._lib import AgcDecision, LOG_FN, VadResult, lib

__all__ = ["Vad", "Agc", "SpeechStart", "SpeechEnd", "Volume", "Frame", "Segment", "Decision",
           "ASSESSMENTS", "CONTROLS", "OkuError"]

ASSESSMENTS = ("ok", "too_noisy", "too_soft", "too_loud")
CONTROLS = ("unchanged", "pause_too_low", "speech_too_low", "speech_too_high", "operating_limit",
            "gain_estimate")
RATES = (8000, 11025, 16000, 22050)


class OkuError(RuntimeError):
    """A failure inside the library (out of memory, or worse)."""


def _check(status):
    if status == 0:
        return
    message = lib.oku_last_error().decode("utf-8", "replace")
    if status in (-2, -3, -4):  # argument, rate, parameters
        raise ValueError(message)
    if status == -1:
        raise TypeError(message)
    raise OkuError(message or lib.oku_status_message(status).decode())


def _samples(samples):
    """A ctypes int16 array holding the samples, and their count."""
    if isinstance(samples, (bytes, bytearray)):
        if len(samples) % 2:
            raise ValueError("16-bit audio needs an even number of bytes")
        if sys.byteorder == "little":
            data = bytes(samples)
        else:
            swapped = array.array("h")
            swapped.frombytes(bytes(samples))
            swapped.byteswap()
            data = swapped.tobytes()
    elif isinstance(samples, array.array) and samples.typecode == "h":
        data = samples.tobytes()
    elif isinstance(samples, (list, tuple)):
        data = array.array("h", samples).tobytes()
    else:
        try:
            view = memoryview(samples)
        except TypeError:
            raise TypeError("samples must be bytes, array('h'), a list of ints or a 16-bit buffer") from None
        if view.itemsize != 2 or view.format not in ("h", "<h", "=h", "@h"):
            raise TypeError("samples must have 16-bit signed items, not %r" % view.format)
        data = view.tobytes()
    n = len(data) // 2
    return (ctypes.c_int16 * n).from_buffer_copy(data) if n else None, n


@dataclass(frozen=True)
class SpeechStart:
    """Speech started at this time (ms) and position (samples) of the run."""
    time_ms: float
    position: int


@dataclass(frozen=True)
class SpeechEnd:
    """Speech ended at this time (ms) and position (samples) of the run."""
    time_ms: float
    position: int


@dataclass(frozen=True)
class Volume:
    """A volume meter reading: one per process() call that completed a frame."""
    time_ms: float       # end of the audio measured
    position: int
    peak: int            # largest absolute sample, 0 to 32768
    level_dbfs: float    # peak level with a limited rate of fall
    snr_pct: float       # speech over noise in percent of full scale, 0 in a pause
    assessment: str      # "ok", "too_noisy", "too_soft" or "too_loud"
    speech: bool         # the analyzer is in speech


@dataclass(frozen=True)
class Frame:
    """One frame of audio as it arrived (Vad(frames=True) only)."""
    time_ms: float
    position: int
    index: int
    speech: bool
    samples: Tuple[int, ...]


@dataclass(frozen=True)
class Segment:
    """A stretch of speech."""
    start_ms: float
    end_ms: float
    start_sample: int
    end_sample: int


@dataclass(frozen=True)
class Decision:
    """The gain control's last decision."""
    control: str      # one of CONTROLS
    updated: bool     # the last process() call took a decision (rather than collecting audio)
    time_ms: float
    pause_db: float   # pause (noise floor) level, dB of frame power
    speech_db: float  # speech level, dB of frame power


class Vad:
    """The voice-activity analyzer: speech starts and ends, and volume readings."""

    def __init__(self, rate, params: str = "", frames: bool = False):
        self.rate = rate
        handle = ctypes.c_void_p()
        _check(lib.oku_vad_create_ex(float(rate), params.encode(), 1 if frames else 0, ctypes.byref(handle)))
        self._handle = handle
        self._buffer = (VadResult * 256)()

    def __del__(self):
        handle = getattr(self, "_handle", None)
        if handle:
            lib.oku_vad_destroy(handle)
            self._handle = None

    def _drain(self) -> list:
        out = []
        count = ctypes.c_size_t()
        while True:
            _check(lib.oku_vad_results(self._handle, self._buffer, len(self._buffer), ctypes.byref(count)))
            for r in self._buffer[:count.value]:
                out.append(_convert(r))
            if count.value < len(self._buffer):
                return out

    def process(self, samples) -> list:
        """Analyses a chunk of any length and returns the results it completed, in order."""
        data, n = _samples(samples)
        _check(lib.oku_vad_process(self._handle, data, n))
        return self._drain()

    def flush(self) -> list:
        """Ends the run (closing an open speech segment) and returns what was pending."""
        _check(lib.oku_vad_flush(self._handle))
        return self._drain()

    def reset(self) -> None:
        """Starts afresh, keeping the settings."""
        _check(lib.oku_vad_reset(self._handle))

    def segments(self, samples, chunk_ms: float = 20.0) -> List[Segment]:
        """The speech segments of a whole recording, fed in chunks of chunk_ms and flushed."""
        data, n = _samples(samples)
        step = max(1, int(round(chunk_ms * self.rate / 1000.0)))
        results = []
        for i in range(0, n, step):
            chunk = ctypes.cast(ctypes.byref(data, 2 * i), ctypes.POINTER(ctypes.c_int16))
            _check(lib.oku_vad_process(self._handle, chunk, min(step, n - i)))
            results += self._drain()
        results += self.flush()
        return to_segments(results)


def to_segments(results) -> List[Segment]:
    """Pairs speech starts with the ends that follow them."""
    segments, start = [], None
    for r in results:
        if isinstance(r, SpeechStart):
            start = r
        elif isinstance(r, SpeechEnd) and start is not None:
            segments.append(Segment(start.time_ms, r.time_ms, start.position, r.position))
            start = None
    return segments


def _convert(r):
    if r.type == 1:
        return SpeechStart(r.time_ms, r.position)
    if r.type == 2:
        return SpeechEnd(r.time_ms, r.position)
    if r.type == 3:
        return Volume(r.time_ms, r.position, int(r.peak), r.level_dbfs, r.snr_pct, ASSESSMENTS[r.assessment & 3],
                      bool(r.speech))
    return Frame(r.time_ms, r.position, r.frame_index, bool(r.speech), tuple(r.samples[:r.sample_count]))


class Agc:
    """The automatic gain control: proposes the next input gain from captured audio."""

    def __init__(self, rate: int, params: str = "", log=None):
        """log: an optional callable that receives each diagnostic log line."""
        self.rate = rate
        handle = ctypes.c_void_p()
        _check(lib.oku_agc_create(int(rate), params.encode(), ctypes.byref(handle)))
        self._handle = handle
        self._log = None
        if log is not None:
            self._log = LOG_FN(lambda user, line: log(line.decode()))
            _check(lib.oku_agc_set_log(self._handle, self._log, None))

    def __del__(self):
        handle = getattr(self, "_handle", None)
        if handle:
            lib.oku_agc_destroy(handle)
            self._handle = None

    def process(self, samples, gain: float) -> Tuple[float, Decision]:
        """Analyses a chunk captured at `gain` (0 to 1; 0 asks for a starting gain).
        Returns the gain to apply next and the last decision."""
        data, n = _samples(samples)
        new_gain = ctypes.c_double()
        _check(lib.oku_agc_process(self._handle, data, n, float(gain), ctypes.byref(new_gain)))
        return new_gain.value, self.decision()

    def decision(self) -> Decision:
        d = AgcDecision()
        _check(lib.oku_agc_info(self._handle, ctypes.byref(d)))
        return Decision(CONTROLS[d.control] if 0 <= d.control < len(CONTROLS) else str(d.control), bool(d.updated),
                        d.time_ms, d.pause_db, d.speech_db)
