"""The Python package's build step: runs the project's CMake build and lays out what it installs.

CMake stays the one build. This configures it (or reuses the configured build folder named by
VORN_BUILD_DIR, e.g. build/release), builds the module, the libraries and vorn-run, installs the
components runtime, tools and python into a staging folder, and moves them into the package:

    vorn/            the Python sources, _vorn (RPATH $ORIGIN/lib), its stubs, _version.py
    vorn/lib/        libvorn, libvorn_operators and the host libraries, under their SONAMEs
    vorn/bin/        vorn-run (RPATH $ORIGIN/../lib), started by the vorn-run entry point

The wheel relies on the system's own runtime libraries (libpng, NIfTI, zlib, TBB, libstdc++) as a
Debian package would: it is a wheel for the Debian release it was built on.
"""
import os
import re
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

ROOT = Path(__file__).resolve().parent
TARGETS = ["_vorn", "vorn-run", "vorn_python_package", "vorn_python_stubs"]
COMPONENTS = ["runtime", "tools", "python"]


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(vorn\s+VERSION\s+([0-9.]+)", text).group(1)


def cmake(*args):
    print("cmake", *args, flush=True)
    subprocess.run(["cmake", *map(str, args)], check=True)


def configure(build_dir):
    options = [
        "-DCMAKE_BUILD_TYPE=Release",
        f"-DPython_EXECUTABLE={sys.executable}",
        "-DVORN_BUILD_TESTS=OFF",
        "-DVORN_BUILD_EXAMPLES=OFF",
        "-DVORN_BUILD_BENCHMARKS=OFF",
        "-DVORN_BUILD_TOOLS=ON",
        "-DVORN_BUILD_PYTHON=ON",
        "-DVORN_INSTALL=ON",
    ]
    if shutil.which("ccache"):
        options.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    cmake("-S", ROOT, "-B", build_dir, *options)


def cache_value(build_dir, name):
    found = re.search(rf"^{name}:\w+=(.*)$", (build_dir / "CMakeCache.txt").read_text(), re.M)
    if not found:
        raise RuntimeError(f"{build_dir} has no {name}: configure it with the Python module on")
    return found.group(1)


def copy_libraries(source, target):
    """Copies the shared libraries once each, under the name the loader asks for (the SONAME,
    the symlink), since a wheel cannot hold symlinks."""
    shutil.rmtree(target, ignore_errors=True)  # no library left from an earlier build
    target.mkdir(parents=True)
    libraries = [path for path in source.glob("*.so*") if not path.is_dir()]
    linked = {path.resolve() for path in libraries if path.is_symlink()}
    for path in libraries:
        if path.is_symlink() or path.resolve() not in linked:
            shutil.copy(path, target / path.name)


class BuildWithCMake(build_py):
    def run(self):
        super().run()
        given = os.environ.get("VORN_BUILD_DIR")
        build_dir = Path(given).resolve() if given else ROOT / "build" / "wheel"
        if not given:
            configure(build_dir)
        cmake("--build", build_dir, "--target", *TARGETS, "-j",
              os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", os.cpu_count() or 1))
        self.stage(build_dir, Path(self.get_finalized_command("build").build_temp) / "vorn-stage")

    def stage(self, build_dir, stage):
        shutil.rmtree(stage, ignore_errors=True)
        for component in COMPONENTS:
            cmake("--install", build_dir, "--prefix", stage, "--component", component, "--strip")
        package = Path(self.build_lib) / "vorn"
        modules = stage / cache_value(build_dir, "VORN_PYTHON_INSTALL_DIR") / "vorn"
        suffix = sysconfig.get_config_var("EXT_SUFFIX")
        if not (modules / f"_vorn{suffix}").exists():
            raise RuntimeError(f"{build_dir} holds no _vorn{suffix}: it was configured for "
                               f"another Python than {sys.executable}")
        shutil.copytree(modules, package, dirs_exist_ok=True)
        libdir = cache_value(build_dir, "CMAKE_INSTALL_LIBDIR")
        copy_libraries(stage / libdir, package / libdir)
        bindir = cache_value(build_dir, "CMAKE_INSTALL_BINDIR")
        (package / "bin").mkdir(exist_ok=True)
        shutil.copy(stage / bindir / "vorn-run", package / "bin" / "vorn-run")


class BinaryDistribution(Distribution):
    """The package holds compiled code: a wheel for this Python and platform, not a pure one."""

    def has_ext_modules(self):
        return True


setup(version=project_version(), cmdclass={"build_py": BuildWithCMake},
      distclass=BinaryDistribution)
