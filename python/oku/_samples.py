"""Audio as the library takes it: mono signed 16-bit samples in native byte order."""
import array
import ctypes
import sys
from typing import Optional, Tuple

# Buffer formats of signed 16-bit items in this machine's byte order.
_NATIVE = {"h", "@h", "=h", "<h" if sys.byteorder == "little" else ">h"}

Samples = ctypes.Array  # of ctypes.c_int16


def as_samples(samples: object) -> Tuple[Optional[Samples], int]:
    """A copy of `samples` as a ctypes array of int16 (None when empty) and the
    number of samples.

    Accepted: bytes or bytearray (16-bit little-endian PCM, as in WAV files),
    array('h'), a list or tuple of ints from -32768 to 32767, and any
    one-dimensional buffer with signed 16-bit items in native byte order (a
    numpy int16 array, a memoryview cast to 'h', ...). TypeError for other
    types or item formats, ValueError for an odd number of bytes, a sample out
    of range or a buffer of more than one dimension (several channels).
    """
    if isinstance(samples, (bytes, bytearray)):
        if len(samples) % 2:
            raise ValueError("16-bit audio needs an even number of bytes, not %d" % len(samples))
        if sys.byteorder == "little":
            view = memoryview(samples).cast("h")
        else:
            swapped = array.array("h")
            swapped.frombytes(samples)
            swapped.byteswap()
            view = memoryview(swapped)
    elif isinstance(samples, (list, tuple)):
        try:
            view = memoryview(array.array("h", samples))
        except OverflowError:
            raise ValueError("samples must lie in -32768 to 32767") from None
        except TypeError:
            raise TypeError("a list of samples must hold ints") from None
    elif isinstance(samples, str):
        raise TypeError("samples must be audio (bytes, array('h'), a list of ints or a 16-bit buffer), not str")
    else:
        try:
            view = memoryview(samples)  # type: ignore[arg-type]
        except TypeError:
            raise TypeError("samples must be bytes, array('h'), a list of ints or a buffer of 16-bit "
                            "items, not %s" % type(samples).__name__) from None
        if view.ndim != 1:
            shape = "x".join(map(str, view.shape or ())) or "a single value"
            raise ValueError("samples must be one-dimensional (mono), not of shape %s: mix the channels "
                             "down first, e.g. numpy.round(x.mean(axis=1)).astype(numpy.int16) for an "
                             "array x of one column per channel" % shape)
        if view.itemsize != 2 or view.format not in _NATIVE:
            raise TypeError("samples must have signed 16-bit items in native byte order, not items of "
                            "format %r (%d bytes); a numpy array converts with x.astype(numpy.int16)"
                            % (view.format, view.itemsize))
    n = len(view)
    if n == 0:
        return None, 0
    source = view if view.c_contiguous else view.tobytes()
    return (ctypes.c_int16 * n).from_buffer_copy(source), n
