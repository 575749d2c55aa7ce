"""Audio as the library takes it: interleaved signed 16-bit samples or 32-bit floats.

The samples go to the library as they are; the library mixes channels down,
rounds floats and converts the rate. The one conversion made here is of
64-bit floats, which the library does not take: each is rounded to the
nearest 32-bit float first (a value beyond float32's range becomes an
infinity, which the library counts and takes as 0).
"""
import array
import ctypes
import sys
from typing import Optional, Tuple

# Buffer formats of this machine's byte order, by the kind they hold.
_ORDER = "<" if sys.byteorder == "little" else ">"
_KINDS = {f + code: code for code in "hfd" for f in ("", "@", "=", _ORDER)}
_CTYPES = {"h": ctypes.c_int16, "f": ctypes.c_float}


class Audio:
    """A flat view of interleaved samples for a handle of `channels` channels.

    Accepted: bytes or bytearray (16-bit little-endian PCM, as in WAV files),
    array('h'), array('f'), array('d'), a list or tuple of ints from -32768
    to 32767, and any buffer of signed 16-bit ints or 32-bit or 64-bit floats
    in native byte order (numpy int16, float32 and float64 arrays), either
    one-dimensional (interleaved) or two-dimensional, one row per frame and
    one column per channel. TypeError for other types or item formats,
    ValueError for an odd number of bytes, an int out of range or a column
    count other than the handle's channels.
    """

    def __init__(self, samples: object, channels: int, what: str) -> None:
        view = _view(samples)
        code = _KINDS.get(view.format)
        if code is None:
            raise TypeError("samples must have signed 16-bit int or 32-bit or 64-bit float items in native byte "
                            "order, not items of format %r (%d bytes); a numpy array converts with "
                            "x.astype(numpy.float32)" % (view.format, view.itemsize))
        if view.ndim == 2:
            if view.shape[1] != channels:
                raise ValueError("samples have %d columns, but the %s takes %d channel(s): one row per frame, one "
                                 "column per channel" % (view.shape[1], what, channels))
        elif view.ndim != 1:
            raise ValueError("samples must be one-dimensional (interleaved) or frames x channels, not of shape "
                             "%s" % ("x".join(map(str, view.shape or ())) or "a single value"))
        if not view.c_contiguous:
            view = memoryview(view.tobytes()).cast(code)  # rows in order, columns interleaved
        elif view.ndim != 1:
            view = view.cast("B").cast(code)  # the same memory, flat
        self.code = code
        self.floats = code != "h"
        self._view = view

    def __len__(self) -> int:
        return len(self._view)

    def piece(self, start: int = 0, stop: Optional[int] = None) -> Tuple[Optional[ctypes.Array], int]:
        """A copy of samples[start:stop] as the library takes them (None when
        empty) and its sample count."""
        part = self._view[start:stop]
        n = len(part)
        if n == 0:
            return None, 0
        if self.code == "d":
            numpy = sys.modules.get("numpy")  # loaded when the samples are a numpy array: far faster
            part = memoryview(numpy.frombuffer(part, numpy.float64).astype(numpy.float32) if numpy is not None
                              else array.array("f", part))
        return (_CTYPES["h" if self.code == "h" else "f"] * n).from_buffer_copy(part), n


def _view(samples: object) -> memoryview:
    if isinstance(samples, (bytes, bytearray)):
        if len(samples) % 2:
            raise ValueError("16-bit audio needs an even number of bytes, not %d" % len(samples))
        if sys.byteorder == "little":
            return memoryview(samples).cast("h")
        swapped = array.array("h")
        swapped.frombytes(samples)
        swapped.byteswap()
        return memoryview(swapped)
    if isinstance(samples, (list, tuple)):
        try:
            return memoryview(array.array("h", samples))
        except OverflowError:
            raise ValueError("samples must lie in -32768 to 32767") from None
        except TypeError:
            raise TypeError("a list of samples must hold ints (floats come as array('f') or a numpy "
                            "array)") from None
    if isinstance(samples, str):
        raise TypeError("samples must be audio (bytes, an array, a list of ints or a buffer), not str")
    try:
        return memoryview(samples)  # type: ignore[arg-type]
    except TypeError:
        raise TypeError("samples must be bytes, an array, a list of ints or a buffer of 16-bit ints or "
                        "floats, not %s" % type(samples).__name__) from None
