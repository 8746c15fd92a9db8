# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The bus goes away at any stage, and the agent hangs in any call."""

import struct
import time

import pytest
from bus_client import CallError
from cloud import hang
from conftest import ENDPOINT, secret
from relay import Relay

RELAY = "/run/dbus/relay"
THROUGH_RELAY = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=" + RELAY}
UNAVAILABLE = 69


@pytest.fixture
def relay(bus):
    """Stands between the daemon, and nobody else, and the bus."""
    one = Relay(RELAY, bus.address.partition("path=")[2].partition(",")[0])
    yield one
    one.stop()


def boundaries(data):
    """Where what a bus says has a line or a message that begins."""
    at = [0]
    while data[at[-1]:at[-1] + 2] in (b"OK", b"DA", b"AG", b"RE", b"ER"):
        at.append(data.index(b"\r\n", at[-1]) + 2)
    while at[-1] < len(data):
        order = "<" if data[at[-1]:at[-1] + 1] == b"l" else ">"
        body, _, fields = struct.unpack_from(order + "III", data, at[-1] + 4)
        at.append(at[-1] + 16 + (fields + 7) // 8 * 8 + body)
    return at


def check_end(daemon):
    """It has ended because of the bus, and says so."""
    assert daemon.wait_for_exit() == UNAVAILABLE
    assert "bus" in daemon.log("ERROR")[-1]
    assert daemon.log("FATAL") == []


SPOILT = {
    "closed": (b"", "close"),
    "garbage": (b"\xffgarbage\r\n" * 99, "stall"),
    "a message of another version": (
        b"l\2\1\2" + struct.pack("<III", 0, 9, 0), "close"),
    "a message too large": (
        b"l\2\1\1" + struct.pack("<III", 0x7fffffff, 9, 0x7fffffff),
        "close"),
}


@pytest.mark.parametrize("how", list(SPOILT))
def test_a_bus_that_fails_at_any_point_of_the_start_ends_it_with_69(
        daemon, relay, caller, how):
    daemon.start(environment=THROUGH_RELAY)
    caller.sync()
    heard = bytes(relay.heard[0])
    assert daemon.stop() == 0
    starts = boundaries(heard)
    assert starts[-1] == len(heard) and len(starts) > 6
    # The last two answer what we have asked when it was up.
    points = starts[:-2]
    if how.startswith("a message"):
        # Before the first message there are lines: it would wait for the end
        # of one.
        points = [at for at in points if heard[at:at + 1] in b"lB"]
    elif how == "closed":
        points = sorted({at + more for at in points for more in (0, 1, 20)})
    relay.last, relay.then = SPOILT[how]
    for point in points:
        relay.limit = point
        daemon.start(environment=THROUGH_RELAY, wait=False)
        check_end(daemon)


def test_a_bus_that_says_nothing_more_does_not_hold_up_the_end(
        daemon, relay, caller):
    daemon.start(environment=THROUGH_RELAY)
    heard = bytes(relay.heard[0])
    assert daemon.stop() == 0
    relay.then = "stall"
    for point in boundaries(heard)[:-1]:
        relay.limit = point
        connections = len(relay.heard)
        daemon.start(environment=THROUGH_RELAY, wait=False)
        end = time.monotonic() + 10
        while (len(relay.heard) == connections or
               len(relay.heard[-1]) < point) and time.monotonic() < end:
            time.sleep(0.001)
        assert len(relay.heard[-1]) == point
        # By the signal itself as long as the bus has not welcomed it.
        assert daemon.stop() in (0, -15)
        assert daemon.seconds_to_end() < 2


def test_a_bus_that_goes_away_with_requests_in_flight_ends_it_with_69(
        daemon, relay, stored, identity, cloud, caller):
    stored()
    daemon.start(environment=THROUGH_RELAY)
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    cloud.replies.extend([hang(), hang()])
    pending = [caller.start(ENDPOINT), caller.start(ENDPOINT, "POST", "{}")]
    cloud.wait_for(2)
    relay.cut()
    check_end(daemon)
    for one in pending:
        with pytest.raises(CallError) as caught:
            one.result()
        assert caught.value.name == "org.freedesktop.DBus.Error.NoReply"


def test_a_bus_that_goes_away_during_an_exchange_ends_it_with_69(
        daemon, relay, agent, identity):
    agent.appear()
    identity.replies.append(hang())
    daemon.start(environment=THROUGH_RELAY)
    agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    relay.cut()
    check_end(daemon)


def test_a_bus_that_babbles_ends_it_with_69(daemon, relay, caller):
    daemon.start(environment=THROUGH_RELAY)
    caller.sync()
    relay.limit = len(relay.heard[0])
    relay.last, relay.then = b"\xffgarbage" * 99, "stall"
    # The next thing that it hears.
    caller.start(ENDPOINT)
    check_end(daemon)


# Each blocking call, and a command that leads to it.

def set_credential(agent):
    return agent.set_credential(secret("code"), [ENDPOINT])


def set_nonsense(agent):
    return agent.set_credential(secret("code"), ["nonsense"])


def remove_credential(agent):
    return agent.remove_credential()


BLOCKED = {"the first state": ("UpdateState", None),
           "the state of a set": ("UpdateState", set_credential),
           "the end of a set": ("Complete", set_credential),
           "the end of a failed set": ("Abort", set_nonsense),
           "the state of a remove": ("UpdateState", remove_credential),
           "the end of a remove": ("Complete", remove_credential)}


def block(agent, stage):
    """Has the daemon wait for the agent, which is not on the bus yet."""
    member, command = BLOCKED[stage]
    if not command:
        agent.do("behave", member=member, how="ignore")
    agent.appear()
    agent.wait_for_call("UpdateState")
    if command:
        agent.do("behave", member=member, how="ignore")
        command(agent)
        agent.wait_for_call(member, count=2 if member == "UpdateState" else 1)


@pytest.mark.parametrize("stage", list(BLOCKED))
def test_a_bus_that_goes_away_in_a_call_to_the_agent_ends_it_with_69(
        daemon, relay, agent, identity, stage):
    daemon.start(environment=THROUGH_RELAY)
    block(agent, stage)
    begin = time.monotonic()
    relay.cut()
    check_end(daemon)
    assert time.monotonic() - begin < 5  # Not the time-out of the call.


@pytest.mark.parametrize("stage", list(BLOCKED))
def test_an_agent_that_hangs_in_a_call_only_delays_the_others(
        daemon, agent, identity, cloud, caller, stored, stage):
    stored()
    # In place of the 25 s that it waits otherwise.
    daemon.start(environment={"SYSTEMD_BUS_TIMEOUT": "700ms"})
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    block(agent, stage)
    pending = [caller.start(ENDPOINT + str(n)) for n in range(5)]
    results = [outcome(one, caller) for one in pending]
    assert results == ["actions/invalid_arguments: Endpoint " if "remove" in
                       stage else 200] * 5
    assert len(daemon.log("ERROR")) == (
        "UpdateState" in BLOCKED[stage]) + ("failed" in stage)
    # The agent is well again, and so is all the rest.
    agent.do("behave", member=BLOCKED[stage][0], how="reply")
    agent.wait_for_call("Complete", set_credential(agent))
    assert caller.request(ENDPOINT)[0] == 200


def outcome(pending, caller):
    """The status, or the text of the error with the endpoint left out."""
    try:
        return caller.result(pending)[0]
    except CallError as error:
        return error.message.partition(ENDPOINT)[0]


@pytest.mark.duration
def test_an_agent_that_hangs_is_given_up_after_25_seconds(
        daemon, agent, identity, cloud, caller):
    daemon.start()
    block(agent, "the state of a set")
    begin = time.monotonic()
    pending = [caller.start(ENDPOINT) for _ in range(3)]
    assert [caller.result(one)[0] for one in pending] == [200] * 3
    assert 23 < time.monotonic() - begin < 40
    assert len(agent.calls(member="Complete")) == 1
    assert daemon.count_log("ERROR", "Failed to update state") == 1
