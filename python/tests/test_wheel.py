"""The package as a user gets it: a wheel built offline from a copy of the
source tree with the build tools of this interpreter (skipped, with the reason,
without them), installed into an empty folder, and imported elsewhere by a
fresh interpreter whose environment holds nothing but PYTHONPATH."""
import importlib.util
import json
import os
import platform
import re
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
    for module in ("setuptools", "pip"):
        try:
            importlib.import_module(module)
        except Exception as e:  # missing, or broken (a distutils override that fails)
            return "%s cannot be imported by %s: %r" % (module, sys.executable, e)
    if not (importlib.util.find_spec("setuptools.command.bdist_wheel") or importlib.util.find_spec("wheel")):
        return "%s has neither the wheel package nor a setuptools that makes wheels (70.1)" % sys.executable
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
        source, dist, cls.site, cls.elsewhere = (os.path.join(cls.tmp.name, n) for n in ("source", "dist", "site", "x"))
        shutil.copytree(ROOT, source, symlinks=True, ignore=copy_ignoring_builds)
        before = set(os.listdir(source))
        pip("wheel", "-w", dist, "--no-build-isolation", source)
        cls.left_in_tree = set(os.listdir(source)) - before
        [cls.wheel] = [os.path.join(dist, name) for name in os.listdir(dist)]
        pip("install", "--target", cls.site, cls.wheel)
        os.mkdir(cls.elsewhere)
        write_wav(os.path.join(cls.elsewhere, "bursts.wav"), 16000, signal(16000, BURSTS, 6.0))

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

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
        self.assertEqual({"build-python"}, self.left_in_tree)  # the build's only folder in the tree
        if platform.machine() != "x86_64" or platform.libc_ver()[0] != "glibc" or not shutil.which("objdump"):
            return
        # What the dynamic loader will ask of the system: the C++ runtime is inside the library, and
        # every glibc symbol has a version that glibc 2.28 provides.
        self.assertEqual("manylinux_2_28_x86_64", tag)
        library = os.path.join(self.site, library)
        symbols = subprocess.run(["objdump", "-T", library], capture_output=True, text=True, check=True).stdout
        needed = subprocess.run(["objdump", "-p", library], capture_output=True, text=True, check=True).stdout
        versions = set(re.findall(r"\((\w+?)_([\d.]+)\)", symbols))
        self.assertEqual(set(), {v for v in versions if v[0] in ("GLIBCXX", "CXXABI")})
        newest = max(tuple(map(int, v.split("."))) for name, v in versions if name == "GLIBC")
        self.assertLessEqual(newest, (2, 28), symbols)
        self.assertNotIn("libstdc++", needed)

    def test_installed_package_works_from_anywhere_before_oku_library(self):
        # A new interpreter in an empty folder, the installed package on its path and nothing else.
        p = subprocess.run([sys.executable, "-s", "-c", self.CHECK], cwd=self.elsewhere, capture_output=True,
                           timeout=300, env={"PYTHONPATH": self.site, "OKU_LIBRARY": "bursts.wav"})
        self.assertEqual(0, p.returncode, p.stderr.decode())
        module, library, version, metadata, segments = json.loads(p.stdout)
        self.assertEqual([os.path.join(self.site, "oku")] * 2, [os.path.dirname(module), os.path.dirname(library)])
        self.assertEqual([os.path.basename(self.wheel).split("-")[1]] * 2, [version, metadata])
        self.assertEqual([[round(s * 16000), round(e * 16000)] for s, e in EXPECTED], segments)


if __name__ == "__main__":
    unittest.main()
