# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What the service manager is told in words."""

import os
import select
import socket
import threading
import time

import pytest
from cloud import Reply
from conftest import ENDPOINT, secret

ADDRESS = "/run/notify-of-a-test"


class Supervisor:
    """The service manager's end of the notification socket."""

    def __init__(self, collect):
        self._collect = collect
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(ADDRESS)
        self.notes = []

    def _take(self, timeout_s):
        if not select.select([self._socket], [], [], timeout_s)[0]:
            return
        note = self._socket.recv(1 << 16).decode()
        self._collect("status", note)
        self.notes.append(note)

    def wait_for(self, *notes, deadline_s=10):
        """Waits until just these have come since the last call."""
        end = time.monotonic() + deadline_s
        while self.notes[-1:] != [notes[-1]] and time.monotonic() < end:
            self._take(end - time.monotonic())
        assert self.notes == list(notes)
        self.notes = []

    def close(self):
        self._socket.close()
        os.unlink(ADDRESS)


@pytest.fixture
def supervisor(output):
    one = Supervisor(output.collect)
    yield one
    one.close()


TOLD = {"NOTIFY_SOCKET": ADDRESS}


def status(held, in_flight=0):
    return "STATUS=%s; requests in flight: %d" % (
        "Credential held" if held else "No credential", in_flight)


def test_a_device_without_a_credential_says_so(daemon, supervisor):
    daemon.start(environment=TOLD)
    supervisor.wait_for("READY=1", status(held=False))
    assert daemon.stop() == 0
    supervisor.wait_for("STOPPING=1")


def test_a_credential_that_comes_and_goes_is_told(
        daemon, supervisor, agent, identity):
    agent.appear()
    daemon.start(environment=TOLD)
    agent.wait_for_call("UpdateState")
    supervisor.wait_for("READY=1", status(held=False))
    command = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", command)
    supervisor.wait_for(status(held=True))
    command = agent.remove_credential()
    agent.wait_for_call("Complete", command)
    supervisor.wait_for(status(held=False))


# The agent is not told of it: to it the device stays provisioned.
def test_a_credential_that_the_provider_refuses_is_told(
        daemon, supervisor, stored, identity):
    stored()
    refusal = Reply.json({"error": "invalid_grant"}, 400,
                         gate=threading.Event())
    identity.replies.append(refusal)
    daemon.start(environment=TOLD)
    supervisor.wait_for("READY=1", status(held=True))
    refusal.gate.set()
    supervisor.wait_for(status(held=False))


def test_a_credential_that_is_being_replaced_is_not_held(
        daemon, supervisor, agent, stored, identity, provider):
    agent.appear()
    stored()
    daemon.start(environment=TOLD)
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    supervisor.wait_for("READY=1", status(held=True))
    reply = Reply.json({"access_token": provider.make("access"),
                        "refresh_token": provider.make("refresh")},
                       gate=threading.Event())
    identity.replies.append(reply)
    agent.set_credential(secret("code"), [ENDPOINT])
    supervisor.wait_for(status(held=False))
    reply.gate.set()
    supervisor.wait_for(status(held=True))


def test_requests_in_flight_are_told_until_they_are_answered(
        daemon, supervisor, stored, identity, cloud, caller):
    stored()
    gate = threading.Event()
    cloud.replies.extend(Reply(gate=gate) for _ in range(3))
    daemon.start(environment=TOLD)
    supervisor.wait_for("READY=1", status(held=True))
    pending = [caller.start(ENDPOINT) for _ in range(3)]
    supervisor.wait_for(status(held=True, in_flight=3))
    gate.set()
    for one in pending:
        caller.result(one)
    supervisor.wait_for(status(held=True))
