# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The package in a Debian that was installed without running, and is then
booted: the service as its unit has it. One system for all, in this order."""

import os
import re
import subprocess
import sys
import time

import pytest

from machine import HERE, wait_until

UNIT = "cloud_action_daemon.service"
REFUSED = ("Call failed: actions/invalid_arguments: Endpoint "
           "http://cloud.vantrel.example:8080/v1/lamps not whitelisted")
ENDPOINT = "http://cloud.vantrel.example:8080/v1/lamps"
STATE = "/var/lib/cloud_action/"
DROP_INS = "/etc/systemd/system/cloud_action_daemon.service.d/"
EXAMPLE = "/usr/share/doc/cloud-action-daemon/examples/10-network.conf"


@pytest.fixture(scope="module")
def cloud(booted):
    """A cloud in the system's own network."""
    with open(booted.path("/etc/hosts"), "a", encoding="ascii") as file:
        file.write("127.0.0.2 cloud.vantrel.example\n")
    with subprocess.Popen(
            booted.in_its_network(sys.executable,
                                  os.path.join(HERE, "http_server.py"),
                                  "8080"),
            stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout.readline() == "ready\n"
        yield
        process.kill()


def restarted(booted, old):
    """Waits for the unit to have another process than `old`, and be up."""
    def other():
        pid = booted.property("MainPID")
        return (pid not in ("0", old) and pid
                if booted.property("ActiveState") == "active" else None)
    return wait_until("another process of the unit", other)


def test_it_is_up_after_the_boot(booted):
    print("\nThe service runs under the systemd of a Debian of its own.")
    assert booted.output("systemctl", "is-enabled", UNIT) == "enabled"
    wait_until("the service", lambda: booted.property("ActiveState") ==
               "active")
    # Type=notify: it is active because it has said so.
    assert booted.property("Type") == "notify"
    assert booted.property("NRestarts") == "0"
    assert booted.property("Result") == "success"
    assert booted.output("systemctl", "--failed", "--plain",
                         "--no-legend") == ""


def test_its_status_text_says_nothing_secret_if_there_is_one(booted):
    assert "token" not in booted.property("StatusText").lower()


def test_the_users_and_folders_are_there(booted):
    user = booted.output("getent", "passwd", "cloud-action")
    assert user.endswith(":/var/lib/cloud_action:/usr/sbin/nologin")
    assert booted.output("getent", "group", "cloud-action-clients")
    assert booted.output("stat", "-c", "%A %U %G", STATE) == (
        "drwx------ cloud-action cloud-action")
    assert booted.output("stat", "-c", "%A %U %G", "/etc/ap") == (
        "drwxr-xr-x root root")
    assert booted.output("ls", "-A", "/etc/ap") == ""


def test_who_may_call_is_answered(booted):
    booted.run("useradd", "-G", "cloud-action-clients", "member")
    booted.run("useradd", "stranger")
    assert booted.call(ENDPOINT) == REFUSED
    assert booted.call(ENDPOINT, user="member") == REFUSED
    assert booted.call(ENDPOINT, user="stranger").startswith(
        "Call failed: Access denied")


def test_the_sandbox_of_the_unit_is_in_force(booted):
    pid = booted.property("MainPID")
    status = dict(re.findall(r"(?m)^(\w+):\s*(.*)$",
                             booted.output("cat", "/proc/%s/status" % pid)))
    number = booted.output("id", "-u", "cloud-action")
    assert status["Uid"].split() == [number] * 4
    assert status["Seccomp"] == "2"
    assert status["NoNewPrivs"] == "1"
    for kind in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert status[kind] == "0" * 16, kind
    # What it sees: a system that cannot be written to but for its state.
    mounts = {}
    for line in booted.output("cat", "/proc/%s/mountinfo" % pid).splitlines():
        fields = line.split()
        mounts[fields[4]] = fields[5].split(",")
    assert "ro" in mounts["/"]
    assert "rw" in mounts["/var/lib/cloud_action"]
    assert "/home" in mounts and "/dev" in mounts
    limits = booted.output("cat", "/proc/%s/limits" % pid)
    assert re.search(r"Max core file size +0 +0 ", limits)


def test_the_system_log_has_each_line_once(booted):
    def lines():
        text = booted.output("journalctl", "-u", UNIT, "-o", "cat")
        return [line for line in text.splitlines() if line.startswith("[")]
    wait_until("the log", lines)
    said = [line for line in lines() if "config file" in line]
    assert len(said) == 1, lines()


def test_a_request_goes_out_and_comes_back(booted, cloud):
    booted.run("install", "-m", "0640", "/dev/stdin", "/etc/ap/unused")
    with open(booted.path("/etc/ap/cloud_action.conf"), "w",
              encoding="ascii") as file:
        file.write("SMARTHOME_CLIENT_ID=id\nSMARTHOME_CLIENT_SECRET=secret\n"
                   "SMARTHOME_SCOPE=scope\n")
    os.remove(booted.path("/etc/ap/unused"))
    for name, text in (("refresh_token", "stored-token"),
                       ("allowed_endpoints", "http://cloud.vantrel.example")):
        with open(booted.path(STATE + name), "w", encoding="ascii") as file:
            file.write(text)
        booted.run("chown", "cloud-action:", STATE + name)
        booted.run("chmod", "0600", STATE + name)
    # The mode of the configuration is the package's business.
    booted.run("systemd-tmpfiles", "--create", "cloud_action_daemon.conf")
    assert booted.output("stat", "-c", "%a %U %G",
                         "/etc/ap/cloud_action.conf") == (
                             "640 root cloud-action")
    booted.run("systemctl", "restart", UNIT)
    assert booted.call(ENDPOINT) == r'is 200 "{\"path\":\"/v1/lamps\"}"'
    log = booted.output("journalctl", "-u", UNIT, "-o", "cat", "--since",
                        booted.property("ExecMainStartTimestamp"))
    assert "config" not in log


def test_it_is_started_again_when_it_is_killed(booted, cloud):
    old = booted.property("MainPID")
    booted.run("systemctl", "kill", "--signal=KILL", UNIT)
    restarted(booted, old)
    assert booted.property("NRestarts") == "1"
    assert "is 200" in booted.call(ENDPOINT)


def test_a_hangup_has_it_read_its_configuration_again(booted, cloud):
    old = booted.property("MainPID")
    booted.run("systemctl", "kill", "--signal=HUP", UNIT)
    restarted(booted, old)
    assert "is 200" in booted.call(ENDPOINT)


def test_it_stops_at_once_and_is_started_by_a_call(booted, cloud):
    begin = time.monotonic()
    booted.run("systemctl", "stop", UNIT)
    assert time.monotonic() - begin < 10
    assert booted.property("ActiveState") == "inactive"
    assert booted.property("Result") == "success"
    assert booted.pid() is None
    # The bus file has systemd start the unit, and the call waits for it.
    assert "is 200" in booted.call(ENDPOINT)
    assert booted.property("ActiveState") == "active"
    assert booted.property("MainPID") == booted.output(
        "pidof", "cloud_action_daemon")


def test_the_unit_is_as_tight_as_it_claims(booted):
    said = booted.output("systemd-analyze", "security", "--no-pager", UNIT)
    level = re.search(r"Overall exposure level for \S+ (\d+\.\d)", said)
    assert float(level.group(1)) <= 1.1, said


def test_the_example_of_a_network_limit_works(booted, cloud):
    booted.run("install", "-D", "-m", "0644", EXAMPLE,
               DROP_INS + "10-network.conf")
    booted.run("systemctl", "daemon-reload")
    booted.run("systemctl", "restart", UNIT)
    if "firewalling" in booted.output("journalctl", "-u", UNIT, "-o", "cat"):
        pytest.skip("the kernel cannot filter by control group")
    # Not among the networks of the example: what goes there is dropped.
    assert "timed out" in booted.call(ENDPOINT, timeout=3)
    with open(booted.path(DROP_INS + "20-cloud.conf"), "w",
              encoding="ascii") as file:
        file.write("[Service]\nIPAddressAllow=127.0.0.2\n")
    booted.run("systemctl", "daemon-reload")
    booted.run("systemctl", "restart", UNIT)
    assert "is 200" in booted.call(ENDPOINT)
