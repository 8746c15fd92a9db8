# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The package in a Debian that has System V init in place of systemd. One
system for all, in this order."""

import os
import re

import pytest

from machine import NAME, wait_until

ENDPOINT = "https://cloud.vantrel.example/v1/lamps"
SCRIPT = "/etc/init.d/cloud_action_daemon"
STATE = "/var/lib/cloud_action"


@pytest.fixture(scope="module")
def plain(new_machine):
    """Such a Debian, booted, without the package."""
    machine = new_machine("sysvinit")
    os.remove(machine.path("/usr/sbin/policy-rc.d"))
    machine.boot_sysvinit()
    return machine


def send(machine, name, path, member, *arguments):
    """Calls a method; what dbus-send says."""
    return machine.run("dbus-send", "--system", "--print-reply",
                       "--dest=" + name, path, member, *arguments,
                       check=False).stdout.strip()


def answers(machine):
    """Whether the service answers as it should. Has the bus start it if it is
    not there."""
    return send(machine, NAME, "/org/vantrel/actions/CloudActions/Manager",
                NAME + ".Manager.RedirectRequest", "string:" + ENDPOINT,
                "string:GET", "string:") == (
        "Error org.freedesktop.DBus.Error.Failed: actions/invalid_arguments: "
        "Endpoint %s not whitelisted" % ENDPOINT)


def serves(machine):
    """Waits for the service that the script has started, and calls it."""
    wait_until("the name of the service", lambda: send(
        machine, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.NameHasOwner",
        "string:" + NAME).endswith("boolean true"))
    assert answers(machine)


def test_installed_it_runs(plain, package):
    print("\nThe service runs under the System V init of a Debian of its own.")
    assert plain.output("cat", "/proc/1/comm") == "init"
    plain.install(package)
    serves(plain)
    pid = plain.output("pidof", "cloud_action_daemon")
    assert plain.output("cat", "/run/cloud_action_daemon.pid") == pid
    status = plain.output("cat", "/proc/%s/status" % pid)
    number = plain.output("id", "-u", "cloud-action")
    assert re.search(r"(?m)^Uid:\s+%s\s+%s\s" % (number, number), status)
    assert re.search(r"(?m)^CapEff:\s+0+$", status)
    assert re.search(r"(?m)^Umask:\s+0077$", status)
    assert plain.output("stat", "-c", "%a %U %G", STATE) == (
        "700 cloud-action cloud-action")


def test_it_is_started_after_the_bus(plain):
    order = sorted(os.listdir(plain.path("/etc/rc2.d")))
    names = [re.sub(r"^S\d\d", "", name) for name in order]
    assert names.index("dbus") < names.index("cloud_action_daemon")
    numbers = dict(zip(names, order))
    assert numbers["dbus"][1:3] < numbers["cloud_action_daemon"][1:3]


def test_it_runs_after_a_boot(plain):
    plain.stop()
    plain.boot_sysvinit()
    serves(plain)


def test_an_upgrade_restarts_it(plain, newer_package):
    old = plain.output("pidof", "cloud_action_daemon")
    token = plain.path(STATE + "/refresh_token")
    with open(token, "w", encoding="ascii") as file:
        file.write("stored-token")
    plain.run("chown", "cloud-action:", STATE + "/refresh_token")
    plain.install(newer_package)
    serves(plain)
    assert plain.output("pidof", "cloud_action_daemon") != old
    assert os.path.exists(token)


def test_the_script_stops_what_the_bus_started(plain):
    plain.run(SCRIPT, "stop")
    assert plain.pid() is None
    assert answers(plain)
    assert plain.run(SCRIPT, "status").returncode == 0
    plain.run(SCRIPT, "stop")
    assert plain.pid() is None
    plain.run(SCRIPT, "start")
    serves(plain)


def test_purged_it_is_gone(plain):
    plain.run("apt-get", "purge", "-y", "-q", "cloud-action-daemon")
    wait_until("the end of the process", lambda: plain.pid() is None)
    for path in (STATE, SCRIPT, "/etc/ap"):
        assert not os.path.lexists(plain.path(path)), path
