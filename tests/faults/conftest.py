# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What the fault injection runs share: see README.md beside this file."""

import os
import platform
import sys

import pytest

TESTS = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
for folder in ("support", "fakes"):
    sys.path.insert(0, os.path.join(TESTS, folder))

# pylint: disable=wrong-import-position
import daemon_process
import pki
from bus import PrivateBus
from bus_client import BusClient, LoopThread
from cloud import AUTHORITY, CloudApi, IdentityProvider, Server
from injection import LIMIT_S, MARK, Agent, Control, World, build


def pytest_addoption(parser):
    parser.addoption(
        "--daemon", metavar="PATH",
        default=os.path.join(os.path.dirname(TESTS), "build", "release",
                             "bin", "cloud_action_daemon"),
        help="the daemon to test (default: %(default)s)")
    parser.addoption(
        "--every", action="store_true",
        help="let every single call fail, not only one of each kind")


def pytest_collection_modifyitems(items):
    if platform.machine() != "x86_64":
        for item in items:
            item.add_marker(pytest.mark.skip(
                reason="the tools that let calls fail know x86-64 only"))


def pytest_sessionstart(session):
    if not os.path.isdir(AUTHORITY):
        pytest.exit("not inside the sandbox: run tests/support/sandbox -- "
                    "/usr/bin/python3 -m pytest tests/faults", 64)
    program = session.config.getoption("--daemon")
    if not os.access(program, os.X_OK):
        pytest.exit("there is no program at " + program, 64)


@pytest.fixture(scope="session")
def every(request):
    return request.config.getoption("--every")


@pytest.fixture(scope="session")
def world(request, tmp_path_factory):
    """The peers, all up."""
    folder = str(tmp_path_factory.mktemp("certificates"))
    daemon_process.Files.clear()
    daemon_process.Files.write(
        daemon_process.CONFIG,
        "SMARTHOME_CLIENT_ID=client-1\nSMARTHOME_CLIENT_SECRET=%s-secret\n"
        "SMARTHOME_SCOPE=a-scope\n" % MARK)
    provider = IdentityProvider(MARK)
    servers = [
        Server(address, 443, pki.issue(AUTHORITY, folder, name,
                                       [name + ".vantrel.example"]),
               answer=answer)
        for address, name, answer in (
            ("127.0.0.1", "identity", provider),
            ("127.0.0.2", "cloud", CloudApi(provider)))]
    syslog = daemon_process.Syslog()
    loop = LoopThread()
    with PrivateBus() as bus:
        client = BusClient(loop, bus.address)
        agent = Agent(LIMIT_S)
        agent.appear()
        program = os.path.abspath(request.config.getoption("--daemon"))
        yield World(program, client, agent, provider, *servers)
        agent.stop()
        client.close()
    loop.stop()
    for server in servers:
        server.stop()
    said = [text for _, _, text in syslog.wait_for(1)]
    strays = list(syslog.strays)
    syslog.close()
    daemon_process.Files.clear()
    assert not [text for text in said if MARK in text]
    assert not [data for data in strays if MARK.encode() in data]


@pytest.fixture(scope="session")
def tools(tmp_path_factory):
    return str(tmp_path_factory.mktemp("tools"))


@pytest.fixture(scope="session")
def control(tools):
    return Control(os.path.join(tools, "control"))


@pytest.fixture(scope="session")
def stepper(tools):
    """The program that has system calls go wrong."""
    return build("stepper.cc", os.path.join(tools, "stepper"))


@pytest.fixture(autouse=True)
def ended(world):
    """No run goes on when a test is over."""
    yield
    world.end_run()
