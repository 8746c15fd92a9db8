# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Fixtures of the packaging tests: see README.md beside this file."""

import os
import shutil
import subprocess
import sys
import tempfile

import pytest

TESTS = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
PROJECT = os.path.dirname(TESTS)
for folder in ("support", "fakes"):
    sys.path.insert(0, os.path.join(TESTS, folder))

# pylint: disable=wrong-import-position
from bus_peer import Peer
from cloud import AUTHORITY
from daemon_process import NAME
from system_bus import SOCKET, SystemBus

POLICY = "packaging/dbus/org.vantrel.actions.CloudActions.conf"

# Beside those that we ship: the bus's own, a caller, and anybody else.
USERS = """\
u messagebus - "Message Bus"
u member - "May call"
m member cloud-action-clients
u plain - "Anybody"
u agent - "Device Cloud Agent"
"""


def pytest_addoption(parser):
    parser.addoption(
        "--daemon", metavar="PATH",
        default=os.path.join(PROJECT, "build", "release", "bin",
                             "cloud_action_daemon"),
        help="the daemon to install (default: %(default)s)")
    parser.addoption(
        "--openrc", metavar="DIR",
        default=os.path.join(PROJECT, "build", "openrc"),
        help="where OpenRC is unpacked (default: %(default)s)")


def pytest_sessionstart(session):
    if not os.path.isdir(AUTHORITY) or os.geteuid() != 0:
        pytest.exit("not inside the sandbox: run tests/packaging/run", 64)
    program = session.config.getoption("--daemon")
    if not os.access(program, os.X_OK):
        pytest.exit("there is no program at " + program, 64)


@pytest.fixture(scope="session", autouse=True)
def users():
    """The users that we ship and those of the tests, made as on a device."""
    subprocess.run(
        ["systemd-sysusers", os.path.join(
            PROJECT, "packaging/sysusers.d/cloud_action_daemon.conf")],
        check=True)
    subprocess.run(["systemd-sysusers", "-"], input=USERS, text=True,
                   check=True)


class Build:
    """A configured build tree, as a packager has it."""

    def __init__(self, folder, program):
        self.folder = folder
        self._program = program

    def configure(self, **variables):
        """Configures anew; what is not named gets its default again."""
        shutil.rmtree(self.folder, ignore_errors=True)
        subprocess.run(
            ["cmake", "-S", PROJECT, "-B", self.folder, "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=Release", "-DCLOUD_ACTION_TESTS=OFF",
             *("-D%s=%s" % pair for pair in variables.items())],
            check=True, stdout=subprocess.DEVNULL)
        # It was built elsewhere, with the same sources.
        os.makedirs(os.path.join(self.folder, "bin"), exist_ok=True)
        shutil.copy(self._program, os.path.join(self.folder, "bin",
                                                "cloud_action_daemon"))

    def install(self, destination):
        subprocess.run(
            ["cmake", "--install", self.folder], check=True,
            stdout=subprocess.DEVNULL,
            env={**os.environ, "DESTDIR": destination})


@pytest.fixture(scope="session")
def program(request):
    """The path of the daemon under test."""
    return os.path.abspath(request.config.getoption("--daemon"))


@pytest.fixture(scope="session")
def build(program, tmp_path_factory):
    return Build(str(tmp_path_factory.mktemp("build")), program)


@pytest.fixture(scope="session")
def image(build, tmp_path_factory):
    """The root of an image for systemd, under /usr; to be left as it is."""
    folder = str(tmp_path_factory.mktemp("image"))
    build.configure(CMAKE_INSTALL_PREFIX="/usr")
    build.install(folder)
    return folder


@pytest.fixture(scope="module")
def bus():
    """A system bus with the policy that ships."""
    folder = "/etc/dbus-1/system.d"
    os.makedirs(folder, exist_ok=True)
    shutil.copy(os.path.join(PROJECT, POLICY), folder)
    with SystemBus("dbus-daemon") as system_bus:
        yield system_bus
    shutil.rmtree(folder)


@pytest.fixture
def root_peer(bus):
    peer = Peer(SOCKET)
    yield peer
    peer.close()


@pytest.fixture(scope="session")
def device():
    """A folder that all users can get at, as those on a device."""
    with tempfile.TemporaryDirectory(prefix="device-") as folder:
        os.chmod(folder, 0o755)
        yield folder


@pytest.fixture
def running_daemon(bus, program, device):
    """The daemon, as its own user, on the bus."""
    path = shutil.copy(program, device)
    with subprocess.Popen(
            [path], user="cloud-action", group="cloud-action",
            extra_groups=[], stdin=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL) as process:
        peer = Peer(SOCKET)
        peer.wait_for_owner(NAME)
        peer.close()
        yield process
        process.terminate()
        assert process.wait(20) == 0
