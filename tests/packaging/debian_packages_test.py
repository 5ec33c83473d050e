#!/usr/bin/env python3
"""The three Debian packages, made of what is built, unpacked into an empty root and looked at."""

import gzip
import os
import re
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from packaging_case import (BUILD, DEVELOPMENT_FILES, INSTALLATION, LIBDIR, RUNTIME_FILES, SOURCE,
                            TOOL_FILES, VERSION, PackagingTest, files_below, need, output_of)

need("cpack", "dpkg-deb", "dpkg-shlibdeps", "file", "gzip", "strip", "lintian", "man", "readelf",
     "cmake", "ninja", "pkg-config", "cc", "c++")

REVISION = f"{VERSION}-1"
EXPECTED_FILES = {
    "libzorvex1": RUNTIME_FILES,
    "libzorvex-dev": DEVELOPMENT_FILES | {"share/man/man3/zorvex.3.gz"},
    "zorvex-tools": TOOL_FILES | {"share/man/man1/zorvex.1.gz",
                                  "share/zsh/vendor-completions/_zorvex"},
}
DOCUMENTS = ("changelog.Debian.gz", "changelog.gz", "copyright")


def make_packages(folder, *options):
    output_of("cpack", "--config", BUILD / "CPackConfig.cmake", "-B", folder,
              "-D", f"CPACK_INSTALL_CMAKE_PROJECTS={INSTALLATION};zorvex;ALL;/", *options)


class Packages(PackagingTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        folder = pathlib.Path(tempfile.mkdtemp(prefix="zorvex-packages-"))
        cls.addClassCleanup(shutil.rmtree, folder)
        make_packages(folder)
        cls.packages = {}
        for path in folder.glob(f"*_{REVISION}_*.deb"):
            cls.packages[path.name.split("_")[0]] = path

    def field(self, package, name):
        return output_of("dpkg-deb", "--field", self.packages[package], name).strip()

    def control_file(self, package, name):
        return output_of("dpkg-deb", "--info", self.packages[package], name)

    def unpacked(self, *packages):
        """An empty root with these packages in it; returns its /usr."""
        for package in packages:
            output_of("dpkg-deb", "--extract", self.packages[package], self.folder / "root")
        return self.folder / "root/usr"

    def test_are_three(self):
        self.assertEqual(set(self.packages), set(EXPECTED_FILES))

    def test_hold_their_files_and_documents(self):
        for package, files in EXPECTED_FILES.items():
            root = self.folder / package
            output_of("dpkg-deb", "--extract", self.packages[package], root)
            documents = {f"share/doc/{package}/{name}" for name in DOCUMENTS}
            self.assertEqual(files_below(root), {f"usr/{name}" for name in files | documents})

    def test_belong_to_root_and_are_written_by_nobody_else(self):
        for path in self.packages.values():
            for line in output_of("dpkg-deb", "--contents", path).splitlines():
                self.assertRegex(line, r"^(drwxr-xr-x|-rw[-x]r-[-x]r-[-x]|lrwxrwxrwx) root/root ")

    def test_changelog_ends_at_this_version(self):
        usr = self.unpacked(*EXPECTED_FILES)
        for package in EXPECTED_FILES:
            with gzip.open(usr / f"share/doc/{package}/changelog.Debian.gz", "rt") as file:
                self.assertTrue(file.readline().startswith(f"zorvex ({REVISION}) "))
            with gzip.open(usr / f"share/doc/{package}/changelog.gz", "rt") as file:
                self.assertEqual(file.read(),
                                 (SOURCE / "CHANGELOG.md").read_text(encoding="utf-8"))

    def test_depend_on_what_they_need(self):
        library = self.field("libzorvex1", "Depends")
        self.assertRegex(library, r"\blibc6 \(>= ")
        self.assertRegex(library, r"\bocl-icd-libopencl1\b")
        self.assertNotIn("libstdc++", library)
        development = self.field("libzorvex-dev", "Depends").split(", ")
        self.assertEqual(set(development),
                         {f"libzorvex1 (= {REVISION})", "opencl-c-headers", "ocl-icd-opencl-dev"})
        tools = self.field("zorvex-tools", "Depends")
        self.assertIn(f"libzorvex1 (= {REVISION})", tools)
        self.assertRegex(tools, r"\blibstdc\+\+6 \(>= ")
        self.assertRegex(tools, r"\bzlib1g\b")

    def test_say_what_they_are(self):
        sections = {"libzorvex1": "libs", "libzorvex-dev": "libdevel", "zorvex-tools": "science"}
        for package, section in sections.items():
            self.assertEqual(self.field(package, "Section"), section)
            self.assertEqual(self.field(package, "Source"), "zorvex")
            summary, *description = self.field(package, "Description").splitlines()
            self.assertTrue(summary.startswith("recommender engine - "), summary)
            self.assertGreater(len(description), 3)

    def test_library_tells_the_loader_and_packages_built_on_it(self):
        self.assertEqual(self.control_file("libzorvex1", "shlibs").strip(),
                         f"libzorvex 1 libzorvex1 (>= {REVISION})")
        self.assertEqual(self.control_file("libzorvex1", "triggers"),
                         "activate-noawait ldconfig\n")

    def test_programs_are_stripped_and_leave_the_search_to_the_loader(self):
        usr = self.unpacked(*EXPECTED_FILES)
        for name in (f"{LIBDIR}/libzorvex.so.{VERSION}", "bin/zorvex"):
            self.assertNotIn(".symtab", output_of("readelf", "--sections", "--wide", usr / name))
            self.assertNotRegex(output_of("readelf", "--dynamic", usr / name),
                                r"\((RPATH|RUNPATH)\)")

    def test_tool_runs_on_the_library(self):
        usr = self.unpacked("libzorvex1", "zorvex-tools")
        self.assert_runs(usr / "bin/zorvex", "--version", expected=f"zorvex {VERSION}\n",
                         environment={"LD_LIBRARY_PATH": str(usr / LIBDIR)})

    def test_serve_programs_built_with_cmake(self):
        self.assert_consumers_work_by_cmake(self.unpacked("libzorvex1", "libzorvex-dev"))

    def test_serve_programs_built_with_pkg_config(self):
        self.assert_consumers_work_by_pkg_config(self.unpacked("libzorvex1", "libzorvex-dev"))

    def test_manual_pages_are_set_without_complaint(self):
        usr = self.unpacked("libzorvex-dev", "zorvex-tools")
        for page, name in (("man1/zorvex.1.gz", "zorvex - trains recommenders"),
                           ("man3/zorvex.3.gz", "zorvex - recommender engine")):
            result = subprocess.run(["man", "--warnings", "--local-file", usr / "share/man" / page],
                                    capture_output=True, text=True, check=True,
                                    env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})
            self.assertEqual(result.stderr, "")
            self.assertIn(name, re.sub(r"\s+", " ", result.stdout))

    def test_lintian_finds_no_error(self):
        result = subprocess.run(["lintian", "--fail-on", "error", *self.packages.values()],
                                capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertNotRegex(result.stdout, r"(?m)^E:")


class Packing(PackagingTest):
    def test_stops_where_dependencies_cannot_be_found_out(self):
        hidden = {"/bin", "/usr/bin", os.path.dirname(shutil.which("dpkg-shlibdeps"))}
        with self.assertRaisesRegex(AssertionError,
                                    r"dpkg-shlibdeps is missing \(Debian: dpkg-dev\)"):
            make_packages(self.folder / "packages", "-D", f"CMAKE_IGNORE_PATH={';'.join(hidden)}")
        self.assertEqual(list(self.folder.glob("packages/*.deb")), [])


if __name__ == "__main__":
    unittest.main()
