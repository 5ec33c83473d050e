"""What the tests of installations and packages have in common."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["ZORVEX_BUILD"])
INSTALLATION = BUILD / "tests/packaging/installation"  # to install the build from
SOURCE = pathlib.Path(os.environ["ZORVEX_SOURCE"])
VERSION = os.environ["ZORVEX_VERSION"]
LIBDIR = os.environ["ZORVEX_LIBDIR"]
POCL = pathlib.Path(os.environ["ZORVEX_POCL"])
CONSUMER = SOURCE / "tests/packaging/consumer"

SKIPPED = 77  # what CTest takes for a test that was not run


def need(*programs):
    """Ends the test as not run, and says why, where a program is missing."""
    missing = [program for program in programs if not shutil.which(program)]
    if missing:
        print(f"not run: {', '.join(missing)} missing")
        sys.exit(SKIPPED)


def output_of(*command, **options):
    """What a command prints; a failed one shows all that it said."""
    environment = {**os.environ, "LC_ALL": "C", **options.pop("environment", {})}
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                            env=environment, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}\n"
                             f"{result.stdout}{result.stderr}")
    return result.stdout


def files_below(folder):
    """The files and symbolic links, as paths from the folder."""
    return {str(path.relative_to(folder)) for path in pathlib.Path(folder).rglob("*")
            if path.is_symlink() or not path.is_dir()}


RUNTIME_FILES = {f"{LIBDIR}/libzorvex.so.1", f"{LIBDIR}/libzorvex.so.{VERSION}",
                 "share/zorvex/zorvex_kernels.cl"}
# The file of CMake's targets for one configuration carries its name.
DEVELOPMENT_FILES = {"include/zorvex.h", f"{LIBDIR}/libzorvex.so", f"{LIBDIR}/pkgconfig/zorvex.pc",
                     *(f"{LIBDIR}/cmake/zorvex/zorvex{name}.cmake" for name in
                       ("Config", "ConfigVersion", "Targets", "Targets-release"))}
TOOL_FILES = {"bin/zorvex", "share/bash-completion/completions/zorvex"}


class PackagingTest(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zorvex-test-")).resolve()
        self.addCleanup(shutil.rmtree, self.folder)

    def assert_runs(self, program, *arguments, expected, **options):
        """Runs a program from a folder where nothing of ours is."""
        options.setdefault("cwd", "/")
        self.assertEqual(output_of(program, *arguments, **options), expected)

    def assert_consumers_work_by_cmake(self, prefix):
        """Builds both consumers with find_package() and runs them; their build finds the library."""
        build = self.folder / "by-cmake"
        output_of("cmake", "-S", CONSUMER, "-B", build, "-G", "Ninja",
                  f"-DCMAKE_PREFIX_PATH={prefix}", f"-DWANTED_VERSION={VERSION}",
                  "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON")
        output_of("cmake", "--build", build)
        self.assert_runs(build / "c_consumer", expected=f"zorvex {VERSION} from C\n")
        self.assert_runs(build / "cpp_consumer", expected=f"zorvex {VERSION} from C++\n")
        kernels = pathlib.Path((build / "kernel_file").read_text(encoding="utf-8"))
        self.assertEqual(kernels, prefix / "share/zorvex/zorvex_kernels.cl")
        return build

    def assert_consumers_work_by_pkg_config(self, prefix):
        """Builds both consumers with pkg-config and runs them where the loader is told the folder."""
        environment = {"PKG_CONFIG_PATH": str(prefix / LIBDIR / "pkgconfig")}
        self.assertEqual(output_of("pkg-config", "--modversion", "zorvex",
                                   environment=environment), VERSION + "\n")
        flags = output_of("pkg-config", "--cflags", "--libs", "zorvex",
                          environment=environment).split()
        for compiler, standard, source, language in (("cc", "c11", "consumer.c", "C"),
                                                     ("c++", "c++17", "consumer.cpp", "C++")):
            program = self.folder / source.replace(".", "_")
            output_of(compiler, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                      CONSUMER / source, "-o", program, *flags)
            self.assert_runs(program, expected=f"zorvex {VERSION} from {language}\n",
                             environment={"LD_LIBRARY_PATH": str(prefix / LIBDIR)})
        kernels = output_of("pkg-config", "--variable=kernel_file", "zorvex",
                            environment=environment).strip()
        self.assertTrue(os.path.samefile(kernels, prefix / "share/zorvex/zorvex_kernels.cl"))
