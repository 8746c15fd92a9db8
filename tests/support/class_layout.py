# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The order of the virtual operations and of the data members of our classes.

The environment variable GXX names the GNU compiler, whose class dump tells the
slots of the virtual operations (other compilers follow the same rules). The
dump does not name the data members: those are read from the header's text.
"""

import os
import re
import subprocess
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.realpath(__file__))))


def read(path):
    """The text of a file of this tree."""
    with open(os.path.join(ROOT, path), encoding="utf-8") as source:
        return source.read()


class ClassLayoutTestCase(unittest.TestCase):
    """Looks at the classes that its `PROBE`, a C++ source, declares."""

    PROBE = None

    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            source = os.path.join(folder, "probe.cc")
            with open(source, "w", encoding="utf-8") as output:
                output.write(cls.PROBE)
            dump = subprocess.run(
                [os.environ.get("GXX", "g++"), "-std=c++20",
                 "-fno-exceptions", "-fno-rtti", "-I", ROOT,
                 "-I", os.path.join(ROOT, "gen/include"), "-fsyntax-only",
                 "-fdump-lang-class=-", source],
                capture_output=True, text=True, check=True)
        cls.dump = dump.stdout + dump.stderr

    def slots(self, name):
        """What the slots of a class call, in order.

        Of a template, those of its first instance.
        """
        table = re.search(
            r"^Vtable for %s(?:<.*>)?\n.*\n((?:\d+ .*\n)+)" % name, self.dump,
            re.M)
        self.assertIsNotNone(table, "%s has no virtual operations" % name)
        entries = [line.split(None, 1)[1]
                   for line in table.group(1).splitlines()]
        # The offset to the top and the type information come first.
        return [entry.rpartition("::")[2] if "::" in entry
                else entry.rpartition(")")[2] for entry in entries[2:]]

    def assert_no_slots(self, name):
        """Fails if the class is not there or has a virtual operation."""
        self.assertIn("Class %s\n" % name, self.dump)
        self.assertNotIn("Vtable for %s\n" % name, self.dump)

    @staticmethod
    def members(header, name):
        """The data members of a class, as the text of its header has them."""
        text = re.search(r"^class %s\b[^;]*?{.*?^};" % name, read(header),
                         re.M | re.S).group(0)
        text = re.sub(r"//.*", "", text).partition("\n private:\n")[2]
        return re.findall(
            r"^  (?:  )*[\w:].*?[ \n](\w+_)(?:\{.*\}| = .*)?;", text, re.M)
