#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Tests the order of the virtual operations and of the data members.

Of the daemon's classes and of those that they derive from or are called by. The
members are destroyed in the reverse of their order, so the order says what may
still be used while an object goes. The slots are the contract with those that
override the operations: derived classes, generated code and mocks.
"""

import os
import sys
import unittest

sys.path.insert(0, os.path.join(
    os.path.dirname(os.path.dirname(os.path.realpath(__file__))),
    "tests/support"))
from class_layout import ClassLayoutTestCase  # noqa: E402

ACTIONS = "halvex::actions::"
DBUS_UTILS = "kestrix::dbus_utils::"
CLOUD_ACTIONS_FOLDER = "platform/actions/cloud-actions/"

DAEMON_SLOTS = ["RegisterHandler", "UnregisterHandler", "Run", "OnInit",
                "OnShutdown", "OnRestart"]
SERVICE_DAEMON_SLOTS = DAEMON_SLOTS + ["RegisterDBusObjectsAsync"]


class ClassLayoutTest(ClassLayoutTestCase):
    # The adaptor's header makes an instance of the method handler; the size
    # makes one of the response, whichever the others are.
    PROBE = """\
#include "platform/actions/cloud-actions/cloud_action_daemon.h"
static_assert(
    sizeof(kestrix::dbus_utils::DBusMethodResponse<int, std::string>) > 0);
"""

    def test_daemon_slots(self):
        self.assertEqual(self.slots("kestrix::Daemon"),
                         ["~Daemon"] * 2 + DAEMON_SLOTS)
        self.assertEqual(self.slots("kestrix::DBusServiceDaemon"),
                         ["~DBusServiceDaemon"] * 2 + SERVICE_DAEMON_SLOTS)
        self.assertEqual(self.slots(ACTIONS + "CloudActionDaemon"),
                         ["~CloudActionDaemon"] * 2 + SERVICE_DAEMON_SLOTS)

    def test_daemon_members(self):
        self.assertEqual(
            self.members(CLOUD_ACTIONS_FOLDER + "cloud_action_daemon.h",
                         "CloudActionDaemon"),
            ["object_manager_", "cloud_action_manager_", "dbus_adaptor_"])

    def test_manager_has_no_virtual_operations(self):
        self.assert_no_slots(ACTIONS + "CloudActionManager")

    def test_manager_members(self):
        self.assertEqual(
            self.members(CLOUD_ACTIONS_FOLDER + "cloud_action_manager.h",
                         "CloudActionManager"),
            ["object_manager_", "oauth2_manager_", "transport_", "client_id_",
             "client_secret_", "scope_", "provisioned_", "allowed_endpoints_",
             "command_handlers_", "weak_ptr_factory_"])

    def test_token_manager_slots(self):
        self.assertEqual(
            self.slots("halvex::ap::OAuth2Manager"),
            ["~OAuth2Manager"] * 2 + ["HasRefreshToken", "FetchRefreshToken",
                                      "GetAccessToken", "ValidateResponse"])

    def test_token_manager_members(self):
        self.assertEqual(
            self.members("platform/ap/common/oauth2_manager.h",
                         "OAuth2Manager"),
            ["client_id_", "client_secret_", "scope_", "refresh_token_",
             "access_token_", "pending_callback_", "last_refresh_time_",
             "refresh_token_file_", "transport_", "weak_ptr_factory_"])

    def test_url_slots(self):
        self.assertEqual(self.slots(ACTIONS + "HTTPURL"), ["~HTTPURL"] * 2)

    def test_url_members(self):
        self.assertEqual(
            self.members(CLOUD_ACTIONS_FOLDER + "http_url.h", "HTTPURL"),
            ["host_", "path_"])

    def test_adaptor_slots(self):
        self.assertEqual(
            self.slots(ACTIONS + "CloudActionManagerDBusAdaptor"),
            ["~CloudActionManagerDBusAdaptor"] * 2 + ["RedirectRequest"])

    def test_adaptor_members(self):
        self.assertEqual(
            self.members(
                CLOUD_ACTIONS_FOLDER + "cloud_action_manager_dbus_adaptor.h",
                "CloudActionManagerDBusAdaptor"),
            ["adaptor_", "dbus_object_", "manager_", "weak_ptr_factory_"])

    def test_response_slots(self):
        for name in ("DBusMethodResponseBase", "DBusMethodResponse"):
            self.assertEqual(self.slots(DBUS_UTILS + name), ["~" + name] * 2)

    def test_method_handler_slots(self):
        self.assertEqual(
            self.slots(DBUS_UTILS + "DBusInterfaceMethodHandlerInterface"),
            ["0"] * 2 + ["__cxa_pure_virtual"])
        self.assertEqual(
            self.slots(DBUS_UTILS + "DBusInterfaceMethodHandler"),
            ["~DBusInterfaceMethodHandler"] * 2 + ["HandleMethod"])


if __name__ == "__main__":
    unittest.main()
