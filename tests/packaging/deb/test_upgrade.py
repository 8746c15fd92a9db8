# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The package comes, is replaced and goes in a running Debian. One system for
all, in this order."""

import os

from machine import wait_until

UNIT = "cloud_action_daemon.service"
ENDPOINT = "https://cloud.vantrel.example/v1/lamps"
KEPT = {
    "/etc/ap/cloud_action.conf": "SMARTHOME_CLIENT_SECRET=secret\n",
    "/var/lib/cloud_action/refresh_token": "stored-token",
    "/var/lib/cloud_action/allowed_endpoints": "https://cloud.vantrel.example",
}


def kept(machine):
    """Those of the files that are there, and what is in them."""
    found = {}
    for path in KEPT:
        if os.path.exists(machine.path(path)):
            with open(machine.path(path), encoding="ascii") as file:
                found[path] = file.read()
    return found


def is_up(machine):
    """Whether the service runs and serves from what is stored."""
    assert machine.property("ActiveState") == "active"
    # The endpoint is allowed, so it is looked up; there is no name server.
    assert machine.call(ENDPOINT).startswith("Call failed: http/resolve: ")


def test_it_runs_as_soon_as_it_is_installed(running, package):
    # The bus runs before the user that its policy names is there.
    running.run("apt-get", "install", "-y", "-q", "--no-install-recommends",
                "dbus")
    running.run("systemctl", "start", "dbus.service")
    running.install(package)
    assert running.property("ActiveState") == "active"
    # It could own its name at the first try.
    assert running.property("NRestarts") == "0"
    assert running.call(ENDPOINT) == (
        "Call failed: actions/invalid_arguments: Endpoint %s not whitelisted"
        % ENDPOINT)


def test_an_upgrade_restarts_it_and_keeps_all(running, newer_package):
    running.run("systemctl", "stop", UNIT)
    for path, text in KEPT.items():
        with open(running.path(path), "w", encoding="ascii") as file:
            file.write(text)
        if path.startswith("/var"):
            running.run("chown", "cloud-action:", path)
    running.run("systemctl", "start", UNIT)
    old = running.property("MainPID")
    running.install(newer_package)
    assert running.output("dpkg-query", "-W", "-f", "${Version}",
                          "cloud-action-daemon").endswith("+newer")
    assert running.property("MainPID") not in ("0", old)
    assert kept(running) == KEPT
    assert running.output("stat", "-c", "%a %U %G",
                          "/etc/ap/cloud_action.conf") == (
                              "640 root cloud-action")
    is_up(running)


def test_an_upgrade_leaves_off_what_was_switched_off(running, package):
    running.run("systemctl", "disable", "--now", UNIT)
    running.run("apt-get", "install", "-y", "-q", "--allow-downgrades",
                "/root/" + os.path.basename(package))
    assert running.run("systemctl", "is-enabled", UNIT,
                       check=False).stdout.strip() == "disabled"
    running.run("systemctl", "enable", "--now", UNIT)
    is_up(running)


def test_removal_stops_it_and_keeps_the_credential(running):
    running.run("apt-get", "remove", "-y", "-q", "cloud-action-daemon")
    wait_until("the end of the process", lambda: running.pid() is None)
    assert kept(running) == KEPT
    assert "Call failed" in running.call(ENDPOINT)
    assert running.property("LoadState") in ("not-found", "masked")


def test_installed_again_it_goes_on_where_it_was(running, package):
    running.install(package)
    assert kept(running) == KEPT
    is_up(running)


def test_purged_it_leaves_no_secret(running):
    running.run("apt-get", "purge", "-y", "-q", "cloud-action-daemon")
    assert kept(running) == {}
    for path in ("/etc/ap", "/var/lib/cloud_action",
                 "/etc/init.d/cloud_action_daemon"):
        assert not os.path.lexists(running.path(path)), path
    left = running.run("find", "/etc", "/var/lib/systemd", "/usr", "-name",
                       "*cloud*action*").stdout
    assert left == ""
    # So that nobody else is ever given their numbers.
    assert running.output("getent", "passwd", "cloud-action")


def test_a_fresh_start_after_that_works(running, package):
    running.install(package)
    assert running.output("systemctl", "is-enabled", UNIT) == "enabled"
    assert "not whitelisted" in running.call(ENDPOINT)


def test_a_purge_leaves_what_is_not_its_own(running):
    other = running.path("/etc/ap/other.conf")
    with open(other, "w", encoding="ascii"):
        pass
    running.run("apt-get", "purge", "-y", "-q", "cloud-action-daemon")
    assert os.path.exists(other)
