# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The unit file, as systemd itself judges it."""

import os
import re
import shutil
import subprocess

import pytest

UNIT = "/usr/lib/systemd/system/cloud_action_daemon.service"
EXAMPLE = "/usr/share/doc/cloud_action_daemon/examples/10-network.conf"
DROP_IN = "/etc/systemd/system/cloud_action_daemon.service.d/10-network.conf"

# 10 is wide open, 0 would be shut.
WORST_EXPOSURE = 1.1
WORST_EXPOSURE_WITH_EXAMPLE = 1.0


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


def exposure(root):
    code, said = analyze("security", "--offline=true", "--root=" + root, UNIT)
    found = re.search(r"Overall exposure level for cloud_action_daemon\.service"
                      r": (\d+\.\d+) ", said)
    assert found and code == 0, said
    return float(found[1])


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
"""


def test_what_the_daemon_relies_on_is_said(root):
    with open(root + UNIT, encoding="utf-8") as file:
        lines = file.read().splitlines()
    assert [line for line in RELIED_ON.splitlines() if line not in lines] == []


def test_little_is_exposed(root):
    assert exposure(root) <= WORST_EXPOSURE


def test_less_is_exposed_with_the_example(tightened):
    assert exposure(tightened) <= WORST_EXPOSURE_WITH_EXAMPLE
