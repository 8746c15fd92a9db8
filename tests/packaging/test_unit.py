# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The unit file, as systemd itself judges it."""

import ipaddress
import json
import os
import shutil
import subprocess

import pytest

UNIT = "/usr/lib/systemd/system/cloud_action_daemon.service"
EXAMPLE = "/usr/share/doc/cloud_action_daemon/examples/10-network.conf"
DROP_IN = "/etc/systemd/system/cloud_action_daemon.service.d/10-network.conf"

# What systemd has to find fault with, and how much: it runs from the device's
# own files and talks over the network. The device is the clock, to be read:
# ProtectClock brings it.
EXPOSED = {"RootDirectoryOrRootImage": "0.1",
           "RestrictAddressFamilies_AF_NETLINK": "0.1",
           "RestrictAddressFamilies_AF_UNIX": "0.1",
           "RestrictAddressFamilies_AF_INET_INET6": "0.3",
           "PrivateNetwork": "0.5",
           "DeviceAllow": "0.1",
           "IPAddressDeny": "0.2"}
EXPOSED_WITH_EXAMPLE = {**EXPOSED, "IPAddressDeny": "0.1"}


@pytest.fixture
def root(image, tmp_path):
    """An image with the unit and what it refers to."""
    folder = shutil.copytree(image, str(tmp_path), dirs_exist_ok=True)
    # The units that it names, and the system's own targets.
    shutil.copytree("/usr/lib/systemd/system",
                    folder + "/usr/lib/systemd/system", symlinks=True,
                    dirs_exist_ok=True)
    os.symlink("usr/lib", folder + "/lib")
    return folder


@pytest.fixture
def tightened(root):
    """The same with the example in its place."""
    os.makedirs(os.path.dirname(root + DROP_IN))
    shutil.copy(root + EXAMPLE, root + DROP_IN)
    return root


def analyze(*arguments):
    done = subprocess.run(["systemd-analyze", "--no-pager", *arguments],
                          capture_output=True, text=True, check=False)
    return done.returncode, done.stdout + done.stderr


def verify(root):
    # The manual pages would be looked up on this machine.
    return analyze("verify", "--root=" + root, "--man=no", UNIT)


def exposed(root):
    code, said = analyze("security", "--offline=true", "--json=short",
                         "--root=" + root, UNIT)
    assert code == 0, said
    return {item["json_field"]: item["exposure"] for item in json.loads(said)
            if item["exposure"]}


def test_systemd_finds_nothing_wrong(root):
    assert verify(root) == (0, "")


def test_systemd_finds_nothing_wrong_with_the_example(tightened):
    assert verify(tightened) == (0, "")


def test_systemd_does_find_what_is_wrong(root):
    with open(root + UNIT, "a", encoding="ascii") as file:
        file.write("[Service]\nProtectHom=yes\n")
    _, said = verify(root)
    assert "ProtectHom" in said
    os.unlink(root + "/usr/sbin/cloud_action_daemon")
    code, said = verify(root)
    assert code != 0 and "is not executable" in said


# What systemd does not judge, but the daemon or its owner relies on.
RELIED_ON = """\
Requires=dbus.socket
After=dbus.socket
After=time-sync.target network.target
WantedBy=multi-user.target
User=cloud-action
Group=cloud-action
Type=notify
Restart=always
RestartSec=1
StartLimitIntervalSec=0
TimeoutStopSec=90
StandardError=null
StateDirectory=cloud_action
StateDirectoryMode=0700
UMask=0077
LimitCORE=0
AmbientCapabilities=
DevicePolicy=closed
PrivateIPC=yes
KeyringMode=private
"""


def test_what_the_daemon_relies_on_is_said(root):
    with open(root + UNIT, encoding="utf-8") as file:
        lines = file.read().splitlines()
    assert [line for line in RELIED_ON.splitlines() if line not in lines] == []


def test_just_what_it_needs_is_exposed(root):
    assert exposed(root) == EXPOSED


def test_less_is_exposed_with_the_example(tightened):
    assert exposed(tightened) == EXPOSED_WITH_EXAMPLE


def test_the_example_sets_limits_and_allows_networks_only(root):
    with open(root + EXAMPLE, encoding="utf-8") as file:
        lines = [line for line in file.read().splitlines()
                 if line and not line.startswith("#")]
    allow = "IPAddressAllow="
    assert [line for line in lines if not line.startswith(allow)] == [
        "[Service]", "IPAddressDeny=any", "LimitNOFILE=1024", "TasksMax=256",
        "MemoryMax=256M", "MemorySwapMax=0"]
    allowed = [ipaddress.ip_network(network) for line in lines
               if line.startswith(allow)
               for network in line[len(allow):].split()]
    assert allowed
    # Neither all there is, nor one of the words for more than a network.
    assert min(network.prefixlen for network in allowed) > 0
