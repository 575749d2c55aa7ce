"""The package as a user gets it: a wheel built offline (pip wheel
--no-build-isolation) from a copy of the source tree, installed with
pip install --target into an empty folder, and imported from another folder by
a fresh interpreter whose environment holds nothing but PYTHONPATH.

The wheel is built once, with the build tools of the interpreter running the
test; an interpreter without them skips these tests and says why.
"""
import importlib
import importlib.util
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import unittest
import warnings
import zipfile

from support import BURSTS, EXPECTED, ROOT, signal, write_wav


def missing_tools():
    """Why this interpreter cannot build the wheel offline, or None."""
    try:
        setuptools = importlib.import_module("setuptools")
    except ImportError:
        return "setuptools is not installed for %s" % sys.executable
    try:
        importlib.import_module("setuptools.command.bdist_wheel")  # setuptools 70.1 and later
    except ImportError:
        try:
            importlib.import_module("wheel.bdist_wheel")
        except ImportError:
            return ("%s has setuptools %s but not the wheel package, which it needs to build wheels"
                    % (sys.executable, setuptools.__version__))
    if importlib.util.find_spec("pip") is None:
        return "pip is not installed for %s" % sys.executable
    return None


def copy_ignoring_builds(folder, names):
    """Leaves out what builds and version control put into the tree."""
    at_root = os.path.abspath(folder) == ROOT
    return [n for n in names if n == "__pycache__" or at_root and (
        n == ".git" or n.startswith("build") or n == "dist" or n.endswith(".egg-info"))]


def pip(*args):
    p = subprocess.run([sys.executable, "-m", "pip", "--disable-pip-version-check", "--no-cache-dir", *args,
                        "--no-index", "--no-deps"], capture_output=True, timeout=1200)
    if p.returncode != 0:
        raise AssertionError("pip %s failed:\n%s%s" % (args[0], p.stdout.decode(), p.stderr.decode()))


with warnings.catch_warnings():
    warnings.simplefilter("ignore")  # what the build tools say about distutils when imported
    MISSING = missing_tools()


@unittest.skipIf(MISSING, MISSING)
class WheelTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="oku-wheel-")
        source = os.path.join(cls.tmp.name, "source")
        shutil.copytree(ROOT, source, symlinks=True, ignore=copy_ignoring_builds)
        before = set(os.listdir(source))
        dist = os.path.join(cls.tmp.name, "dist")
        pip("wheel", "-w", dist, "--no-build-isolation", source)
        cls.left_in_tree = set(os.listdir(source)) - before
        [name] = os.listdir(dist)
        cls.wheel = os.path.join(dist, name)
        cls.site = os.path.join(cls.tmp.name, "site")
        os.mkdir(cls.site)
        pip("install", "--target", cls.site, cls.wheel)
        cls.elsewhere = os.path.join(cls.tmp.name, "elsewhere")
        os.mkdir(cls.elsewhere)
        cls.wav = os.path.join(cls.elsewhere, "bursts.wav")
        write_wav(cls.wav, 16000, signal(16000, BURSTS, 6.0))

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def fresh(self, *args, site=None, **env):
        """A new interpreter in an empty folder: the installed package on its path, and nothing else."""
        p = subprocess.run([sys.executable, "-s", *args], cwd=self.elsewhere, capture_output=True, timeout=300,
                           env=dict(env, PYTHONPATH=site or self.site))
        return p.returncode, p.stdout.decode(), p.stderr.decode()

    CHECK = ("import importlib.metadata, json, wave, oku\n"
             "with wave.open('bursts.wav') as w:\n"
             "    segments = oku.Vad(16000).segments(w.readframes(w.getnframes()))\n"
             "print(json.dumps([oku.__file__, oku.LIBRARY_PATH, oku.__version__,\n"
             "    importlib.metadata.version('oku'), [[s.start_sample, s.end_sample] for s in segments]]))\n")

    def test_wheel_is_for_this_platform_and_carries_the_library(self):
        name, version, python, abi, tag = os.path.basename(self.wheel)[:-4].split("-")
        self.assertEqual(("oku", "py3", "none"), (name, python, abi))
        self.assertIn(platform.machine(), tag)
        with zipfile.ZipFile(self.wheel) as z:
            names = z.namelist()
            [library] = [n for n in names if n.startswith("oku/libOKUVAD.so")]
            self.assertEqual(b"\x7fELF", z.read(library)[:4])  # the file itself, not a link
            self.assertIn("oku/py.typed", names)
            if os.path.exists(os.path.join(ROOT, "LICENSE")):
                self.assertIn("oku-%s.dist-info/LICENSE" % version, names)
        self.assertEqual({"build-python"}, self.left_in_tree)  # the build's only folder in the tree

    def test_installed_package_works_from_anywhere(self):
        status, out, err = self.fresh("-c", self.CHECK)
        self.assertEqual(0, status, err)
        module, library, version, metadata, segments = json.loads(out)
        self.assertTrue(module.startswith(self.site + os.sep), module)
        self.assertTrue(library.startswith(os.path.join(self.site, "oku") + os.sep), library)
        self.assertEqual(os.path.basename(self.wheel).split("-")[1], version)
        self.assertEqual(version, metadata)
        self.assertEqual([[round(s * 16000), round(e * 16000)] for s, e in EXPECTED], segments)
        status, out, err = self.fresh("-m", "oku", "vad", "bursts.wav")
        self.assertEqual(0, status, err)
        self.assertEqual(len(EXPECTED), len([line for line in out.splitlines() if '"segment"' in line]))

    def test_package_copy_comes_before_oku_library(self):
        status, out, err = self.fresh("-c", self.CHECK, OKU_LIBRARY=os.path.join(self.elsewhere, "nothing.so"))
        self.assertEqual(0, status, err)
        self.assertTrue(json.loads(out)[1].startswith(self.site + os.sep))

    def test_version_mismatch_is_refused(self):
        other = os.path.join(self.tmp.name, "other")
        shutil.copytree(self.site, other)
        built = os.path.join(other, "oku", "_built.py")
        with open(built) as f:
            text = f.read()
        with open(built, "w") as f:
            f.write(text.replace("VERSION = ", "VERSION = '0.0.0'  # ", 1))
        status, _, err = self.fresh("-c", "import oku", site=other)
        self.assertNotEqual(0, status)
        self.assertIn("ImportError", err)
        self.assertIn("the package 0.0.0", err)


if __name__ == "__main__":
    unittest.main()
