"""Voice-activity analyzer and automatic gain control for 16-bit speech audio.

    >>> import oku
    >>> with oku.Vad(16000) as vad:                      # a whole recording
    ...     for seg in vad.segments(samples):
    ...         print(seg.start_ms, seg.end_ms)
    >>> vad = oku.Vad(16000)
    >>> results = vad.process(chunk)                     # or chunk by chunk
    >>> per_stream = oku.process_many(vads, chunks)      # many analyzers in one call
    >>> agc = oku.Agc(16000)
    >>> gain, decision = agc.process(chunk, gain)        # the gain to apply next, and why

Samples are mono signed 16-bit: bytes (little-endian PCM), array('h'), a list
or tuple of ints, or any one-dimensional buffer of signed 16-bit items in
native byte order (a numpy int16 array, for instance). Several channels are
refused: mix them down first. Rates are ints from RATES (8000, 11025, 16000,
22050 Hz). Settings are the library's parameter string ("EOSTimeoutMs=600;...";
see settings()). Bad input raises TypeError or ValueError (with the library's
message for rates, parameter strings and gains).

Each object owns one analyzer or gain control of libOKUVAD; objects are
independent and may each run on a thread of their own. The package loads the
library from its own folder (a built package carries a copy), else the file
named by the environment variable OKU_LIBRARY, else the system's
(ctypes.util.find_library), and checks that its version and structures match.
"""
from ._agc import Agc, Decision
from ._facts import (ASSESSMENTS, CONTROLS, RATES, RESULT_TYPES, Setting, __version__, check_params,
                     chunk_samples, gain_from_volume, nearest_rate, settings, unknown_keys, volume_from_gain)
from ._lib import LIBRARY_PATH, OkuError
from ._vad import Frame, Result, Segment, SpeechEnd, SpeechStart, Vad, Volume, process_many, to_segments

__all__ = [
    "Vad", "Agc", "process_many",
    "SpeechStart", "SpeechEnd", "Volume", "Frame", "Result", "Segment", "Decision", "to_segments",
    "RATES", "RESULT_TYPES", "ASSESSMENTS", "CONTROLS", "nearest_rate",
    "Setting", "settings", "check_params", "unknown_keys", "chunk_samples", "gain_from_volume", "volume_from_gain",
    "OkuError", "LIBRARY_PATH", "__version__",
]
