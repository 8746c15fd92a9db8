#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Tests the order of the virtual operations and of the data members.

The members are destroyed in the reverse of their order, so the order says what
may still be used while an object goes. The slots are the order of the
interface's operations, which the generator, mocks and reviewers rely on.
"""

import os
import re
import sys
import unittest

sys.path.insert(0, os.path.join(
    os.path.dirname(os.path.dirname(os.path.realpath(__file__))),
    "tests/support"))
from class_layout import ClassLayoutTestCase, read  # noqa: E402

PROXIES_HEADER = "gen/include/dosset/dbus-proxies.h"
PROXIES_SOURCE = "gen/dbus-proxies.cc"
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
# The factory of weak pointers is there because the agent may withdraw a command
# while its authorization code is exchanged: whoever waits for the outcome then
# finds the proxy gone. It is last, so that it is destroyed first.
PROXY_MEMBERS = [
    "bus_", "service_name_", "object_path_", "property_set_",
    "on_property_changed_", "dbus_object_proxy_", "weak_ptr_factory_"]


def registered_properties(name):
    """The properties of a proxy's property set, as they are registered.

    Each with the member that holds its value.
    """
    text = re.search(
        r"^%s::PropertySet::PropertySet\(.*?^}" % name, read(PROXIES_SOURCE),
        re.M | re.S).group(0)
    return re.findall(r'RegisterProperty\("(\w+)", &(\w+)\);', text)


class ClassLayoutTest(ClassLayoutTestCase):
    PROBE = PROBE

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
        self.assert_no_slots(CLOUD_ACTIONS + "ManagerAdaptor")

    def test_proxy_members(self):
        for name in ("CommandProxy", "ManagerProxy"):
            self.assertEqual(self.members(PROXIES_HEADER, name), PROXY_MEMBERS)

    def test_object_manager_proxy_members(self):
        self.assertEqual(self.members(PROXIES_HEADER, "ObjectManagerProxy"), [
            "bus_", "dbus_object_manager_",
            "command_instances_", "on_command_added_", "on_command_removed_",
            "manager_instances_", "on_manager_added_", "on_manager_removed_",
            "weak_ptr_factory_"])

    def test_command_properties(self):
        self.assertEqual(registered_properties("CommandProxy"), [
            ("Name", "name"), ("Id", "id"), ("State", "state"),
            ("Parameters", "parameters"), ("Progress", "progress"),
            ("Results", "results"), ("Origin", "origin")])

    def test_manager_properties(self):
        self.assertEqual(registered_properties("ManagerProxy"), [
            ("Status", "status"), ("DeviceId", "device_id"),
            ("State", "state"), ("OemName", "oem_name"),
            ("ModelName", "model_name"), ("ModelId", "model_id"),
            ("Name", "name"), ("Description", "description"),
            ("Location", "location"),
            ("OrvelBootstrapState", "orvel_bootstrap_state"),
            ("PairingInfo", "pairing_info")])


if __name__ == "__main__":
    unittest.main()
