"""What the package's tests share: the package of this source tree over the
library named by OKU_LIBRARY (make test sets it), the generated recordings of
tests/testaudio.py, and numpy when it is there. No byte code is written."""
import os
import sys

__all__ = ["ROOT", "oku", "numpy", "BURSTS", "EXPECTED", "signal", "write_wav"]

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "python"))
sys.path.insert(0, os.path.join(ROOT, "tests"))

import oku  # noqa: E402,F401
from testaudio import BURSTS, EXPECTED, signal, write_wav  # noqa: E402,F401

try:
    import numpy
except ImportError:
    numpy = None
