"""WebRTC's VAD (Debian's libwebrtc-audio-processing) with the collector most
of its users put after it, for comparison.

The VAD judges each 30 ms frame. The collector keeps the last PADDING_MS of
judgements in a ring: out of speech, it starts a segment at the ring's oldest
frame once more than 90 % of the ring is voiced; in speech, it ends the
segment at the end of the current frame once more than 90 % is unvoiced, and
starts over with an empty ring. Speech still open at the end of the audio ends
there.
"""
import ctypes
import ctypes.util

FRAME_MS = 30
PADDING_MS = 300
MODE = 3
RATIO = 0.9


def _load():
    names = ["libwebrtc_audio_processing.so", "libwebrtc_audio_processing.so.1"]
    found = ctypes.util.find_library("webrtc_audio_processing")
    for name in ([found] if found else []) + names:
        try:
            lib = ctypes.CDLL(name)
        except OSError:
            continue
        lib.WebRtcVad_Create.restype = ctypes.c_void_p
        lib.WebRtcVad_Free.argtypes = [ctypes.c_void_p]
        lib.WebRtcVad_Init.argtypes = [ctypes.c_void_p]
        lib.WebRtcVad_set_mode.argtypes = [ctypes.c_void_p, ctypes.c_int]
        lib.WebRtcVad_Process.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p, ctypes.c_size_t]
        return lib
    raise OSError("WebRTC's VAD was not found (%s): install libwebrtc-audio-processing-dev" % ", ".join(names))


def decisions(samples, rate, mode=MODE):
    """The VAD's judgement (True: voiced) of each whole 30 ms frame of 16-bit
    mono samples (a numpy int16 array) at rate 8000, 16000, 32000 or 48000."""
    lib = _load()
    vad = lib.WebRtcVad_Create()
    if not vad:
        raise MemoryError("WebRtcVad_Create failed")
    try:
        if lib.WebRtcVad_Init(vad) or lib.WebRtcVad_set_mode(vad, mode):
            raise ValueError("WebRTC's VAD refused mode %d" % mode)
        n = rate * FRAME_MS // 1000
        data = samples.ctypes.data
        out = []
        for i in range(len(samples) // n):
            r = lib.WebRtcVad_Process(vad, rate, data + 2 * i * n, n)
            if r < 0:
                raise ValueError("WebRtcVad_Process failed at frame %d (rate %d)" % (i, rate))
            out.append(r == 1)
        return out
    finally:
        lib.WebRtcVad_Free(vad)


def collect(voiced, frame, padding=PADDING_MS // FRAME_MS, ratio=RATIO):
    """Segments (start, end) in samples from per-frame judgements: see the
    module's help. frame: samples per frame; padding: frames in the ring."""
    segments, ring, start = [], [], None
    for i, v in enumerate(voiced):
        ring.append((i, v))
        if len(ring) > padding:
            ring.pop(0)
        if start is None:
            if sum(x for _, x in ring) > ratio * padding:
                start = ring[0][0] * frame
                ring = []
        elif sum(not x for _, x in ring) > ratio * padding:
            segments.append((start, (i + 1) * frame))
            start, ring = None, []
    if start is not None:
        segments.append((start, len(voiced) * frame))
    return segments


def segments(samples, rate, mode=MODE):
    """WebRTC's VAD and the collector on a recording: segments in samples."""
    return collect(decisions(samples, rate, mode), rate * FRAME_MS // 1000)
