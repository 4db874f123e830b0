"""Builds the wheel: CMake makes the extension and the libraries, which go into the package.

SAGLEME_BUILD names a build folder to use; else it is the repository's build/wheel.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ.get("SAGLEME_BUILD") or ROOT / "build" / "wheel")

# What every machine has, in a version that fits.
EVERYWHERE = re.compile(r"^(ld-linux|linux-vdso|lib(c|m|dl|rt|pthread|gcc_s|stdc\+\+)\.so)")


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        run("cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
            "-DSAGLEME_PYTHON=ON", "-DSAGLEME_TESTS=OFF", "-DSAGLEME_TOOL=OFF",
            "-DSAGLEME_EXAMPLES=OFF", f"-DPython3_EXECUTABLE={sys.executable}")
        run("cmake", "--build", BUILD, "--target", "sagleme_python", "sagleme_extension")
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        built = BUILD / "python" / "sagleme" / target.name
        shutil.copy(built, target)
        sql = target.parent / "lib" / "saglemejoin.so"
        carry_libraries([built, BUILD / "sql" / "sagleme.so"], target)
        shutil.copy(BUILD / "sql" / "sagleme.so", sql)
        run("patchelf", "--set-rpath", "$ORIGIN", sql)


def carry_libraries(modules, target):
    """Puts the libraries that the modules need beside the extension, found from wherever it lies."""
    folder = target.parent / "lib"
    folder.mkdir(exist_ok=True)
    for name, path in {each for module in modules for each in libraries_of(module)}:
        shutil.copy(path, folder / name)
        run("patchelf", "--set-rpath", "$ORIGIN", folder / name)
    run("patchelf", "--set-rpath", "$ORIGIN/lib", target)


def libraries_of(module):
    listing = subprocess.run(["ldd", module], check=True, capture_output=True, text=True).stdout
    for name, path in re.findall(r"^\s*(\S+) => (/\S+)", listing, re.M):
        if not EVERYWHERE.match(name):
            yield name, path


def run(*command):
    subprocess.run([str(each) for each in command], check=True)


BUILD.mkdir(parents=True, exist_ok=True)
setup(
    ext_modules=[Extension("sagleme._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": str(BUILD / "setuptools")},
             "egg_info": {"egg_base": str(BUILD)}},
)
