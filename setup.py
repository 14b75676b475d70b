"""pip install . --no-build-isolation: builds the lxopt Python package with
CMake (Debian's setuptools and pybind11, no downloads).

The extension _lxopt and the library liblxopt it links are built by the
project's CMake into the build directory, then copied next to the package
files; the extension finds the library through an $ORIGIN run path.
"""
import glob
import os
import pathlib
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent
PACKAGE_DIR = "bindings/python/lxopt"


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    start = text.index("VERSION", text.index("project(")) + len("VERSION")
    return text[start:].split()[0].rstrip(")")


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        build.mkdir(parents=True, exist_ok=True)
        configure = ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                     "-DLXOPT_BUILD_TESTS=OFF", "-DLXOPT_BUILD_TOOLS=OFF",
                     "-DLXOPT_BUILD_PYTHON=ON", "-DLXOPT_PYTHON_RPATH_ORIGIN=ON",
                     f"-DPython_EXECUTABLE={sys.executable}"]
        subprocess.check_call(configure)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.check_call(["cmake", "--build", str(build), "-j", jobs, "--target", "_lxopt"])
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve().parent
        target.mkdir(parents=True, exist_ok=True)
        built = build / "python" / "lxopt"
        for module in glob.glob(str(built / "_lxopt*.so")):
            shutil.copy2(module, target / pathlib.Path(self.get_ext_filename("_lxopt")).name)
        # The library under its SONAME, the name the extension asks for.
        for lib in glob.glob(str(build / "liblxopt.so.*")):
            if os.path.basename(lib).count(".") == 2:
                shutil.copy2(lib, target / os.path.basename(lib))


setup(
    name="lxopt",
    version=version(),
    description="Numerical optimizers for smooth functions of many variables",
    packages=["lxopt"],
    package_dir={"lxopt": PACKAGE_DIR},
    package_data={"lxopt": ["*.pyi", "py.typed"]},
    ext_modules=[Extension("lxopt._lxopt", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    install_requires=["numpy"],
    python_requires=">=3.7",
    zip_safe=False,
)
