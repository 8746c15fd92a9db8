#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Sends one request through the cloud action daemon, from Python.

Usage: redirect_request.py ENDPOINT METHOD [BODY]

Prints the cloud's status code and its answer, or the D-Bus error.
"""

import sys

import dbus

NAME = "org.vantrel.actions.CloudActions"
PATH = "/org/vantrel/actions/CloudActions/Manager"
INTERFACE = "org.vantrel.actions.CloudActions.Manager"

# The daemon gives a request 30 seconds. Whoever waits no longer than that, or
# only for the 25 seconds of the default, never learns how it ended.
TIMEOUT_S = 45


def main():
    if len(sys.argv) not in (3, 4):
        print(__doc__.strip().split("\n\n")[1], file=sys.stderr)
        return 64
    endpoint, method = sys.argv[1:3]
    body = sys.argv[3] if len(sys.argv) == 4 else ""
    try:
        manager = dbus.Interface(
            dbus.SystemBus().get_object(NAME, PATH, introspect=False),
            INTERFACE)
        status_code, response_body = manager.RedirectRequest(
            endpoint, method, body, signature="sss", timeout=TIMEOUT_S)
    except dbus.DBusException as error:
        print("%s: %s" % (error.get_dbus_name(), error.get_dbus_message()),
              file=sys.stderr)
        return 1
    print(status_code, response_body)
    return 0


if __name__ == "__main__":
    sys.exit(main())
