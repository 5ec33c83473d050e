#!/usr/bin/env python3
"""The reference of the interface: Doxygen makes it without a warning, and it has everything."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest
from xml.etree import ElementTree

HEADER = pathlib.Path(os.environ["ZORVEX_SOURCE"]) / "include/zorvex.h"
DOXYGEN = os.environ["ZORVEX_DOXYGEN"]
DOXYFILE = pathlib.Path(os.environ["ZORVEX_DOXYFILE"])


def make_reference(folder, settings=""):
    """Runs Doxygen with the project's settings, and others, into a folder."""
    text = (f'{DOXYFILE.read_text(encoding="utf-8")}\n'
            f'OUTPUT_DIRECTORY = "{folder}"\nGENERATE_TAGFILE = "{folder}/tags.xml"\n{settings}')
    return subprocess.run([DOXYGEN, "-"], input=text, cwd=folder, capture_output=True, text=True,
                          check=False)


class Reference(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.result = make_reference(folder.name)
        cls.header = HEADER.read_text(encoding="utf-8")
        cls.tags = ElementTree.parse(cls.folder / "tags.xml").getroot()

    def page(self, name):
        return (self.folder / "reference" / name).read_text(encoding="utf-8")

    def names(self, path):
        return {element.text for element in self.tags.findall(path)}

    def test_is_made_without_a_warning(self):
        self.assertEqual((self.result.returncode, self.result.stderr), (0, ""))

    def test_fails_where_something_has_no_comment(self):
        with tempfile.TemporaryDirectory() as folder:
            header = pathlib.Path(folder) / "zorvex.h"
            header.write_text(re.sub(r"/\*\* Frees a layer .*? \*/", "", self.header),
                              encoding="utf-8")
            result = make_reference(folder, f'INPUT = "{header}"\n')
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("zx_layer_free", result.stderr)

    def test_has_a_group_for_every_section(self):
        titles = re.findall(r"(?m)^/\* ([A-Z].*?) +\*/$", self.header)
        self.assertGreater(len(titles), 10)
        self.assertEqual(self.names("compound[@kind='group']/title"), set(titles))

    def test_has_every_function_constant_and_record_in_a_group(self):
        functions = re.findall(r"(?m)^ZX_API [^;(]*?\b(zx_\w+)\(", self.header)
        self.assertGreater(len(functions), 100)
        self.assertEqual(self.names("compound[@kind='group']/member[@kind='function']/name"),
                         set(functions))
        constants = re.findall(r"(?m)^    (ZX_\w+) = \d+", self.header)
        self.assertGreater(len(constants), 50)
        self.assertEqual(
            self.names("compound[@kind='group']/member[@kind='enumvalue']/name"),
            set(constants))
        records = re.findall(r"(?m)^typedef (?:struct|union) (zx_\w+)", self.header)
        self.assertGreater(len(records), 10)
        self.assertEqual(self.names("compound[@kind='struct']/name") |
                         self.names("compound[@kind='union']/name"), set(records))

    def test_begins_with_the_conventions(self):
        self.assertTrue("Conventions, stated once" in self.page("index.html"))

    def test_shows_what_all_device_operations_have_in_common(self):
        self.assertTrue("None has a host counterpart" in self.page("group__device__kernels.html"))


if __name__ == "__main__":
    unittest.main()
