"""Speech segments of audio files, read as the oku command reads them.

Files are read with libsndfile through the soundfile package (an optional
dependency: pip install oku[files], or Debian's python3-soundfile), MPEG audio
with libmpg123. The samples go to the library as the file holds them: 16-bit
PCM as 16-bit ints, every other encoding as the 32-bit floats the decoder
gives, at the file's own rate and channels. The command follows the same rule,
so both give the same segments for the same file, bit for bit.
"""
import ctypes
import ctypes.util
import errno
import os
import struct
import warnings
from dataclasses import dataclass
from typing import Any, Iterator, Optional, Tuple

from ._facts import check_params, chunk_samples
from ._vad import SEGMENTS_CHUNK_MS, Segment, Vad


@dataclass(frozen=True)
class FileSegments:
    """The speech segments of one file, with what was read of it."""

    path: str                       #: the file, as given
    rate: int                       #: its sampling rate in Hz: segment positions count in frames at it
    channels: int                   #: its channels (mixed to mono for the analysis)
    frames: int                     #: frames decoded
    declared_frames: Optional[int]  #: frames its header declares (WAV), None when it declares none
    segments: Tuple[Segment, ...]   #: the speech segments, in order

    @property
    def duration_s(self) -> float:
        """Seconds decoded."""
        return self.frames / self.rate


def segment_file(path: "os.PathLike[str] | str", params: Optional[str] = None, *,
                 max_ms: Optional[float] = None) -> FileSegments:
    """The speech segments of an audio file: any format libsndfile reads, and
    MPEG audio (MP3) read whole with libmpg123, at any rate of INPUT_RATES
    with up to MAX_CHANNELS channels. params and max_ms as for Vad and
    Vad.segments; each file gets a fresh analyzer, so the result does not
    depend on what else was cut before it or where.

    The file is read in blocks, so memory stays small for any length.
    OSError for a file that cannot be opened (missing, a folder, no
    permission); ValueError for one whose contents cannot be used (not audio,
    a rate the library does not take, no audio, a read error part way); a
    UserWarning when a WAV file holds fewer frames than its header declares
    (FileSegments tells both); ImportError without the soundfile package.
    """
    check_params("vad", params)
    source = _open(path)
    try:
        try:
            vad = Vad(source.rate, params, channels=source.channels)
        except ValueError as e:  # a rate or channel count the library does not take
            raise ValueError("%s: %s" % (source.path, e)) from None
        pointer = ctypes.POINTER(ctypes.c_float if source.floats else ctypes.c_int16)
        blocks = ((b.ctypes.data_as(pointer), b.size) for b in source.blocks(SEGMENTS_CHUNK_MS))
        with vad:
            segments = vad._cut(blocks, source.floats, max_ms)
    finally:
        source.close()
    source.check_length()
    return FileSegments(source.path, source.rate, source.channels, source.frames, source.declared, tuple(segments))


def read_file(path: "os.PathLike[str] | str") -> Tuple[Any, int]:
    """The samples of an audio file as segment_file hands them to the library,
    and its rate: a numpy array of one row per frame and one column per
    channel, int16 for 16-bit PCM and float32 for everything else, for
    Vad.process or Agc.process in chunks of your own. The whole file is read
    into memory. Errors and warnings as segment_file's."""
    import numpy
    source = _open(path)
    try:
        blocks = [b.copy() for b in source.blocks(1000.0)]
    finally:
        source.close()
    source.check_length()
    return numpy.concatenate(blocks), source.rate


class _Source:
    """An open file: its rate, channels and sample kind, and its blocks as
    numpy arrays of frames x channels (int16 or float32)."""

    rate = channels = frames = 0
    floats = True
    declared: Optional[int] = None

    def __init__(self, path: str) -> None:
        self.path = path

    def blocks(self, ms: float) -> Iterator[Any]:
        """Blocks of `ms` each (the last may be shorter), valid until the next one."""
        raise NotImplementedError

    def close(self) -> None:
        raise NotImplementedError

    def check_length(self) -> None:
        """After the last block: ValueError for no audio, a warning for fewer
        frames than the header declares."""
        if self.frames == 0:
            raise ValueError("%s: no audio in it (empty)" % self.path)
        if self.declared is not None and self.declared != self.frames:
            warnings.warn("%s: %d frames decoded, its header declares %d (a truncated file?)"
                          % (self.path, self.frames, self.declared), stacklevel=3)


class _SoundFile(_Source):
    def __init__(self, path: str, file: Any) -> None:
        super().__init__(path)
        self._file = file
        self.rate, self.channels = file.samplerate, file.channels
        self.floats = file.subtype != "PCM_16"
        # A FLAC file's stream information and a WAV file's data chunk declare a length.
        self.declared = file.frames if file.format == "FLAC" else _wav_declared_frames(path)

    def blocks(self, ms: float) -> Iterator[Any]:
        frames = chunk_samples(self.rate, ms)
        while True:
            try:
                block = self._file.read(frames, dtype="float32" if self.floats else "int16", always_2d=True)
            except RuntimeError as e:  # soundfile's LibsndfileError
                raise ValueError("%s: cannot read it to the end (%s after %d of %d frames)"
                                 % (self.path, e, self.frames, self._file.frames)) from None
            if len(block) == 0:
                return
            self.frames += len(block)
            yield block

    def close(self) -> None:
        self._file.close()


def _open(path: "os.PathLike[str] | str") -> _Source:
    path = os.fspath(path)
    if os.path.isdir(path):
        raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), path)
    with open(path, "rb"):  # the file system's own error for a missing or unreadable file
        pass
    try:
        import soundfile
    except ImportError:
        raise ImportError("oku.segment_file reads files with the soundfile package: pip install 'oku[files]', "
                          "or on Debian apt install python3-soundfile") from None
    try:
        f = soundfile.SoundFile(path)
    except RuntimeError as e:  # soundfile's LibsndfileError
        raise ValueError("%s: not an audio file libsndfile can read (%s)" % (path, e)) from None
    if f.format == "MP3":
        f.close()
        return _Mpeg(path)
    return _SoundFile(path, f)


# WAV encodings of one block per frame (PCM, float, A-law, mu-law), whose
# data chunk's size gives the frames; and the sizes streaming writers leave
# for "as long as it goes" (0x7FFFF000 is espeak-ng --stdout's).
_WAV_FRAME_BLOCKS = (1, 3, 6, 7)
_WAV_OPEN_SIZES = (0, 0x7FFFF000, 0x7FFFFFFF, 0xFFFFFFFF)


def _wav_declared_frames(path: str) -> Optional[int]:
    """The frames a RIFF WAV header declares in its data chunk (as the oku
    command reads it), or None when it declares none (a length left open by a
    streaming writer, an encoding of blocks of many frames) or cannot be read."""
    with open(path, "rb") as f:
        head = f.read(12)
        if len(head) < 12 or head[:4] != b"RIFF" or head[8:12] != b"WAVE":
            return None
        tag = align = 0
        for _ in range(256):
            chunk = f.read(8)
            if len(chunk) < 8:
                return None
            kind, size = chunk[:4], struct.unpack("<I", chunk[4:])[0]
            if kind == b"data":
                frames = tag in _WAV_FRAME_BLOCKS and align > 0 and size not in _WAV_OPEN_SIZES
                return size // align if frames else None
            body = f.read(size + (size & 1)) if kind == b"fmt " else f.seek(size + (size & 1), os.SEEK_CUR)
            if kind == b"fmt " and len(body) >= 16:
                tag, align = struct.unpack("<H", body[0:2])[0], struct.unpack("<H", body[12:14])[0]
                if tag == 0xFFFE and len(body) >= 26:  # WAVE_FORMAT_EXTENSIBLE: the subformat's tag
                    tag = struct.unpack("<H", body[24:26])[0]
    return None


# libmpg123, from its header mpg123.h.
_MPG123_ADD_FLAGS, _MPG123_QUIET = 2, 0x20
_MPG123_MONO_OR_STEREO, _MPG123_ENC_FLOAT_32 = 1 | 2, 0x200
_MPG123_OK, _MPG123_NEW_FORMAT, _MPG123_DONE = 0, -11, -12
_mpg123: Any = None


def _load_mpg123() -> Any:
    global _mpg123
    if _mpg123 is None:
        name = ctypes.util.find_library("mpg123")
        if name is None:
            return None
        m = ctypes.CDLL(name)
        p, c_long_p = ctypes.c_void_p, ctypes.POINTER(ctypes.c_long)
        for function, restype, argtypes in (
                ("mpg123_init", ctypes.c_int, []),
                ("mpg123_new", p, [ctypes.c_char_p, ctypes.POINTER(ctypes.c_int)]),
                ("mpg123_delete", None, [p]),
                ("mpg123_param", ctypes.c_int, [p, ctypes.c_int, ctypes.c_long, ctypes.c_double]),
                ("mpg123_rates", None, [ctypes.POINTER(c_long_p), ctypes.POINTER(ctypes.c_size_t)]),
                ("mpg123_format_none", ctypes.c_int, [p]),
                ("mpg123_format", ctypes.c_int, [p, ctypes.c_long, ctypes.c_int, ctypes.c_int]),
                ("mpg123_open", ctypes.c_int, [p, ctypes.c_char_p]),
                ("mpg123_getformat", ctypes.c_int, [p, c_long_p, ctypes.POINTER(ctypes.c_int),
                                                    ctypes.POINTER(ctypes.c_int)]),
                ("mpg123_read", ctypes.c_int, [p, p, ctypes.c_size_t, ctypes.POINTER(ctypes.c_size_t)]),
                ("mpg123_close", ctypes.c_int, [p]),
                ("mpg123_strerror", ctypes.c_char_p, [p]),
                ("mpg123_plain_strerror", ctypes.c_char_p, [ctypes.c_int])):
            getattr(m, function).restype = restype
            getattr(m, function).argtypes = argtypes
        m.mpg123_init()  # needed before 1.27, a no-op since
        _mpg123 = m
    return _mpg123


class _Mpeg(_Source):
    """MPEG audio decoded by libmpg123 to the end of the stream, in floats at
    the stream's own rate and channels. libsndfile reads such files only as
    far as the length it estimates from the first frame, which is too short
    for a file of variable bit rate without a header giving the length."""

    def __init__(self, path: str) -> None:
        super().__init__(path)
        m = _load_mpg123()
        if m is None:
            raise ValueError("%s: MPEG audio is read with libmpg123, which is not installed (libsndfile alone "
                             "may stop short of the end)" % path)
        error = ctypes.c_int()
        self._handle = m.mpg123_new(None, ctypes.byref(error))
        if not self._handle:
            raise ValueError("%s: cannot decode MPEG audio: %s" % (path, m.mpg123_plain_strerror(error.value)))
        try:
            self._start(m)
        except BaseException:
            m.mpg123_delete(self._handle)
            raise

    def _start(self, m: Any) -> None:
        h = self._handle
        m.mpg123_param(h, _MPG123_ADD_FLAGS, _MPG123_QUIET, 0.0)  # problems as statuses, not on stderr
        rates, count = ctypes.POINTER(ctypes.c_long)(), ctypes.c_size_t()
        m.mpg123_rates(ctypes.byref(rates), ctypes.byref(count))
        m.mpg123_format_none(h)
        for i in range(count.value):
            m.mpg123_format(h, rates[i], _MPG123_MONO_OR_STEREO, _MPG123_ENC_FLOAT_32)
        rate, channels, encoding = ctypes.c_long(), ctypes.c_int(), ctypes.c_int()
        if (m.mpg123_open(h, os.fsencode(self.path)) != _MPG123_OK
                or m.mpg123_getformat(h, ctypes.byref(rate), ctypes.byref(channels), ctypes.byref(encoding))
                != _MPG123_OK):
            raise ValueError("%s: cannot decode MPEG audio: %s" % (self.path, self._error(m)))
        m.mpg123_format_none(h)  # one format for the whole stream
        m.mpg123_format(h, rate.value, channels.value, encoding.value)
        self.rate, self.channels = rate.value, channels.value

    def _error(self, m: Any) -> str:
        return m.mpg123_strerror(self._handle).decode("utf-8", "replace")

    def blocks(self, ms: float) -> Iterator[Any]:
        import numpy
        m = _mpg123
        buffer = numpy.empty((chunk_samples(self.rate, ms), self.channels), numpy.float32)
        done = ctypes.c_size_t()
        while True:
            status = m.mpg123_read(self._handle, buffer.ctypes.data, buffer.nbytes, ctypes.byref(done))
            if done.value >= buffer.itemsize * self.channels:
                frames = done.value // (buffer.itemsize * self.channels)
                self.frames += frames
                yield buffer[:frames]
            elif status == _MPG123_DONE:
                return
            elif status not in (_MPG123_OK, _MPG123_NEW_FORMAT):
                raise ValueError("%s: cannot decode: %s" % (self.path, self._error(m)))

    def close(self) -> None:
        _mpg123.mpg123_close(self._handle)
        _mpg123.mpg123_delete(self._handle)
