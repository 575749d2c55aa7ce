"""Voice-activity analyzer and automatic gain control for speech audio.

    >>> import oku
    >>> cut = oku.segment_file("talk.flac")              # a file, any format libsndfile reads
    >>> samples, rate = oku.read_file("talk.flac")       # its samples, as segment_file reads them
    >>> with oku.Vad(48000, channels=2) as vad:          # a whole recording in memory
    ...     for seg in vad.segments(samples):
    ...         print(seg.start_ms, seg.end_ms)
    >>> vad = oku.Vad(16000)
    >>> results = vad.process(chunk)                     # or chunk by chunk
    >>> per_stream = oku.process_many(vads, chunks)      # many analyzers in one call
    >>> agc = oku.Agc(16000)
    >>> gain, decision = agc.process(chunk, gain)        # the gain to apply next, and why

Audio is taken as devices and files deliver it, at any rate of INPUT_RATES
with up to MAX_CHANNELS interleaved channels: signed 16-bit ints (bytes of
little-endian PCM, array('h'), a list or tuple of ints, a numpy int16 array)
or floats of full scale -1 to 1 (array('f'), a numpy float32 array; 64-bit
floats are rounded to 32-bit first), one-dimensional and interleaved, or two-
dimensional with one row per frame. The library mixes the channels down,
rounds floats and converts the rate, by one rule for every front end
(docs/c-api.md, "Input"); positions count in input frames at the input rate.
Settings are the library's parameter string ("EOSTimeoutMs=600;...";
see settings()). Bad input raises TypeError or ValueError (with the library's
message for rates, channels, parameter strings and gains).

Each object owns one analyzer or gain control of libOKUVAD; objects are
independent and may each run on a thread of their own, and pickle as a fresh
object with the same arguments. The package loads the library from its own
folder (a built package carries a copy), else the file named by the
environment variable OKU_LIBRARY, else the system's (ctypes.util.find_library),
and checks that its version and structures match.
"""
from ._agc import Agc, Decision
from ._facts import (ASSESSMENTS, CONTROLS, INPUT_RATES, MAX_CHANNELS, RATES, RESULT_TYPES, Setting, __version__,
                     analysis_rate, check_params, chunk_samples, gain_from_volume, nearest_rate, settings,
                     unknown_keys, volume_from_gain)
from ._files import FileSegments, read_file, segment_file
from ._lib import LIBRARY_PATH, OkuError
from ._vad import Frame, Result, Segment, SpeechEnd, SpeechStart, Vad, Volume, process_many, to_segments

__all__ = [
    "Vad", "Agc", "process_many", "segment_file", "read_file", "FileSegments",
    "SpeechStart", "SpeechEnd", "Volume", "Frame", "Result", "Segment", "Decision", "to_segments",
    "INPUT_RATES", "RATES", "MAX_CHANNELS", "RESULT_TYPES", "ASSESSMENTS", "CONTROLS", "analysis_rate",
    "nearest_rate", "Setting", "settings", "check_params", "unknown_keys", "chunk_samples", "gain_from_volume",
    "volume_from_gain", "OkuError", "LIBRARY_PATH", "__version__",
]
