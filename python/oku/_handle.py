"""The life of a library handle owned by one Python object."""
import ctypes
import threading
from contextlib import contextmanager
from typing import Any, Callable, Dict, Iterator, Optional, Tuple, TypeVar

from ._facts import analysis_rate, whole
from ._lib import check

H = TypeVar("H", bound="Handle")


class Handle:
    """Owns one handle of the library: released by close(), at the end of a
    `with` block, or when the object is collected.

    Each object guards its handle with a lock of its own, so that an object
    shared between threads is used by one thread at a time (the library
    forbids more) and close() never frees a handle that a call is using.
    Different objects share nothing and run in parallel.
    """

    _what = "object"  # for messages: "analyzer", "gain control"

    def __init__(self, destroy: Callable[[Any], int], rate: object, channels: object) -> None:
        self._destroy = destroy
        self._lock = threading.RLock()
        self._pointer: Optional[ctypes.c_void_p] = None
        self._busy = False  # inside a library call that may call back into Python
        self._rate = whole("rate", rate)
        self._channels = whole("channels", channels)

    def _open(self, function: Callable[..., int], *args: Any) -> None:
        """Creates the handle: function(rate, channels, *args, &pointer)."""
        pointer = ctypes.c_void_p()
        check(function(self._rate, self._channels, *args, ctypes.byref(pointer)))
        self._pointer = pointer

    @property
    def rate(self) -> int:
        """The input sampling rate in Hz."""
        return self._rate

    @property
    def channels(self) -> int:
        """The interleaved channels each frame of input has."""
        return self._channels

    @property
    def analysis_rate(self) -> int:
        """The rate the input is analysed at (oku.analysis_rate(rate))."""
        return analysis_rate(self._rate)

    def _nonfinite(self, function: Callable[[Any, Any], int]) -> int:
        count = ctypes.c_uint64()
        with self._use() as pointer:
            check(function(pointer, ctypes.byref(count)))
        return count.value

    def _arguments(self) -> Tuple[Tuple[Any, ...], Dict[str, Any]]:
        raise NotImplementedError

    def __reduce__(self) -> Tuple[Any, ...]:
        # Pickled (and copied) as the arguments it was made with: the other
        # side gets a fresh handle, as created, not the audio analysed here.
        args, kwargs = self._arguments()
        return _rebuild, (type(self), args, kwargs)

    @contextmanager
    def _use(self) -> Iterator[ctypes.c_void_p]:
        """The handle, held for one operation."""
        with self._lock:
            if self._busy:
                raise RuntimeError("the %s must not be used from its own log callback" % self._what)
            if self._pointer is None:
                raise ValueError("the %s is closed" % self._what)
            yield self._pointer

    @property
    def closed(self) -> bool:
        """True once close() was called."""
        return self._pointer is None

    def close(self) -> None:
        """Releases the library's handle; calling it again does nothing. Any
        other call afterwards raises ValueError."""
        with self._lock:
            if self._busy:
                raise RuntimeError("the %s must not be closed from its own log callback" % self._what)
            pointer, self._pointer = self._pointer, None
            if pointer is not None:
                self._destroy(pointer)

    def __enter__(self: H) -> H:
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_pointer", None) is not None:
            try:
                self.close()
            except Exception:  # at interpreter exit the library may be gone already
                pass


def _rebuild(cls: Callable[..., Any], args: Tuple[Any, ...], kwargs: Dict[str, Any]) -> Any:
    return cls(*args, **kwargs)
