#!/usr/bin/env python3
"""An installation into an empty prefix, used by programs of somebody else from another folder."""

import json
import unittest

from packaging_case import (BUILD, CONSUMER, DEVELOPMENT_FILES, INSTALLATION, POCL, RUNTIME_FILES,
                            SOURCE, TOOL_FILES, VERSION, PackagingTest, files_below, need,
                            output_of)

need("cmake", "ninja", "pkg-config", "cc", "c++")


class Installation(PackagingTest):
    def setUp(self):
        super().setUp()
        first = self.folder / "first place"
        output_of("cmake", "--install", INSTALLATION, "--prefix", first)
        # Nothing may depend on where it was installed.
        self.prefix = self.folder / "prefix"
        first.rename(self.prefix)

    def test_holds_library_header_tool_pages_completions_and_kernels(self):
        self.assertEqual(files_below(self.prefix),
                         RUNTIME_FILES | DEVELOPMENT_FILES | TOOL_FILES |
                         {"share/man/man1/zorvex.1", "share/man/man3/zorvex.3",
                          "share/zsh/site-functions/_zorvex"})

    def test_names_no_place_of_this_machine(self):
        for name in DEVELOPMENT_FILES | {"share/man/man3/zorvex.3"}:
            path = self.prefix / name
            if not path.is_symlink():
                text = path.read_text(encoding="utf-8")
                self.assertNotIn(str(BUILD), text, name)
                self.assertNotIn(str(self.folder), text, name)

    def test_serves_programs_built_with_cmake(self):
        self.assert_consumers_work_by_cmake(self.prefix)

    def test_serves_programs_built_with_pkg_config(self):
        self.assert_consumers_work_by_pkg_config(self.prefix)

    def test_refuses_a_program_that_wants_another_major_version(self):
        wanted = int(VERSION.split(".", maxsplit=1)[0]) + 1
        with self.assertRaisesRegex(AssertionError, "considered but not accepted"):
            output_of("cmake", "-S", CONSUMER, "-B", self.folder / "refused", "-G", "Ninja",
                      f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DWANTED_VERSION={wanted}")

    def test_tool_runs_from_another_folder(self):
        self.assert_runs(self.prefix / "bin/zorvex", "--version", expected=f"zorvex {VERSION}\n")

    @unittest.skipUnless(POCL.exists(), "no OpenCL driver for the processor")
    def test_kernels_are_found_by_the_tool_and_from_the_folder_bin_and_loaded_by_name(self):
        environment = {"OCL_ICD_VENDORS": str(POCL),
                       "POCL_CACHE_DIR": str(self.folder / "pocl-cache")}
        devices = output_of(self.prefix / "bin/zorvex", "devices", "--json", cwd="/",
                            environment=environment)
        self.assertTrue(json.loads(devices)["kernels_load"], devices)
        build = self.assert_consumers_work_by_cmake(self.prefix)
        self.assert_runs(build / "c_consumer", "device", cwd=self.prefix / "bin",
                         environment=environment, expected=f"zorvex {VERSION} from C\n")
        kernels = self.prefix / "share/zorvex/zorvex_kernels.cl"
        self.assert_runs(build / "c_consumer", "device", kernels,
                         environment=environment, expected=f"zorvex {VERSION} from C\n")


class Configuration(PackagingTest):
    def test_refuses_folders_that_are_not_below_the_prefix(self):
        for name in ("BINDIR", "DATADIR", "INCLUDEDIR", "LIBDIR"):
            with self.assertRaisesRegex(AssertionError,
                                        f"CMAKE_INSTALL_{name} must be a folder below the prefix"):
                output_of("cmake", "-S", SOURCE, "-B", self.folder / name, "-G", "Ninja",
                          f"-DCMAKE_INSTALL_{name}=/elsewhere")


if __name__ == "__main__":
    unittest.main()
