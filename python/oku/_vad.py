"""The voice-activity analyzer and its results."""
import ctypes
import math
from contextlib import ExitStack
from dataclasses import dataclass
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Sequence, Tuple, Union

from ._facts import ASSESSMENTS, RESULT_TYPES, _is_number, chunk_samples, encode_params, warn_unknown_keys
from ._handle import Handle
from ._lib import VadResult, VadSegment, check, lib
from ._samples import Audio

_AUDIO_FRAMES = 1  # OKU_VAD_AUDIO_FRAMES


@dataclass(frozen=True)
class Segment:
    """A stretch of speech, in ms and in input frames (samples of one channel
    at the input rate) from the start of the run."""

    start_ms: float
    end_ms: float
    start_sample: int
    end_sample: int


@dataclass(frozen=True)
class SpeechStart:
    """Speech started: its time in ms and position in input frames from the start of the run."""

    time_ms: float
    position: int


@dataclass(frozen=True)
class SpeechEnd:
    """Speech ended: its time in ms and position in input frames from the start
    of the run, and the whole segment it closes (paired by the library)."""

    time_ms: float
    position: int
    segment: Optional[Segment] = None


@dataclass(frozen=True)
class Volume:
    """A volume meter reading: one per process() call that completed a frame.
    The meter surprises in three ways by design (a run starts at 0 dBFS,
    snr_pct may be negative in speech, "too_noisy" comes first): see
    docs/c-api.md, "The meter's behaviours"."""

    time_ms: float     #: end of the audio measured, ms from the start of the run
    position: int      #: the same instant in samples
    peak: int          #: largest absolute sample of the reading's audio, 0 to 32768
    level_dbfs: float  #: peak level in dBFS, falling at a limited rate, -90.3 to 0
    snr_pct: float     #: speech over noise in percent of full scale, at most 100, 0 in a pause
    assessment: str    #: one of ASSESSMENTS: "ok", "too_noisy", "too_soft" or "too_loud"
    speech: bool       #: the analyzer is inside speech


@dataclass(frozen=True)
class Frame:
    """One frame of the analysed audio (only from Vad(rate, frames=True)):
    mono 16-bit samples at the analysis rate, the input itself for mono
    16-bit input at an analysis rate."""

    time_ms: float             #: the frame's start, ms from the start of the run
    position: int              #: the same instant in samples
    index: int                 #: number of the frame in the run, from 0
    speech: bool               #: the frame lies in speech
    samples: Tuple[int, ...]   #: its samples (the last frame of a flush may be short)


Result = Union[SpeechStart, SpeechEnd, Volume, Frame]


def _segment(s: VadSegment) -> Segment:
    return Segment(s.start_ms, s.end_ms, s.start, s.end)


def _volume(r: VadResult, _s: VadSegment) -> Volume:
    return Volume(r.time_ms, r.position, int(r.peak), r.level_dbfs, r.snr_pct, ASSESSMENTS[r.assessment],
                  bool(r.speech))


def _frame(r: VadResult, _s: VadSegment) -> Frame:
    return Frame(r.time_ms, r.position, r.frame_index, bool(r.speech), tuple(r.samples[:r.sample_count]))


# Each result type the library names, to the Python result that carries it.
_NONE = RESULT_TYPES.index("none")
_SPEECH_END = RESULT_TYPES.index("speech_end")
_CONVERTERS: Dict[int, Callable[[VadResult, VadSegment], Any]] = {
    RESULT_TYPES.index("speech_start"): lambda r, _s: SpeechStart(r.time_ms, r.position),
    _SPEECH_END: lambda r, s: SpeechEnd(r.time_ms, r.position, _segment(s)),
    RESULT_TYPES.index("volume"): _volume,
    RESULT_TYPES.index("frame"): _frame,
}

# How much audio segments() hands the library per call: long enough that the
# calls cost nothing beside the analysis, short enough that the library's
# buffers reserved at creation hold what a call gives at every rate.
SEGMENTS_CHUNK_MS = 250.0


class Vad(Handle):
    """The voice-activity analyzer: speech starts and ends, and volume readings.

    - rate: the input sampling rate in Hz, an int from INPUT_RATES; the
      library converts it to analysis_rate(rate)
    - params: the parameter string ("EOSTimeoutMs=600;..."; keys in
      settings("vad")), or None for the defaults. A bad string raises
      ValueError with the library's message; a key the analyzer does not read
      is ignored with a warning.
    - frames: also return every frame of the analysed audio (Frame results)
    - channels: interleaved channels per input frame, 1 to MAX_CHANNELS,
      mixed down to mono by the library

    Positions and times count in input frames at `rate` from the start of the
    run. Use one object per stream; objects are independent and may run on
    threads of their own. close() (or a `with` block) releases the analyzer at
    once. A Vad pickles (and copies) as its arguments: the copy is a fresh
    analyzer, as created, whatever this one has analysed.
    """

    _what = "analyzer"

    def __init__(self, rate: int, params: Optional[str] = None, frames: bool = False, *, channels: int = 1) -> None:
        super().__init__(lib.oku_vad_destroy, rate, channels)
        self._params, self._frames = params, bool(frames)
        self._open(lib.oku_vad_open, encode_params(params), _AUDIO_FRAMES if frames else 0)
        self._result, self._segment = VadResult(), VadSegment()
        warn_unknown_keys("vad", params, stacklevel=2)

    def _arguments(self) -> Tuple[Tuple[Any, ...], Dict[str, Any]]:
        return (self._rate, self._params, self._frames), {"channels": self._channels}

    @property
    def nonfinite(self) -> int:
        """How many NaN or infinite float samples the analyzer has met (each taken as 0)."""
        return self._nonfinite(lib.oku_vad_nonfinite)

    def _take(self, pointer: ctypes.c_void_p) -> Iterator[Tuple[VadResult, VadSegment]]:
        """Every queued result, oldest first, with the segment a speech end closes."""
        r, s = self._result, self._segment
        while True:
            check(lib.oku_vad_take(pointer, ctypes.byref(r), ctypes.byref(s)))
            if r.type == _NONE:
                return
            yield r, s

    def _drain(self, pointer: ctypes.c_void_p) -> List[Result]:
        return [_CONVERTERS[r.type](r, s) for r, s in self._take(pointer)]

    def process(self, samples: object) -> List[Result]:
        """Analyses a chunk of any whole number of frames (see the package's
        help for what samples may be) and returns the results it completed, in
        order: speech starts and ends, then one Volume reading when a frame was
        completed."""
        audio = Audio(samples, self._channels, self._what)
        data, n = audio.piece()
        with self._use() as pointer:
            check((lib.oku_vad_process_f32 if audio.floats else lib.oku_vad_process)(pointer, data, n))
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

    def segments(self, samples: object, chunk_ms: Optional[float] = None,
                 max_ms: Optional[float] = None) -> List[Segment]:
        """The speech segments of a whole recording: the samples are analysed,
        then the run is flushed. Times count from the start of the run, which
        is the recording's first sample on a new analyzer or after flush() or
        reset().

        The analyzer's speech decisions do not depend on how the audio is cut
        into calls (only the volume readings do), so the segments are those of
        20 ms chunks; the samples go to the library in calls of chunk_ms
        (above 0; by default a quarter of a second).

        max_ms: cut every segment longer than this into the fewest pieces of
        at most max_ms, of equal length to within a frame (the library's rule).
        """
        step = chunk_samples(self._rate, SEGMENTS_CHUNK_MS if chunk_ms is None else _positive("chunk_ms", chunk_ms))
        audio = Audio(samples, self._channels, self._what)
        step *= self._channels
        return self._cut((audio.piece(i, i + step) for i in range(0, len(audio), step)), audio.floats, max_ms)

    def _cut(self, pieces: Iterable[Tuple[Any, int]], floats: bool, max_ms: Optional[float]) -> List[Segment]:
        """The segments of the pieces (pointer and sample count) and of the flush after them."""
        process = lib.oku_vad_process_f32 if floats else lib.oku_vad_process
        out: List[Segment] = []
        with self._use() as pointer:
            if max_ms is not None:  # the library checks max_ms before any audio is taken
                _split(pointer, VadSegment(), _positive("max_ms", max_ms))
            for data, n in pieces:
                check(process(pointer, data, n))
                out += self._ends(pointer, max_ms)
            check(lib.oku_vad_flush(pointer))
            out += self._ends(pointer, max_ms)
        return out

    def _ends(self, pointer: ctypes.c_void_p, max_ms: Optional[float]) -> List[Segment]:
        """The segments closed by the queued results, cut to max_ms."""
        out = []
        for r, s in self._take(pointer):
            if r.type == _SPEECH_END:
                out += _split(pointer, s, max_ms) if max_ms is not None else [_segment(s)]
        return out


def _positive(name: str, value: object) -> float:
    if not _is_number(value):
        raise TypeError("%s must be a number, not %s" % (name, type(value).__name__))
    if not (math.isfinite(value) and value > 0):  # type: ignore[arg-type]
        raise ValueError("%s must be above 0, not %r" % (name, value))
    return float(value)  # type: ignore[arg-type]


def _split(pointer: ctypes.c_void_p, segment: VadSegment, max_ms: float) -> List[Segment]:
    count = ctypes.c_size_t()
    check(lib.oku_vad_split(pointer, ctypes.byref(segment), max_ms, None, 0, ctypes.byref(count)))
    pieces = (VadSegment * count.value)()
    check(lib.oku_vad_split(pointer, ctypes.byref(segment), max_ms, pieces, count.value, ctypes.byref(count)))
    return [_segment(p) for p in pieces]


def process_many(vads: Sequence[Vad], chunks: Sequence[object]) -> List[List[Result]]:
    """Vad.process for many analyzers in one library call: vads[i] takes
    chunks[i] exactly as vads[i].process(chunks[i]) would, and the i-th list
    returned holds its results. The library runs the analyzers' filters side
    by side, which costs far less per stream than one call after another.
    Rates and chunk lengths (empty included) may differ.

    The chunks are all 16-bit or all float (the library takes one kind per
    call). TypeError for an object that is not a Vad, samples of a wrong type
    or of mixed kinds; ValueError for lengths that differ, an analyzer given
    twice or closed, or bad samples. On any error no analyzer has taken anything.
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
    audio = [Audio(chunk, vad._channels, vad._what) for vad, chunk in zip(vads, chunks)]
    floats = {a.floats for a in audio}
    if len(floats) > 1:
        raise TypeError("process_many takes chunks of one kind in a call: all 16-bit or all float")
    item = ctypes.c_float if True in floats else ctypes.c_int16
    data = [a.piece() for a in audio]
    n = len(vads)
    with ExitStack() as stack:
        # Every analyzer is held for the call; taken in one order by every
        # caller, so that two calls over the same analyzers cannot deadlock.
        pointers: Dict[int, ctypes.c_void_p] = {}
        for i in sorted(range(n), key=lambda i: id(vads[i])):
            pointers[i] = stack.enter_context(vads[i]._use())
        handles = (ctypes.c_void_p * n)(*(pointers[i].value for i in range(n)))
        samples = (ctypes.POINTER(item) * n)(
            *(ctypes.cast(d, ctypes.POINTER(item)) if d is not None else None for d, _ in data))
        counts = (ctypes.c_size_t * n)(*(count for _, count in data))
        check((lib.oku_vad_process_many_f32 if True in floats else lib.oku_vad_process_many)(
            handles, samples, counts, n))
        return [vads[i]._drain(pointers[i]) for i in range(n)]


def to_segments(results: Iterable[object]) -> List[Segment]:
    """The segments that the SpeechEnd results among `results` close (the
    library pairs each end with its start); other results are passed over."""
    return [r.segment for r in results if isinstance(r, SpeechEnd) and r.segment is not None]
