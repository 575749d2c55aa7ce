"""Build steps of the Python package that pyproject.toml cannot express.

The package is plain Python over libOKUVAD, which it loads with ctypes. Building
it builds the library with CMake (only the OKUVAD target, in Release, under the
build folder) and puts a copy of the library file inside the package, with a
small generated module, oku/_built.py, that names the file and the version the
package was built for. The wheel is therefore tied to this platform but to no
particular Python 3: it is tagged py3-none-<platform>.

On Linux with glibc the copy links the C++ runtime in and binds to symbol
versions of glibc 2.28 (python/wheel_runtime.c), so that it loads on older
systems; the wheel's platform tag is then read from the library that was
built: manylinux_2_28 when it needs nothing newer and no library beyond the
C runtime's, the plain platform tag otherwise.

The version is the library's, read from the project() line of CMakeLists.txt.
"""
import os
import platform
import re
import shutil
import subprocess
import sys

from setuptools import Command, Distribution, setup

try:
    from setuptools.command.build import build
except ImportError:  # setuptools before 62.4
    from distutils.command.build import build

try:  # setuptools 70.1 and later have their own bdist_wheel
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:
    try:
        from wheel.bdist_wheel import bdist_wheel
    except ImportError:  # no wheels from this setuptools: pip says so
        bdist_wheel = None

ROOT = os.path.dirname(os.path.abspath(__file__))
LIBRARY_LINK = "libOKUVAD.so"  # CMake's link to the versioned library file


def library_version():
    """The MAJOR.MINOR.PATCH of the project(OKUVAD VERSION ...) line."""
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as f:
        match = re.search(r"project\(\s*OKUVAD\s+VERSION\s+(\d+\.\d+\.\d+)\b", f.read())
    if not match:
        raise SystemExit("setup.py: no 'project(OKUVAD VERSION x.y.z' line in CMakeLists.txt")
    return match.group(1)


# What a manylinux_2_28 library may need: libraries of the C runtime, and
# glibc symbol versions up to 2.28.
MANYLINUX = (2, 28)
RUNTIME_LIBRARIES = re.compile(r"^(libc\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libpthread\.so\.0|libdl\.so\.2|"
                               r"librt\.so\.1|ld-linux[\w.-]*\.so\.\d)$")


def portable_runtime_flags(folder):
    """Linker flags that put the C++ runtime into the library and bind it to
    old glibc versions, or [] where that is not done (then the wheel is for
    systems like this one only)."""
    if not sys.platform.startswith("linux") or platform.libc_ver()[0] != "glibc":
        return []
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    stub = os.path.join(folder, "wheel_runtime.o")
    os.makedirs(folder, exist_ok=True)
    try:
        subprocess.run([compiler or "cc", "-c", "-fPIC", "-O2", os.path.join(ROOT, "python", "wheel_runtime.c"),
                        "-o", stub], check=True)
    except (OSError, subprocess.CalledProcessError) as e:
        print("setup.py: the library links the system's C++ runtime (python/wheel_runtime.c: %s)" % e, flush=True)
        return []
    return ["-static-libstdc++", "-Wl,--gc-sections", "-Wl,--wrap=pthread_once", stub,
            "-Wl,--push-state,--no-as-needed", "-l:libpthread.so.0", "-Wl,--pop-state"]


def manylinux_tag(library, plain):
    """manylinux_2_28_<arch> for `plain` (linux_<arch>) when the library
    needs only the C runtime's libraries and glibc 2.28 or older, else `plain`."""
    try:
        dump = subprocess.run(["objdump", "-p", library], capture_output=True, text=True, check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return plain
    needed = re.findall(r"^\s*NEEDED\s+(\S+)", dump, flags=re.M)
    versions = re.findall(r"\s(\w+?)_(\d+(?:\.\d+)*)$", dump.split("Version References:")[-1], flags=re.M)
    glibc = [tuple(map(int, v.split(".")))[:2] for name, v in versions if name == "GLIBC"]
    if any(name in ("GLIBCXX", "CXXABI") for name, _ in versions) or not all(map(RUNTIME_LIBRARIES.match, needed)) \
            or not glibc or max(glibc) > MANYLINUX or not plain.startswith("linux_"):
        return plain
    return "manylinux_%d_%d_%s" % (MANYLINUX + (plain[len("linux_"):],))


def run_cmake(args):
    print("cmake " + " ".join(args), flush=True)
    try:
        subprocess.run(["cmake"] + args, check=True)
    except FileNotFoundError:
        raise SystemExit("setup.py: cmake is not installed; building libOKUVAD needs CMake 3.16 or later") from None
    except subprocess.CalledProcessError as e:
        raise SystemExit("setup.py: cmake failed with status %d (its output is above)" % e.returncode) from None


class BuildLibrary(Command):
    """Builds libOKUVAD with CMake and copies it into the package being built."""

    description = "build libOKUVAD with CMake and copy it into the package"
    user_options = []

    def initialize_options(self):
        self.build_temp = None
        self.build_lib = None

    def finalize_options(self):
        self.set_undefined_options("build", ("build_temp", "build_temp"), ("build_lib", "build_lib"))

    # The library file of the last build, for the wheel's platform tag.
    built = None

    def run(self):
        folder = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        output = os.path.join(folder, "lib")
        flags = [os.environ.get("LDFLAGS", "")] + portable_runtime_flags(os.path.join(folder, "runtime"))
        run_cmake(["-S", ROOT, "-B", folder, "-DCMAKE_BUILD_TYPE=Release", "-DOKU_BUILD_TESTS=OFF",
                   "-DOKU_BUILD_TOOLS=OFF", "-DOKU_BUILD_EXAMPLES=OFF", "-DOKU_BUILD_GST=OFF",
                   "-DCMAKE_SHARED_LINKER_FLAGS=" + " ".join(f for f in flags if f),
                   "-DCMAKE_LIBRARY_OUTPUT_DIRECTORY=" + output])
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") or str(os.cpu_count() or 1)
        run_cmake(["--build", folder, "--target", "OKUVAD", "--parallel", jobs])

        # CMake makes libOKUVAD.so -> libOKUVAD.so.1 -> libOKUVAD.so.1.1.0. A
        # wheel cannot hold links, so the package gets the file itself under
        # its shared-object name.
        link = os.path.join(output, LIBRARY_LINK)
        if not os.path.exists(link):
            raise SystemExit("setup.py: the build made no %s" % link)
        name = os.path.basename(os.readlink(link)) if os.path.islink(link) else LIBRARY_LINK
        package = os.path.join(self.build_lib, "oku")
        self.mkpath(package)
        self.copy_file(os.path.realpath(link), os.path.join(package, name))
        BuildLibrary.built = os.path.realpath(link)
        built = os.path.join(package, "_built.py")
        self.announce("writing " + built, level=2)
        with open(built, "w", encoding="utf-8") as f:
            f.write('"""What the build put into this package (written by setup.py)."""\n'
                    "VERSION = %r\nLIBRARY = %r\n" % (library_version(), name))


class Build(build):
    sub_commands = build.sub_commands + [("build_library", None)]


class PlatformDistribution(Distribution):
    """The package carries a compiled library: platform folders and a platform wheel."""

    def has_ext_modules(self):
        return True


if bdist_wheel is not None:
    class BdistWheel(bdist_wheel):
        def get_tag(self):
            # Only ctypes between Python and the library: any Python 3 of this platform.
            plain = super().get_tag()[2]
            return ("py3", "none", manylinux_tag(BuildLibrary.built, plain) if BuildLibrary.built else plain)
else:
    class BdistWheel(Command):
        """Says what is missing, instead of setuptools' "invalid command 'bdist_wheel'"."""

        user_options = []

        def initialize_options(self):
            pass

        def finalize_options(self):
            raise SystemExit("setup.py: this Python's setuptools cannot make wheels without the 'wheel' package "
                             "(or setuptools 70.1 or later); install it for this interpreter, or use one that "
                             "has it (on Debian, /usr/bin/python3 with python3-wheel)")

        def run(self):
            pass

commands = {"build": Build, "build_library": BuildLibrary, "bdist_wheel": BdistWheel}

# Out of the way of the CMake build folders (build/, build-clang/, ...); the
# package metadata (oku.egg-info) goes there too, and must find it made.
BUILD_BASE = "build-python"
os.makedirs(os.path.join(ROOT, BUILD_BASE), exist_ok=True)

setup(
    version=library_version(),
    cmdclass=commands,
    distclass=PlatformDistribution,
    options={"build": {"build_base": BUILD_BASE}, "egg_info": {"egg_base": BUILD_BASE}},
)
