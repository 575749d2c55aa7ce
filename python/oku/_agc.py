"""The automatic gain control."""
import ctypes
from dataclasses import dataclass
from typing import Any, Callable, Dict, List, Optional, Tuple

from ._facts import CONTROLS, check_gain, encode_params, warn_unknown_keys
from ._handle import Handle
from ._lib import LOG_FN, AgcDecision, check, lib
from ._samples import Audio


@dataclass(frozen=True)
class Decision:
    """The gain control's last decision."""

    control: str      #: one of CONTROLS: why the gain changed, or "unchanged"
    updated: bool     #: the last process() call took a decision (rather than only collecting audio)
    time_ms: float    #: ms of audio received when the decision was taken
    pause_db: float   #: pause (noise floor) level used, dB of frame power
    speech_db: float  #: speech level used, dB of frame power
    changed: bool = False  #: the last process() call proposed a gain other than the one given: apply it


class Agc(Handle):
    """The automatic gain control: proposes the next input gain from captured audio.

    - rate: the input sampling rate in Hz, an int from INPUT_RATES
    - params: the parameter string (keys in settings("agc")), or None for the
      defaults; a bad string raises ValueError with the library's message, a
      key the gain control does not read is ignored with a warning
    - log: a callable that receives each line of the diagnostic log (one per
      gain update), called from within process(). An exception it raises is
      raised again by that process() call once the library has returned; the
      audio has then been taken into account (decision() tells what was
      decided) and the rest of that call's lines are not passed on.
    - channels: interleaved channels per input frame, 1 to MAX_CHANNELS

    close() (or a `with` block) releases the gain control at once. An Agc
    pickles (and copies) as its arguments: the copy is a fresh gain control.
    """

    _what = "gain control"

    def __init__(self, rate: int, params: Optional[str] = None,
                 log: Optional[Callable[[str], object]] = None, *, channels: int = 1) -> None:
        super().__init__(lib.oku_agc_destroy, rate, channels)
        if log is not None and not callable(log):
            raise TypeError("log must be callable or None, not %s" % type(log).__name__)
        self._params, self._log = params, log
        self._open(lib.oku_agc_open, encode_params(params), 0)
        pointer = self._pointer
        # The callback holds the list, not the object, so that the object is
        # freed as soon as it is no longer used.
        self._log_errors: List[BaseException] = []
        self._log_fn = None
        if log is not None:
            self._log_fn = LOG_FN(_forward(log, self._log_errors))
            check(lib.oku_agc_set_log(pointer, self._log_fn, None))
        warn_unknown_keys("agc", params, stacklevel=2)

    def _arguments(self) -> Tuple[Tuple[Any, ...], Dict[str, Any]]:
        return (self._rate, self._params, self._log), {"channels": self._channels}

    @property
    def nonfinite(self) -> int:
        """How many NaN or infinite float samples the gain control has met (each taken as 0)."""
        return self._nonfinite(lib.oku_agc_nonfinite)

    def process(self, samples: object, gain: float) -> Tuple[float, Decision]:
        """Analyses a chunk captured at `gain` (0 to 1; 0 asks for a starting
        gain). Returns the gain to apply next and the last decision: when
        decision.changed is False the gain returned is `gain` itself, so a
        host applies the new gain exactly when decision.changed is True."""
        audio = Audio(samples, self._channels, self._what)
        data, n = audio.piece()
        given = check_gain(gain)
        process = lib.oku_agc_process_f32 if audio.floats else lib.oku_agc_process
        new_gain = ctypes.c_double()
        with self._use() as pointer:
            self._busy = True
            try:
                status = process(pointer, data, n, given, ctypes.byref(new_gain))
            finally:
                self._busy = False
            errors = self._log_errors[:]
            del self._log_errors[:]
            check(status)
            if errors:
                raise errors[0]
            return new_gain.value, self._decision(pointer)

    def decision(self) -> Decision:
        """The last decision (control "unchanged" and all zero before the first call)."""
        with self._use() as pointer:
            return self._decision(pointer)

    @staticmethod
    def _decision(pointer: ctypes.c_void_p) -> Decision:
        d = AgcDecision()
        check(lib.oku_agc_info(pointer, ctypes.byref(d)))
        return Decision(CONTROLS[d.control], bool(d.updated), d.time_ms, d.pause_db, d.speech_db, bool(d.changed))


def _forward(log: Callable[[str], object], errors: List[BaseException]) -> Callable[[object, bytes], None]:
    """The library's log callback: passes each line on to `log` until it raises,
    and keeps what it raised for process() (an exception cannot cross the library)."""

    def forward(_user: object, line: bytes) -> None:
        if errors:
            return
        try:
            log(line.decode("utf-8", "replace"))
        except BaseException as e:  # noqa: B902 - KeyboardInterrupt too: raised again by process()
            errors.append(e)

    return forward
