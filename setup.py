# `pip install .` builds the Python module rtfconverter through CMake, with
# the library compiled into its native part, so that nothing else needs to
# be installed beside it:
#
#     /usr/bin/python3 -m venv --system-site-packages V
#     V/bin/pip install --no-build-isolation .
#
# Needs cmake, a C++17 compiler, pybind11-dev and python3-dev (Debian).
import os
import re
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as f:
        return re.search(r"project\(rtfconverter VERSION ([0-9.]+)", f.read()).group(1)


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        output_dir = os.path.dirname(os.path.abspath(self.get_ext_fullpath(ext.name)))
        build_dir = os.path.join(os.path.abspath(self.build_temp), "cmake")
        configure = [
            "cmake", "-S", ROOT, "-B", build_dir,
            "-DCMAKE_BUILD_TYPE=Release",
            "-DBUILD_SHARED_LIBS=OFF",
            "-DCMAKE_POSITION_INDEPENDENT_CODE=ON",
            "-DRTFCONV_BUILD_PYTHON=ON",
            "-DRTFCONV_BUILD_TESTS=OFF",
            "-DRTFCONV_BUILD_TOOLS=OFF",
            "-DRTFCONV_INSTALL=OFF",
            "-DPython_EXECUTABLE=" + sys.executable,
            "-DRTFCONV_PYTHON_OUTPUT_DIR=" + output_dir,
        ]
        subprocess.check_call(configure)
        subprocess.check_call(["cmake", "--build", build_dir, "--target", "_rtfconverter",
                               "-j", str(os.cpu_count() or 2)])


setup(
    name="rtfconverter",
    version=project_version(),
    description="Rich text conversion between RTF, plain text and old-format text",
    packages=["rtfconverter"],
    package_dir={"": "python"},
    package_data={"rtfconverter": ["*.pyi", "py.typed"]},
    ext_modules=[CMakeExtension("rtfconverter._rtfconverter")],
    cmdclass={"build_ext": CMakeBuild},
    python_requires=">=3.7",
    zip_safe=False,
)
