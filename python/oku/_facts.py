"""The library's facts for front ends, and the checks of arguments built on them."""
import ctypes
import numbers
import warnings
from dataclasses import dataclass
from typing import Any, Callable, List, Optional, Tuple, Union

from ._lib import PARAMS_FN, check, lib

__version__: str = lib.oku_version().decode("ascii")


def _names(function: Callable[[int], Optional[bytes]]) -> Tuple[str, ...]:
    """The names of an enumeration, value 0 first, as far as the library names them."""
    names = []
    while True:
        name = function(len(names))
        if name is None:
            return tuple(names)
        names.append(name.decode("ascii"))


def _rates(function: Callable[[Any], Any]) -> Tuple[int, ...]:
    count = ctypes.c_size_t()
    rates = function(ctypes.byref(count))
    return tuple(rates[i] for i in range(count.value))


INPUT_RATES: Tuple[int, ...] = _rates(lib.oku_input_rates)
"""The sampling rates in Hz that Vad and Agc take, ascending."""
RATES: Tuple[int, ...] = _rates(lib.oku_rates)
"""The rates the services analyse at, ascending: every input rate is converted
to one of them inside the library (analysis_rate)."""
MAX_CHANNELS: int = lib.oku_max_channels()
"""The most interleaved channels a Vad or Agc takes."""
RESULT_TYPES: Tuple[str, ...] = _names(lib.oku_vad_result_name)
"""Names of the analyzer's result types, by value ("none", "speech_start", ...)."""
ASSESSMENTS: Tuple[str, ...] = _names(lib.oku_assessment_name)
"""Names of the volume assessments, by value: "ok", "too_noisy", "too_soft", "too_loud"."""
CONTROLS: Tuple[str, ...] = _names(lib.oku_agc_control_name)
"""Names of the gain control's decisions, by value: "unchanged", "pause_too_low", ..."""

SERVICES = ("vad", "agc")  # OKU_SERVICE_VAD, OKU_SERVICE_AGC
_SERVICE_NAMES = {"vad": "the analyzer", "agc": "the gain control"}
_SETTING_TYPES = ("int", "real")  # OKU_SETTING_INT, OKU_SETTING_REAL


def nearest_rate(rate: float) -> int:
    """The analysis rate nearest to `rate` (44100 -> 22050), or 0 when rate is
    not a positive finite number."""
    return int(lib.oku_nearest_rate(float(rate)))


def analysis_rate(rate: float) -> int:
    """The rate at which input of `rate` Hz is analysed (48000 -> 16000,
    44100 -> 22050), or 0 when rate is not one of INPUT_RATES."""
    return int(lib.oku_analysis_rate(float(rate)))


def _is_number(value: object) -> bool:
    return isinstance(value, numbers.Real) and not isinstance(value, bool)


def whole(name: str, value: object, c_type: Any = ctypes.c_int) -> int:
    """`value` as an int for an argument of c_type: TypeError for anything but
    an int (or a float with no fraction), ValueError beyond c_type's range; the
    library checks the rest."""
    if isinstance(value, bool) or not isinstance(value, (numbers.Integral, float)):
        raise TypeError("%s must be an int, not %s" % (name, type(value).__name__))
    if isinstance(value, float) and not value.is_integer():
        raise ValueError("%s must be a whole number, not %r" % (name, value))
    n, bits = int(value), 8 * ctypes.sizeof(c_type)
    if not -2 ** (bits - 1) <= n < 2 ** (bits - 1):
        raise ValueError("%s %d is out of range" % (name, n))
    return n


def _service(service: str) -> int:
    if service not in SERVICES:
        raise ValueError("service must be 'vad' or 'agc', not %r" % (service,))
    return SERVICES.index(service)


def encode_params(params: Optional[str]) -> Optional[bytes]:
    """A parameter string as the library takes it (None for the defaults)."""
    if params is None:
        return None
    if not isinstance(params, str):
        raise TypeError("params must be a str (\"Key=Value;...\") or None, not %s" % type(params).__name__)
    if "\0" in params:
        raise ValueError("params must not contain a NUL character")
    return params.encode("utf-8")


def params_entries(params: Optional[str]) -> List[Tuple[str, str]]:
    """The (key, value) entries of a parameter string as the services read it:
    empty entries skipped, the first of a repeated key kept, keys in byte
    order. ValueError for a malformed string."""
    entries = []

    def take(_user, key, value):
        entries.append((key.decode("utf-8", "replace"), value.decode("utf-8", "replace")))

    check(lib.oku_params_entries(encode_params(params), PARAMS_FN(take), None))
    return entries


def check_params(service: str, params: Optional[str]) -> None:
    """Checks a parameter string for "vad" or "agc" as creating one would:
    ValueError with the library's message when the service would refuse it."""
    check(lib.oku_params_check(_service(service), encode_params(params)))


def unknown_keys(service: str, params: Optional[str]) -> List[str]:
    """The keys of a parameter string that no setting of "vad" or "agc" has (a
    misspelt key, or one meant for the other service), in byte order: the
    service ignores them. ValueError for a malformed string."""
    keys: List[str] = []

    def take(_user, key, _value):
        keys.append(key.decode("utf-8", "replace"))

    check(lib.oku_params_unknown(_service(service), encode_params(params), PARAMS_FN(take), None, None))
    return keys


def chunk_samples(rate: float, chunk_ms: float) -> int:
    """The samples in a chunk of chunk_ms at rate, rounded as every front end
    of the library rounds them: halves up (0.3125 ms at 8000 Hz gives 3).
    ValueError for a chunk of no sample or a value that is not positive and finite."""
    samples = ctypes.c_size_t()
    check(lib.oku_chunk_samples(float(rate), float(chunk_ms), ctypes.byref(samples)))
    return samples.value


def warn_unknown_keys(service: str, params: Optional[str], stacklevel: int) -> None:
    """A warning for each key of `params` that the service does not read (a
    misspelt key would otherwise be ignored without a word)."""
    if not params:
        return
    for key in unknown_keys(service, params):
        warnings.warn("params: %r is not a setting of %s; it is ignored" % (key, _SERVICE_NAMES[service]),
                      stacklevel=stacklevel + 1)


@dataclass(frozen=True)
class Setting:
    """One setting of a service, as its parameter string sets it."""

    key: str        #: the parameter string key, e.g. "EOSTimeoutMs"
    name: str       #: the same, lower case and hyphenated: "eos-timeout-ms"
    unit: str       #: "ms", "dB", "dBFS", "dB per 100 ms", or "" for a plain number
    meaning: str    #: one line of English
    type: str       #: "int" or "real"
    default: Union[int, float]  #: what the service takes when the key is absent (an int for an "int" setting)


def settings(service: str) -> Tuple[Setting, ...]:
    """Every setting of "vad" (the analyzer) or "agc" (the gain control), in
    the order the service reads them, with the defaults the service uses."""
    count = ctypes.c_size_t()
    table = lib.oku_settings(_service(service), ctypes.byref(count))
    out = []
    for e in (table[i] for i in range(count.value)):
        kind = _SETTING_TYPES[e.type]
        out.append(Setting(e.key.decode(), e.name.decode(), e.unit.decode(), e.meaning.decode(), kind,
                           int(e.default_value) if kind == "int" else e.default_value))
    return tuple(out)


def gain_from_volume(volume: int, bound: int) -> float:
    """A host's volume (0 to bound) as a gain from 0 to 1, converted exactly as
    the library's plain gain-control functions convert it."""
    gain = ctypes.c_double()
    volume, bound = whole("volume", volume, ctypes.c_long), whole("bound", bound, ctypes.c_long)
    check(lib.oku_gain_from_volume(volume, bound, ctypes.byref(gain)))
    return gain.value


def volume_from_gain(gain: float, bound: int) -> int:
    """A gain (0 to 1) as a host's volume from 0 to bound, converted exactly as
    the library's plain gain-control functions convert it."""
    volume = ctypes.c_long()
    check(lib.oku_volume_from_gain(check_gain(gain), whole("bound", bound, ctypes.c_long), ctypes.byref(volume)))
    return volume.value


def check_gain(gain: object) -> float:
    """`gain` as a float, for the library to check that it lies in 0 to 1
    (TypeError for anything but a number)."""
    if not _is_number(gain):
        raise TypeError("gain must be a number from 0 to 1, not %s" % type(gain).__name__)
    try:
        return float(gain)  # type: ignore[arg-type]
    except OverflowError:
        raise ValueError("gain must lie in [0, 1], not %r" % (gain,)) from None
