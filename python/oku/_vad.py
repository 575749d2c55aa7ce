"""The voice-activity analyzer and its results."""
import ctypes
import math
from contextlib import ExitStack
from dataclasses import dataclass
from typing import Any, Callable, Dict, Iterable, List, Optional, Sequence, Tuple, Union

from ._facts import (ASSESSMENTS, RESULT_TYPES, _is_number, check_rate, chunk_samples, encode_params,
                     warn_unknown_keys)
from ._handle import Handle
from ._lib import VadResult, check, lib
from ._samples import as_samples

_AUDIO_FRAMES = 1  # OKU_VAD_AUDIO_FRAMES


@dataclass(frozen=True)
class SpeechStart:
    """Speech started: its time in ms and position in samples from the start of the run."""

    time_ms: float
    position: int


@dataclass(frozen=True)
class SpeechEnd:
    """Speech ended: its time in ms and position in samples from the start of the run."""

    time_ms: float
    position: int


@dataclass(frozen=True)
class Volume:
    """A volume meter reading: one per process() call that completed a frame.

    The meter, by design, surprises in three ways:

    - A run starts at 0 dBFS: level_dbfs rises at once to a louder peak but
      falls at most MaxDecayRateDbPerDs (48 dB) per 100 ms, from full scale
      at creation, reset() and flush(), so a run's first readings fall from
      0 dBFS towards the true level instead of starting at it.
    - snr_pct has no lower bound in speech: when the loudest recent frame lies
      below the noise level plus an offset (clipped or very noisy speech) it
      is negative, down to several hundred percent. Clamp it to draw a bar.
    - "too_noisy" comes first: whenever the noise estimate lies above
      TooNoisyLeveldBFS, over "too_loud" and "too_soft", and as long as the
      estimate lasts. It follows the last 2 s of frames above 15 dB of
      energy, so after noise it stays over digital silence.
    """

    time_ms: float     #: end of the audio measured, ms from the start of the run
    position: int      #: the same instant in samples
    peak: int          #: largest absolute sample of the reading's audio, 0 to 32768
    level_dbfs: float  #: peak level in dBFS, falling at a limited rate, -90.3 to 0 (see below)
    snr_pct: float     #: speech over noise in percent of full scale, at most 100, 0 in a pause (see below)
    assessment: str    #: one of ASSESSMENTS: "ok", "too_noisy", "too_soft" or "too_loud"
    speech: bool       #: the analyzer is inside speech


@dataclass(frozen=True)
class Frame:
    """One frame of audio as it arrived (only from Vad(rate, frames=True))."""

    time_ms: float             #: the frame's start, ms from the start of the run
    position: int              #: the same instant in samples
    index: int                 #: number of the frame in the run, from 0
    speech: bool               #: the frame lies in speech
    samples: Tuple[int, ...]   #: its samples (the last frame of a flush may be short)


@dataclass(frozen=True)
class Segment:
    """A stretch of speech, in ms and in samples from the start of the run."""

    start_ms: float
    end_ms: float
    start_sample: int
    end_sample: int


Result = Union[SpeechStart, SpeechEnd, Volume, Frame]


def _volume(r: VadResult) -> Volume:
    return Volume(r.time_ms, r.position, int(r.peak), r.level_dbfs, r.snr_pct, ASSESSMENTS[r.assessment],
                  bool(r.speech))


def _frame(r: VadResult) -> Frame:
    return Frame(r.time_ms, r.position, r.frame_index, bool(r.speech), tuple(r.samples[:r.sample_count]))


# Each result type the library names, to the Python result that carries it.
_CONVERTERS: Dict[int, Callable[[VadResult], Any]] = {
    RESULT_TYPES.index("speech_start"): lambda r: SpeechStart(r.time_ms, r.position),
    RESULT_TYPES.index("speech_end"): lambda r: SpeechEnd(r.time_ms, r.position),
    RESULT_TYPES.index("volume"): _volume,
    RESULT_TYPES.index("frame"): _frame,
}


class Vad(Handle):
    """The voice-activity analyzer: speech starts and ends, and volume readings.

    - rate: the sampling rate in Hz, an int equal to one of RATES
    - params: the parameter string ("EOSTimeoutMs=600;..."; keys in
      settings("vad")), or None for the defaults. A bad string raises
      ValueError with the library's message; a key the analyzer does not read
      is ignored with a warning.
    - frames: also return every frame of audio (Frame results)

    Use one object per stream; objects are independent and may run on threads
    of their own. close() (or a `with` block) releases the analyzer at once.
    """

    _what = "analyzer"

    def __init__(self, rate: int, params: Optional[str] = None, frames: bool = False) -> None:
        super().__init__(lib.oku_vad_destroy)
        self._rate = check_rate(rate)
        pointer = ctypes.c_void_p()
        check(lib.oku_vad_create_ex(float(self._rate), encode_params(params), _AUDIO_FRAMES if frames else 0,
                                    ctypes.byref(pointer)))
        self._pointer = pointer
        self._buffer = (VadResult * 64)()
        warn_unknown_keys("vad", params, stacklevel=2)

    @property
    def rate(self) -> int:
        """The sampling rate in Hz."""
        return self._rate

    def _drain(self, pointer: ctypes.c_void_p) -> List[Result]:
        """Every queued result, oldest first."""
        out: List[Result] = []
        count = ctypes.c_size_t()
        while True:
            check(lib.oku_vad_results(pointer, self._buffer, len(self._buffer), ctypes.byref(count)))
            out += (_CONVERTERS[r.type](r) for r in self._buffer[:count.value])
            if count.value < len(self._buffer):
                return out

    def process(self, samples: object) -> List[Result]:
        """Analyses a chunk of any length (see the package's help for what
        samples may be) and returns the results it completed, in order: speech
        starts and ends, then one Volume reading when a frame was completed."""
        data, n = as_samples(samples)
        with self._use() as pointer:
            check(lib.oku_vad_process(pointer, data, n))
            return self._drain(pointer)

    def flush(self) -> List[Result]:
        """Ends the run: returns everything pending, closing an open speech
        segment at the end of the audio. The next samples start a new run at
        time 0; the noise estimate is kept."""
        with self._use() as pointer:
            check(lib.oku_vad_flush(pointer))
            return self._drain(pointer)

    def reset(self) -> None:
        """Starts afresh as if just created, with the same settings."""
        with self._use() as pointer:
            check(lib.oku_vad_reset(pointer))

    def segments(self, samples: object, chunk_ms: float = 20.0) -> List[Segment]:
        """The speech segments of a whole recording: the samples are fed in
        chunks of chunk_ms (above 0; at least one sample), then the run is
        flushed. Times count from the start of the run, which is the
        recording's first sample on a new analyzer or after flush() or
        reset()."""
        if not _is_number(chunk_ms):
            raise TypeError("chunk_ms must be a number, not %s" % type(chunk_ms).__name__)
        if not (math.isfinite(chunk_ms) and chunk_ms > 0):
            raise ValueError("chunk_ms must be above 0, not %r" % chunk_ms)
        step = chunk_samples(self._rate, chunk_ms)
        data, n = as_samples(samples)
        events: List[Result] = []
        with self._use() as pointer:
            for i in range(0, n, step):
                chunk = ctypes.cast(ctypes.byref(data, 2 * i), ctypes.POINTER(ctypes.c_int16))  # type: ignore
                check(lib.oku_vad_process(pointer, chunk, min(step, n - i)))
                events += (r for r in self._drain(pointer) if isinstance(r, (SpeechStart, SpeechEnd)))
            check(lib.oku_vad_flush(pointer))
            events += self._drain(pointer)
        return to_segments(events)


def process_many(vads: Sequence[Vad], chunks: Sequence[object]) -> List[List[Result]]:
    """Vad.process for many analyzers in one library call: vads[i] takes
    chunks[i] exactly as vads[i].process(chunks[i]) would, and the i-th list
    returned holds its results. The library runs the analyzers' filters side
    by side, which costs far less per stream than one call after another.
    Rates and chunk lengths (empty included) may differ.

    TypeError for an object that is not a Vad or samples of a wrong type;
    ValueError for lengths that differ, an analyzer given twice or closed, or
    bad samples. On any error no analyzer has taken anything.
    """
    vads, chunks = list(vads), list(chunks)
    if len(vads) != len(chunks):
        raise ValueError("process_many needs one chunk per analyzer: %d analyzers, %d chunks"
                         % (len(vads), len(chunks)))
    for i, vad in enumerate(vads):
        if not isinstance(vad, Vad):
            raise TypeError("vads[%d] is not a Vad but %s" % (i, type(vad).__name__))
    seen: Dict[int, int] = {}
    for i, vad in enumerate(vads):
        if id(vad) in seen:
            raise ValueError("vads[%d] is vads[%d] again: each analyzer may take one chunk per call"
                             % (i, seen[id(vad)]))
        seen[id(vad)] = i
    data = [as_samples(chunk) for chunk in chunks]
    n = len(vads)
    with ExitStack() as stack:
        # Every analyzer is held for the call; taken in one order by every
        # caller, so that two calls over the same analyzers cannot deadlock.
        pointers: Dict[int, ctypes.c_void_p] = {}
        for i in sorted(range(n), key=lambda i: id(vads[i])):
            pointers[i] = stack.enter_context(vads[i]._use())
        handles = (ctypes.c_void_p * n)(*(pointers[i].value for i in range(n)))
        samples = (ctypes.POINTER(ctypes.c_int16) * n)(
            *(ctypes.cast(d, ctypes.POINTER(ctypes.c_int16)) if d is not None else None for d, _ in data))
        counts = (ctypes.c_size_t * n)(*(count for _, count in data))
        check(lib.oku_vad_process_many(handles, samples, counts, n))
        return [vads[i]._drain(pointers[i]) for i in range(n)]


class SegmentPairer:
    """Pairs speech starts with the ends that follow them as results arrive:
    add() takes a batch of results and returns the segments they close; a
    start whose end has not come yet is kept for the next batch."""

    def __init__(self) -> None:
        self.open: Optional[SpeechStart] = None

    def add(self, results: Iterable[object]) -> List[Segment]:
        segments = []
        for r in results:
            if isinstance(r, SpeechStart):
                self.open = r
            elif isinstance(r, SpeechEnd) and self.open is not None:
                segments.append(Segment(self.open.time_ms, r.time_ms, self.open.position, r.position))
                self.open = None
        return segments


def to_segments(results: Iterable[object]) -> List[Segment]:
    """Pairs each SpeechStart with the SpeechEnd that follows it; other results
    are passed over."""
    return SegmentPairer().add(results)
