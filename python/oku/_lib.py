"""ctypes bindings of the library's handle functions (oku.h)."""
import ctypes
import ctypes.util
import os

ENV_VAR = "OKU_LIBRARY"
_NAMES = ("libOKUVAD.so.1", "libOKUVAD.so")


class VadResult(ctypes.Structure):
    _fields_ = [
        ("type", ctypes.c_int32),
        ("speech", ctypes.c_int32),
        ("time_ms", ctypes.c_double),
        ("position", ctypes.c_int64),
        ("assessment", ctypes.c_int32),
        ("reserved", ctypes.c_int32),
        ("peak", ctypes.c_double),
        ("level_dbfs", ctypes.c_double),
        ("snr_pct", ctypes.c_double),
        ("frame_index", ctypes.c_int32),
        ("sample_count", ctypes.c_int32),
        ("samples", ctypes.POINTER(ctypes.c_int16)),
    ]


class AgcDecision(ctypes.Structure):
    _fields_ = [
        ("control", ctypes.c_int32),
        ("updated", ctypes.c_int32),
        ("time_ms", ctypes.c_double),
        ("pause_db", ctypes.c_float),
        ("speech_db", ctypes.c_float),
    ]


LOG_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p)


def _candidates():
    """Where the library may be: $OKU_LIBRARY, next to the package (or a few
    folders up, as after `cmake --install`), then the system's search path."""
    env = os.environ.get(ENV_VAR)
    if env:
        yield env
    here = os.path.dirname(os.path.abspath(__file__))
    folder = here
    for _ in range(5):
        for name in _NAMES:
            yield os.path.join(folder, name)
        folder = os.path.dirname(folder)
    found = ctypes.util.find_library("OKUVAD")
    if found:
        yield found


def load():
    tried = []
    for path in _candidates():
        if path != os.path.basename(path) and not os.path.exists(path):
            tried.append(path)
            continue
        try:
            lib = ctypes.CDLL(path)
            break
        except OSError as e:
            tried.append("%s (%s)" % (path, e))
    else:
        raise ImportError("cannot find libOKUVAD; set %s to its path (tried: %s)" % (ENV_VAR, ", ".join(tried)))

    c_int, c_double, c_size_t = ctypes.c_int, ctypes.c_double, ctypes.c_size_t
    vad_p, agc_p, i16_p = ctypes.c_void_p, ctypes.c_void_p, ctypes.POINTER(ctypes.c_int16)
    signatures = {
        "oku_status_message": (ctypes.c_char_p, [c_int]),
        "oku_last_error": (ctypes.c_char_p, []),
        "oku_vad_create_ex": (c_int, [c_double, ctypes.c_char_p, ctypes.c_uint, ctypes.POINTER(vad_p)]),
        "oku_vad_process": (c_int, [vad_p, i16_p, c_size_t]),
        "oku_vad_results": (c_int, [vad_p, ctypes.POINTER(VadResult), c_size_t, ctypes.POINTER(c_size_t)]),
        "oku_vad_flush": (c_int, [vad_p]),
        "oku_vad_reset": (c_int, [vad_p]),
        "oku_vad_destroy": (c_int, [vad_p]),
        "oku_agc_create": (c_int, [c_int, ctypes.c_char_p, ctypes.POINTER(agc_p)]),
        "oku_agc_process": (c_int, [agc_p, i16_p, c_size_t, c_double, ctypes.POINTER(c_double)]),
        "oku_agc_info": (c_int, [agc_p, ctypes.POINTER(AgcDecision)]),
        "oku_agc_set_log": (c_int, [agc_p, LOG_FN, ctypes.c_void_p]),
        "oku_agc_destroy": (c_int, [agc_p]),
    }
    for name, (restype, argtypes) in signatures.items():
        f = getattr(lib, name)
        f.restype = restype
        f.argtypes = argtypes
    return lib


lib = load()
