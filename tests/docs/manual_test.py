#!/usr/bin/env python3
"""The manual: its links lead somewhere, its names exist, its programs compile, the first one runs."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["ZORVEX_SOURCE"])
LIBRARY = pathlib.Path(os.environ["ZORVEX_LIBRARY"])
SANITIZED = bool(os.environ["ZORVEX_SANITIZE"])
PAGES = [SOURCE / "README.md", SOURCE / "CONTRIBUTING.md", *sorted((SOURCE / "docs").glob("*.md"))]


def read(path):
    return path.read_text(encoding="utf-8")


def without_code(text):
    """A page without its code blocks, where # is no heading and [] no link."""
    return re.sub(r"(?ms)^```.*?^```$", "", text)


def blocks(text, language):
    return re.findall(rf"(?ms)^```{language}\n(.*?)^```$", text)


def anchors(path):
    """The anchors of a page's headings: lower case, words joined by -, other signs left out."""
    headings = re.findall(r"(?m)^#+ (.+)$", without_code(read(path)))
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


class Manual(unittest.TestCase):
    def test_links_lead_to_files_and_headings(self):
        for page in PAGES:
            links = re.findall(r"\]\(([^)\s]+)\)", without_code(read(page)))
            for link in links:
                with self.subTest(page=page.name, link=link):
                    if link.startswith("https://"):
                        continue
                    name, _, anchor = link.partition("#")
                    target = (page.parent / name).resolve() if name else page
                    self.assertTrue(target.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(target))

    def test_index_names_every_page(self):
        index = read(SOURCE / "docs/README.md")
        for page in PAGES:
            if page.parent.name == "docs" and page.name != "README.md":
                self.assertIn(f"({page.name})", index)

    def test_pictures_are_small_and_used(self):
        text = "".join(map(read, PAGES))
        pictures = list((SOURCE / "docs/images").iterdir())
        self.assertTrue(pictures)
        for picture in pictures:
            self.assertLess(picture.stat().st_size, 60 * 1024, picture)
            self.assertIn(f"images/{picture.name}", text)

    def test_names_of_the_interface_exist(self):
        known = set(re.findall(r"\b(?:zx|ZX)_\w+", read(SOURCE / "include/zorvex.h") +
                               read(SOURCE / "tests/packaging/exported_symbols.txt")))
        known |= {room.name for room in (SOURCE / "src").iterdir()}
        for page in PAGES:
            for name, star in re.findall(r"\b((?:zx|ZX)_\w+)(\*?)", read(page)):
                with self.subTest(page=page.name, name=name):
                    if star:
                        self.assertTrue(any(other.startswith(name) for other in known))
                    else:
                        self.assertTrue(name in known)

    def test_every_example_is_explained(self):
        text = read(SOURCE / "docs/getting-started.md")
        for path in (SOURCE / "examples").iterdir():
            if path.suffix in (".c", ".cpp", ".py"):
                self.assertIn(f"examples/{path.name})", text)

    @unittest.skipUnless(shutil.which("cc"), "no C compiler")
    def test_whole_programs_compile(self):
        programs = [block for page in PAGES for block in blocks(read(page), "c")
                    if "int main(" in block]
        self.assertTrue(programs)
        for program in programs:
            result = subprocess.run(
                ["cc", "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
                 f"-I{SOURCE}/include", "-x", "c", "-"],
                input=program, capture_output=True, text=True, check=False)
            self.assertEqual(result.returncode, 0, result.stderr)

    @unittest.skipUnless(shutil.which("cc"), "no C compiler")
    @unittest.skipIf(SANITIZED, "an instrumented library needs an instrumented program")
    def test_the_first_program_recommends_what_the_page_says(self):
        program, = blocks(read(SOURCE / "docs/getting-started.md"), "c")
        with tempfile.TemporaryDirectory() as folder:
            result = subprocess.run(
                ["cc", "-std=c11", "-x", "c", "-", "-x", "none", "-o", f"{folder}/first",
                 f"-I{SOURCE}/include", LIBRARY, f"-Wl,-rpath,{LIBRARY.parent}"],
                input=program, capture_output=True, text=True, check=False)
            self.assertEqual(result.returncode, 0, result.stderr)
            result = subprocess.run([f"{folder}/first"], capture_output=True, text=True,
                                    check=False, timeout=60)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(re.findall(r"(?m)^book (\d+): 0\.\d\d$", result.stdout), ["1", "0", "2"])
        self.assertEqual(len(result.stdout.splitlines()), 3)


if __name__ == "__main__":
    unittest.main()
