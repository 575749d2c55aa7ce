"""Finding and loading libOKUVAD, and the ctypes view of its C interface (oku.h).

The library is looked for in this order, and the first place that has one is
the one used (a library that fails to load or to match is an error, not a
reason to take the next one):

1. the copy inside the package, put there when the package was built;
2. the file named by the environment variable OKU_LIBRARY (a file, not a
   folder: for a build tree, OKU_LIBRARY=build/libOKUVAD.so);
3. the system's, as ctypes.util.find_library("OKUVAD") finds it.

Nowhere else. Once loaded, the library must report the version the package
was built for (when the package was built; a source tree takes the library's)
and the same size for every structure mirrored here.
"""
import ctypes
import ctypes.util
import os
from typing import Any, Dict, List, Optional, Tuple

try:
    from . import _built  # written by the build: the library's file name and version
except ImportError:  # the package as it is in the source tree
    _built = None  # type: ignore[assignment]

ENV_VAR = "OKU_LIBRARY"


class OkuError(RuntimeError):
    """A failure inside the library that is not the caller's (out of memory, or worse)."""


class VadResult(ctypes.Structure):
    """oku_vad_result."""

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
    """oku_agc_decision."""

    _fields_ = [
        ("control", ctypes.c_int32),
        ("updated", ctypes.c_int32),
        ("time_ms", ctypes.c_double),
        ("pause_db", ctypes.c_float),
        ("speech_db", ctypes.c_float),
        ("changed", ctypes.c_int32),
        ("reserved", ctypes.c_int32),
    ]


class VadSegment(ctypes.Structure):
    """oku_vad_segment."""

    _fields_ = [
        ("start", ctypes.c_int64),
        ("end", ctypes.c_int64),
        ("start_ms", ctypes.c_double),
        ("end_ms", ctypes.c_double),
    ]


class SettingEntry(ctypes.Structure):
    """oku_setting."""

    _fields_ = [
        ("key", ctypes.c_char_p),
        ("name", ctypes.c_char_p),
        ("unit", ctypes.c_char_p),
        ("meaning", ctypes.c_char_p),
        ("type", ctypes.c_int32),
        ("reserved", ctypes.c_int32),
        ("default_value", ctypes.c_double),
    ]


# The structures mirrored here, by their C names (see oku_struct_size).
STRUCTURES = {"oku_vad_result": VadResult, "oku_agc_decision": AgcDecision, "oku_setting": SettingEntry,
              "oku_vad_segment": VadSegment}

LOG_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p)
PARAMS_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p)

_c_int, _c_double, _c_size_t, _c_char_p = ctypes.c_int, ctypes.c_double, ctypes.c_size_t, ctypes.c_char_p
_handle = ctypes.c_void_p
_samples = ctypes.POINTER(ctypes.c_int16)
_floats = ctypes.POINTER(ctypes.c_float)
_size_p = ctypes.POINTER(ctypes.c_size_t)
_count_p = ctypes.POINTER(ctypes.c_uint64)
_segment_p = ctypes.POINTER(VadSegment)
SIGNATURES: Dict[str, Tuple[Any, List[Any]]] = {
    "oku_status_message": (_c_char_p, [_c_int]),
    "oku_status_name": (_c_char_p, [_c_int]),
    "oku_last_error": (_c_char_p, []),
    "oku_version": (_c_char_p, []),
    "oku_struct_size": (_c_size_t, [_c_char_p]),
    "oku_rates": (ctypes.POINTER(_c_int), [_size_p]),
    "oku_input_rates": (ctypes.POINTER(_c_int), [_size_p]),
    "oku_analysis_rate": (_c_int, [_c_double]),
    "oku_max_channels": (_c_int, []),
    "oku_nearest_rate": (_c_int, [_c_double]),
    "oku_vad_result_name": (_c_char_p, [_c_int]),
    "oku_assessment_name": (_c_char_p, [_c_int]),
    "oku_agc_control_name": (_c_char_p, [_c_int]),
    "oku_gain_from_volume": (_c_int, [ctypes.c_long, ctypes.c_long, ctypes.POINTER(_c_double)]),
    "oku_volume_from_gain": (_c_int, [_c_double, ctypes.c_long, ctypes.POINTER(ctypes.c_long)]),
    "oku_settings": (ctypes.POINTER(SettingEntry), [_c_int, _size_p]),
    "oku_params_check": (_c_int, [_c_int, _c_char_p]),
    "oku_params_entries": (_c_int, [_c_char_p, PARAMS_FN, ctypes.c_void_p]),
    "oku_params_unknown": (_c_int, [_c_int, _c_char_p, PARAMS_FN, ctypes.c_void_p, _size_p]),
    "oku_chunk_samples": (_c_int, [_c_double, _c_double, _size_p]),
    "oku_vad_open": (_c_int, [_c_int, _c_int, _c_char_p, ctypes.c_uint, ctypes.POINTER(_handle)]),
    "oku_vad_process": (_c_int, [_handle, _samples, _c_size_t]),
    "oku_vad_process_f32": (_c_int, [_handle, _floats, _c_size_t]),
    "oku_vad_process_many": (_c_int, [ctypes.POINTER(_handle), ctypes.POINTER(_samples), _size_p, _c_size_t]),
    "oku_vad_process_many_f32": (_c_int, [ctypes.POINTER(_handle), ctypes.POINTER(_floats), _size_p, _c_size_t]),
    "oku_vad_nonfinite": (_c_int, [_handle, _count_p]),
    "oku_vad_take": (_c_int, [_handle, ctypes.POINTER(VadResult), _segment_p]),
    "oku_vad_split": (_c_int, [_handle, _segment_p, _c_double, _segment_p, _c_size_t, _size_p]),
    "oku_vad_flush": (_c_int, [_handle]),
    "oku_vad_reset": (_c_int, [_handle]),
    "oku_vad_destroy": (_c_int, [_handle]),
    "oku_agc_open": (_c_int, [_c_int, _c_int, _c_char_p, ctypes.c_uint, ctypes.POINTER(_handle)]),
    "oku_agc_process": (_c_int, [_handle, _samples, _c_size_t, _c_double, ctypes.POINTER(_c_double)]),
    "oku_agc_process_f32": (_c_int, [_handle, _floats, _c_size_t, _c_double, ctypes.POINTER(_c_double)]),
    "oku_agc_nonfinite": (_c_int, [_handle, _count_p]),
    "oku_agc_info": (_c_int, [_handle, ctypes.POINTER(AgcDecision)]),
    "oku_agc_set_log": (_c_int, [_handle, LOG_FN, ctypes.c_void_p]),
    "oku_agc_destroy": (_c_int, [_handle]),
}


def candidate(package_folder: str, environ: Dict[str, str]) -> Tuple[Optional[str], List[str]]:
    """The library to load, or None, and a line for each place looked at."""
    tried = []
    if _built is not None:
        path = os.path.join(package_folder, _built.LIBRARY)
        if os.path.isfile(path):
            return path, tried
        tried.append("the package's copy %s: not there" % path)
    else:
        tried.append("the package's copy: none (the package was not built)")
    value = environ.get(ENV_VAR, "")
    if value:
        path = os.path.abspath(value)  # a bare name would make the loader search the system
        if os.path.isfile(path):
            return path, tried
        problem = "is a folder; it must name the library file itself" if os.path.isdir(path) else "no such file"
        tried.append("%s=%s: %s" % (ENV_VAR, value, problem))
        return None, tried
    tried.append("%s: not set" % ENV_VAR)
    found = ctypes.util.find_library("OKUVAD")
    if found:
        return found, tried
    tried.append('ctypes.util.find_library("OKUVAD"): nothing found')
    return None, tried


def mismatches(lib: Any, version: Optional[str], structures: Dict[str, Any]) -> List[str]:
    """What differs between a loaded library and this package: its version (when
    the package knows the one it was built for) and each mirrored structure's size."""
    problems = []
    have = lib.oku_version().decode("ascii", "replace")
    if version is not None and have != version:
        problems.append("the library is version %s, the package %s" % (have, version))
    for name, structure in structures.items():
        size = lib.oku_struct_size(name.encode())
        if size != ctypes.sizeof(structure):
            problems.append("%s is %d bytes in the library, %d in the package"
                            % (name, size, ctypes.sizeof(structure)))
    return problems


def load() -> Tuple[Any, str]:
    """The library, with every function of SIGNATURES declared, and where it came from."""
    path, tried = candidate(os.path.dirname(os.path.abspath(__file__)), dict(os.environ))
    if path is None:
        raise ImportError("oku: cannot find libOKUVAD (install the package with pip, or set %s to the "
                          "library file); tried: %s" % (ENV_VAR, "; ".join(tried)))
    try:
        lib = ctypes.CDLL(path)
    except OSError as e:
        raise ImportError("oku: cannot load %s: %s" % (path, e)) from None
    for name, (restype, argtypes) in SIGNATURES.items():
        try:
            function = getattr(lib, name)
        except AttributeError:
            raise ImportError("oku: %s has no function %s: not a libOKUVAD this package can use"
                              % (path, name)) from None
        function.restype = restype
        function.argtypes = argtypes
    problems = mismatches(lib, _built.VERSION if _built is not None else None, STRUCTURES)
    if problems:
        raise ImportError("oku: %s does not match this package: %s" % (path, "; ".join(problems)))
    return lib, path


lib, LIBRARY_PATH = load()
"""The library (a ctypes.CDLL) and where it was loaded from: a path, or for the
system's library the name ctypes.util.find_library gave."""


# The exception for each status the library names (oku_status_name): a caller's
# mistake is a ValueError, running out of memory a MemoryError, anything else
# (a null handle cannot come from this package) an OkuError.
_ERRORS_BY_NAME = {"argument": ValueError, "rate": ValueError, "params": ValueError, "memory": MemoryError}


def _errors() -> Dict[int, type]:
    table = {}
    status = -1
    while True:
        name = lib.oku_status_name(status)
        if name is None:
            return table
        table[status] = _ERRORS_BY_NAME.get(name.decode("ascii"), OkuError)
        status -= 1


ERRORS = _errors()


def check(status: int) -> None:
    """Turns a failed status into the exception of ERRORS, carrying the library's message."""
    if status == 0:
        return
    message = (lib.oku_last_error() or lib.oku_status_message(status)).decode("utf-8", "replace")
    error = ERRORS.get(status, OkuError)
    raise error("%s (status %d)" % (message, status) if error is OkuError else message)
