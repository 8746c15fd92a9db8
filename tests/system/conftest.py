# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Fixtures of the system tests: see README.md beside this file."""

import collections
import itertools
import os
import sys

import pytest

TESTS = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
for folder in ("support", "fakes"):
    sys.path.insert(0, os.path.join(TESTS, folder))

# pylint: disable=wrong-import-position
import call_filter
import daemon_process
import memory_scan
import pki
from agent_process import AgentProcess
from bus import PrivateBus
from bus_client import BusClient, LoopThread
from cloud import AUTHORITY, CloudApi, IdentityProvider, Server

# Stands in every secret that a test makes up.
MARK = "S3CR3T"
SWEEP = "test_sweep.py"

_numbers = itertools.count(1)


def pytest_addoption(parser):
    parser.addoption(
        "--daemon", metavar="PATH",
        default=os.path.join(os.path.dirname(TESTS), "build", "release",
                             "bin", "cloud_action_daemon"),
        help="the daemon to test (default: %(default)s)")


def pytest_sessionstart(session):
    if not os.path.isdir(AUTHORITY):
        pytest.exit("not inside the sandbox: run tests/support/sandbox -- "
                    "/usr/bin/python3 -m pytest tests/system", 64)
    program = session.config.getoption("--daemon")
    if not os.access(program, os.X_OK):
        pytest.exit("there is no program at " + program, 64)


def pytest_collection_modifyitems(items):
    # The sweep looks at what all the other tests collected.
    items.sort(key=lambda item: item.path.name == SWEEP)


def secret(kind):
    """A fresh value that must never show up in what the daemon says."""
    return "%s-%s-%d" % (MARK, kind, next(_numbers))


class Output:
    """All that daemons said in this run of pytest, by kind."""

    def __init__(self):
        self.texts = collections.defaultdict(list)

    def collect(self, kind, text):
        self.texts[kind].append(text)


@pytest.fixture(scope="session")
def output():
    return Output()


@pytest.fixture(scope="session")
def program(request):
    """The path of the daemon under test."""
    return os.path.abspath(request.config.getoption("--daemon"))


@pytest.fixture(scope="session")
def loop():
    thread = LoopThread()
    yield thread
    thread.stop()


@pytest.fixture
def bus():
    """A bus of the test's own, at the usual address."""
    with PrivateBus() as private_bus:
        yield private_bus


@pytest.fixture
def client(loop, bus, output):
    """A peer on the bus; collects the errors it gets for the sweep."""
    peer = BusClient(loop, bus.address,
                     lambda text: output.collect("error", text))
    yield peer
    peer.close()


class Caller:
    """Calls the daemon's one method."""

    def __init__(self, client):
        self._client = client

    def start(self, endpoint, method="GET", body=""):
        """Sends a call and returns the pending reply."""
        return self.start_raw("sss", [endpoint, method, body])

    def start_raw(self, signature, arguments):
        """Sends a call with any arguments."""
        return self._client.start(
            daemon_process.NAME, daemon_process.PATH,
            daemon_process.INTERFACE, "RedirectRequest", signature, arguments)

    def request(self, endpoint, method="GET", body=""):
        """Calls and returns (status, body); raises CallError."""
        return self.result(self.start(endpoint, method, body))

    @staticmethod
    def result(pending, deadline_s=60):
        signature, (status, body) = pending.result(deadline_s)
        assert signature == "is"
        return int(status), str(body)

    def sync(self):
        """Returns when the daemon has taken all that was sent before."""
        self._client.call(daemon_process.NAME, daemon_process.PATH,
                          "org.freedesktop.DBus.Peer", "Ping")


@pytest.fixture
def caller(client):
    return Caller(client)


@pytest.fixture
def files():
    """The configuration and state folders, empty to begin with."""
    daemon_process.Files.clear()
    yield daemon_process.Files
    daemon_process.Files.clear()


@pytest.fixture
def config(files):
    """A complete configuration, written to its place."""
    values = {"SMARTHOME_CLIENT_ID": "client-1",
              "SMARTHOME_CLIENT_SECRET": secret("client-secret"),
              "SMARTHOME_SCOPE": "https://scope.vantrel.example/auth/a"}
    files.write(daemon_process.CONFIG, "".join(
        "%s=%s\n" % pair for pair in values.items()))
    return values


@pytest.fixture(scope="session")
def filtered(program, tmp_path_factory):
    """Has the daemon run under the unit's filter, unless a sanitizer, which
    makes calls of its own, is in it."""
    if memory_scan.sanitized(program):
        return ()
    return call_filter.launcher(str(tmp_path_factory.mktemp("filter")))


@pytest.fixture
def daemon(program, filtered, client, config, output):
    """The daemon, not yet started; must end well when the test is over."""
    syslog = daemon_process.Syslog()
    one = daemon_process.Daemon(program, client, syslog, output.collect,
                                filtered)
    try:
        yield one
        one.tear_down()
    finally:
        try:
            if one.running():
                one.send_signal(9)
                one.wait_for_exit()
        finally:
            syslog.close()


@pytest.fixture
def agent():
    """The device cloud agent, not yet on the bus."""
    process = AgentProcess()
    yield process
    process.stop()


@pytest.fixture(scope="session")
def certificate(tmp_path_factory):
    """Gives a certificate for a host name, from the authority or another."""
    folder = tmp_path_factory.mktemp("certificates")
    made = {}

    def make(name, expired=False, authority=AUTHORITY):
        if (name, expired, authority) not in made:
            made[name, expired, authority] = pki.issue(
                authority, str(folder), "%s-%d" % (name, len(made)), [name],
                expired)
        return made[name, expired, authority]
    return make


@pytest.fixture(scope="session")
def other_authority(tmp_path_factory):
    """An authority that the daemon does not trust."""
    folder = str(tmp_path_factory.mktemp("other-authority"))
    pki.make_ca(folder, "Another authority")
    return folder


@pytest.fixture
def serve(certificate):
    """Starts servers that end with the test."""
    servers = []

    def start(host, address, port=443, tls=True, **more):
        pair = more.pop("certificate", None) if tls else None
        if tls and not pair:
            pair = certificate(host)
        server = Server(address, port, pair, **more)
        servers.append(server)
        return server
    yield start
    for server in servers:
        server.stop()


@pytest.fixture
def provider():
    """What the identity provider knows: tokens given and taken."""
    return IdentityProvider(MARK)


@pytest.fixture
def identity(serve, provider):
    """The identity provider, behaving as usual unless told otherwise."""
    return serve("identity.vantrel.example", "127.0.0.1", answer=provider)


@pytest.fixture
def cloud(serve, provider):
    """The cloud's API over HTTP/1.1."""
    return serve("cloud.vantrel.example", "127.0.0.2",
                 answer=CloudApi(provider))


@pytest.fixture
def cloud2(serve, provider):
    """The cloud's API over HTTP/2 (and 1.1 for who asks for it)."""
    return serve("cloud.vantrel.example", "127.0.0.2",
                 protocols=("h2", "http/1.1"), answer=CloudApi(provider))


# What a provisioned daemon holds.
Credential = collections.namedtuple("Credential",
                                    "refresh_token access_token")

ENDPOINT = "https://cloud.vantrel.example/v1/"


@pytest.fixture
def stored(files, provider):
    """Stored state of an earlier run: a refresh token, and the endpoints."""
    def store(*endpoints):
        token = provider.make("refresh")
        files.write(daemon_process.REFRESH_TOKEN, token)
        files.write(daemon_process.ENDPOINTS,
                    ",".join(endpoints or (ENDPOINT,)))
        return token
    return store


@pytest.fixture
def provision(daemon, stored, provider, identity):
    """Starts the daemon with stored state and waits for its access token."""

    def start(*endpoints):
        refresh_token = stored(*endpoints)
        daemon.start()
        daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
        (access_token,) = provider.access_tokens
        return Credential(refresh_token, access_token)
    return start
