#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Tests the order of the virtual operations and of the data members.

Other programs are built against these classes: a slot that moves is a call of
something else. The environment variable GXX names the GNU compiler, whose class
dump tells the slots (other compilers follow the same rules).
"""

import os
import re
import subprocess
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(HERE)
DOSSET = "org::vantrel::Dosset::"
CLOUD_ACTIONS = "org::vantrel::actions::CloudActions::"

PROBE = """\
#include "dosset/dbus-adaptors.h"
#include "dosset/dbus-proxies.h"
struct Implementation : %sManagerInterface {
  void RedirectRequest(
      std::unique_ptr<
          kestrix::dbus_utils::DBusMethodResponse<int, std::string>> response,
      const std::string& endpoint, const std::string& method,
      const std::string& body) override;
};
""" % CLOUD_ACTIONS


def both(*methods):
    """Each blocking operation with its asynchronous one."""
    return [name for method in methods for name in (method, method + "Async")]


COMMAND_SLOTS = both(
    "SetProgress", "Complete", "Abort", "SetError", "Cancel") + [
        "name", "id", "state", "parameters", "progress", "results", "origin",
        "GetObjectPath", "GetObjectProxy", "SetPropertyChangedCallback"]
MANAGER_SLOTS = both(
    "CheckDeviceRegistered", "RegisterDevice", "UpdateDeviceInfo",
    "UpdateServiceConfig", "UpdateState", "GetState", "AddCommand",
    "TestMethod") + [
        "status", "device_id", "state", "oem_name", "model_name", "model_id",
        "name", "description", "location", "orvel_bootstrap_state",
        "pairing_info", "GetObjectPath", "GetObjectProxy",
        "SetPropertyChangedCallback"]
PROXY_MEMBERS = [
    "bus_", "service_name_", "object_path_", "property_set_",
    "on_property_changed_", "dbus_object_proxy_", "weak_ptr_factory_"]


class ClassLayoutTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            source = os.path.join(folder, "probe.cc")
            with open(source, "w", encoding="utf-8") as output:
                output.write(PROBE)
            dump = subprocess.run(
                [os.environ.get("GXX", "g++"), "-std=c++20",
                 "-fno-exceptions", "-fno-rtti", "-I", ROOT,
                 "-I", os.path.join(HERE, "include"), "-fsyntax-only",
                 "-fdump-lang-class=-", source],
                capture_output=True, text=True, check=True)
        cls.dump = dump.stdout + dump.stderr
        with open(os.path.join(HERE, "include/dosset/dbus-proxies.h"),
                  encoding="utf-8") as source:
            cls.header = source.read()

    def slots(self, name):
        """What the slots of a class call, in order."""
        table = re.search(r"^Vtable for %s\n.*\n((?:\d+ .*\n)+)" % name,
                          self.dump, re.M)
        self.assertIsNotNone(table, "%s has no virtual operations" % name)
        entries = [line.split(None, 1)[1]
                   for line in table.group(1).splitlines()]
        # The offset to the top and the type information come first.
        return [entry.rpartition("::")[2] if "::" in entry
                else entry.rpartition(")")[2] for entry in entries[2:]]

    def members(self, name):
        """The data members of a class, as its text has them."""
        text = re.search(r"^class %s .*?^};" % name, self.header,
                         re.M | re.S).group(0)
        text = re.sub(r"//.*", "", text)
        return re.findall(r"^  (?:  )*[\w:].*?[ \n](\w+_)(?:\{this\})?;", text,
                          re.M)

    def test_command_proxy_slots(self):
        self.assertEqual(self.slots(DOSSET + "CommandProxy"),
                         ["~CommandProxy"] * 2 + COMMAND_SLOTS)

    def test_manager_proxy_slots(self):
        self.assertEqual(self.slots(DOSSET + "ManagerProxy"),
                         ["~ManagerProxy"] * 2 + MANAGER_SLOTS)

    def test_interfaces_have_the_slots_of_their_proxies(self):
        for interface, slots in (("CommandProxyInterface", COMMAND_SLOTS),
                                 ("ManagerProxyInterface", MANAGER_SLOTS)):
            self.assertEqual(self.slots(DOSSET + interface),
                             ["0"] * 2 + ["__cxa_pure_virtual"] * len(slots))

    def test_object_manager_proxy_slots(self):
        self.assertEqual(
            self.slots(DOSSET + "ObjectManagerProxy"),
            ["~ObjectManagerProxy"] * 2 + [
                "CreateProperties", "ObjectAdded", "ObjectRemoved"])

    def test_exported_interface_slots(self):
        self.assertEqual(self.slots("Implementation"),
                         ["~Implementation"] * 2 + ["RedirectRequest"])
        self.assertEqual(self.slots(CLOUD_ACTIONS + "ManagerInterface"),
                         ["0"] * 2 + ["__cxa_pure_virtual"])

    def test_adaptor_has_no_virtual_operations(self):
        self.assertIn("Class %sManagerAdaptor\n" % CLOUD_ACTIONS, self.dump)
        self.assertNotIn("Vtable for %sManagerAdaptor\n" % CLOUD_ACTIONS,
                         self.dump)

    def test_proxy_members(self):
        self.assertEqual(self.members("CommandProxy"), PROXY_MEMBERS)
        self.assertEqual(self.members("ManagerProxy"), PROXY_MEMBERS)

    def test_object_manager_proxy_members(self):
        self.assertEqual(self.members("ObjectManagerProxy"), [
            "bus_", "dbus_object_manager_",
            "command_instances_", "on_command_added_", "on_command_removed_",
            "manager_instances_", "on_manager_added_", "on_manager_removed_",
            "weak_ptr_factory_"])


if __name__ == "__main__":
    unittest.main()
