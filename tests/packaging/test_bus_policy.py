# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Who may own the daemon's name, call it, and what it may call.

The policy that ships is read by a system bus with the distribution's
configuration, once by each of the two programs that can be one. A peer stands
where the daemon would, so that what reaches it can be seen.
"""

import os
import re
import shutil

import pytest
from bus_peer import (BUS, CALL, DO_NOT_QUEUE, ERROR, REPLACE_EXISTING, RETURN,
                      SIGNAL, Peer)
from conftest import POLICY, PROJECT
from daemon_process import INTERFACE, NAME, PATH
from system_bus import KINDS, SOCKET, SystemBus

FOLDER = "/etc/dbus-1/system.d"
AGENT = "org.vantrel.Dosset"
# The agent brings a policy of its own; this one lets it own its name only, and
# wants no signals, which the bus would let through.
AGENT_POLICY = """\
<busconfig>
  <policy context="default">
    <deny send_destination="{0}" send_type="signal" send_broadcast="false"/>
  </policy>
  <policy user="agent"><allow own="{0}"/></policy>
</busconfig>
""".format(AGENT)

# As on a bus of someone who wants no trouble.
OPEN_POLICY = """\
<policy context="default">
  <allow own="*"/>
  <allow send_type="method_call"/>
</policy>
"""

DENIED = "org.freedesktop.DBus.Error.AccessDenied"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PEER = "org.freedesktop.DBus.Peer"
PROPERTIES = "org.freedesktop.DBus.Properties"

USERS = ("root", "cloud-action", "member", "plain", "agent")
CALLERS = ("root", "member")
OTHERS = ("cloud-action", "plain", "agent")

OPEN = ((INTERFACE, "RedirectRequest"), (INTROSPECTABLE, "Introspect"),
        (OBJECT_MANAGER, "GetManagedObjects"), (PEER, "Ping"),
        (PEER, "GetMachineId"))
CLOSED = (
    (INTERFACE, "Introspect"), (INTERFACE, "Other"), (INTERFACE, "Ping"),
    (INTROSPECTABLE, "Other"), (INTROSPECTABLE, "RedirectRequest"),
    (OBJECT_MANAGER, "Other"), (OBJECT_MANAGER, "RedirectRequest"),
    (PEER, "Other"), (PEER, "RedirectRequest"),
    (PROPERTIES, "Get"), (PROPERTIES, "GetAll"), (PROPERTIES, "Set"),
    (NAME, "RedirectRequest"), (BUS, "Ping"), ("other.Interface", "Ping"),
    # A receiver would look for the member in all interfaces.
    (None, "RedirectRequest"), (None, "Introspect"), (None, "Ping"))

TO_AGENT = ((OBJECT_MANAGER, "GetManagedObjects"),
            (AGENT + ".Manager", "UpdateState"),
            (AGENT + ".Command", "Complete"), (AGENT + ".Command", "Abort"))
NOT_TO_AGENT = (
    (AGENT + ".Manager", "AddCommand"), (AGENT + ".Manager", "Complete"),
    (AGENT + ".Command", "UpdateState"), (AGENT + ".Command", "Other"),
    (OBJECT_MANAGER, "UpdateState"), (INTROSPECTABLE, "Introspect"),
    (PEER, "Ping"), (PROPERTIES, "Get"), (PROPERTIES, "Set"),
    (None, "UpdateState"), (None, "Complete"))


def name_of(value):
    """A short id for a pair of interface and member."""
    if isinstance(value, tuple):
        return "%s-%s" % ((value[0] or "none").rsplit(".", 1)[-1], value[1])
    return str(value)


@pytest.fixture(scope="module")
def policies():
    """Both policies, where the bus looks for them."""
    os.makedirs(FOLDER, exist_ok=True)
    shutil.copy(os.path.join(PROJECT, POLICY), FOLDER)
    with open(os.path.join(FOLDER, "agent.conf"), "w",
              encoding="ascii") as file:
        file.write(AGENT_POLICY)
    yield
    shutil.rmtree(FOLDER)


@pytest.fixture(scope="module", params=KINDS)
def bus(request, policies):
    with SystemBus(request.param) as system_bus:
        yield system_bus


@pytest.fixture(scope="module")
def peers(bus):
    """A connection of each user."""
    connections = {user: Peer(SOCKET, user) for user in USERS}
    yield connections
    for connection in connections.values():
        connection.close()


@pytest.fixture(scope="module")
def service(bus):
    """Stands where the daemon would."""
    peer = Peer(SOCKET, "cloud-action")
    assert peer.request_name(NAME) == 1
    yield peer
    peer.close()


@pytest.fixture(scope="module")
def agent(bus):
    """Stands where the agent would."""
    peer = Peer(SOCKET, "agent")
    assert peer.request_name(AGENT) == 1
    yield peer
    peer.close()


def deliver(sender, receiver, destination, interface, member, kind=CALL,
            **more):
    """Sends a message; what came of it: (reached, name of the error)."""
    fields = {"path": PATH, "interface": interface, "member": member, **more}
    serial = sender.send(kind, destination=destination, **{
        name: value for name, value in fields.items() if value is not None})
    sender.sync()
    receiver.sync()
    came = [message for message in receiver.inbox
            if message.sender == sender.unique_name]
    receiver.inbox.clear()
    assert len(came) <= 1
    error = [message.error for message in sender.inbox
             if message.kind == ERROR and message.reply_serial == serial]
    sender.inbox.clear()
    if came and kind == CALL:
        # Else the bus would go on waiting for it.
        receiver.send(RETURN, destination=sender.unique_name,
                      reply_serial=came[0].serial)
        assert sender.wait_for_reply(serial).kind == RETURN
    return bool(came), error[0] if error else None


@pytest.fixture(params=("name", "unique"))
def address(request):
    """The two ways to address a service: the same rules hold for both."""
    return lambda peer, name: (name if request.param == "name"
                               else peer.unique_name)


@pytest.mark.parametrize("call", OPEN, ids=name_of)
@pytest.mark.parametrize("user", CALLERS)
def test_callers_may_call(peers, service, address, user, call):
    assert deliver(peers[user], service, address(service, NAME), *call) == (
        True, None)


@pytest.mark.parametrize("call", CLOSED, ids=name_of)
@pytest.mark.parametrize("user", CALLERS)
def test_callers_may_call_nothing_else(peers, service, address, user, call):
    assert deliver(peers[user], service, address(service, NAME), *call) == (
        False, DENIED)


@pytest.mark.parametrize("call", OPEN + CLOSED, ids=name_of)
@pytest.mark.parametrize("user", OTHERS)
def test_others_may_call_nothing(peers, service, address, user, call):
    assert deliver(peers[user], service, address(service, NAME), *call) == (
        False, DENIED)


def reaches(sender, receiver, destination, call, kind):
    """Whether something else with the header of a call comes through."""
    more = {"reply_serial": 1} if kind != SIGNAL else {}
    if kind == ERROR:
        more["error"] = "a.made.up.Error"
    return deliver(sender, receiver, destination, *call, kind, **more)[0]


@pytest.fixture(params=(SIGNAL, RETURN, ERROR),
                ids=("signal", "return", "error"))
def no_call(request):
    """The kinds of message that are no call."""
    return request.param


@pytest.mark.parametrize("call", OPEN, ids=name_of)
@pytest.mark.parametrize("user", USERS)
def test_nobody_may_send_anything_but_calls(
        peers, service, address, user, call, no_call):
    assert not reaches(peers[user], service, address(service, NAME), call,
                       no_call)


@pytest.mark.parametrize("call", TO_AGENT, ids=name_of)
def test_the_daemon_may_call_the_agent(service, agent, address, call):
    assert deliver(service, agent, address(agent, AGENT), *call) == (
        True, None)


@pytest.mark.parametrize("call", NOT_TO_AGENT, ids=name_of)
def test_the_daemon_may_call_nothing_else_of_the_agent(
        service, agent, address, call):
    assert deliver(service, agent, address(agent, AGENT), *call) == (
        False, DENIED)


@pytest.mark.parametrize("call", TO_AGENT, ids=name_of)
def test_the_daemon_may_send_the_agent_nothing_but_calls(
        service, agent, address, call, no_call):
    assert not reaches(service, agent, address(agent, AGENT), call, no_call)


@pytest.mark.parametrize("call", TO_AGENT, ids=name_of)
@pytest.mark.parametrize("user", ("member", "plain"))
def test_a_caller_may_not_call_the_agent_for_it(
        peers, agent, address, user, call):
    assert deliver(peers[user], agent, address(agent, AGENT), *call) == (
        False, DENIED)


def announce(agent, *listeners):
    """Has the agent announce an object; the members each listener gets."""
    for listener in listeners:
        assert listener.call_bus("AddMatch", "s", (
            "type='signal',interface='%s'" % OBJECT_MANAGER,)).kind == RETURN
    agent.send(SIGNAL, path="/org/vantrel/Dosset", interface=OBJECT_MANAGER,
               member="InterfacesAdded")
    agent.sync()
    came = []
    for listener in listeners:
        listener.sync()
        came.append([message.member for message in listener.inbox
                     if message.sender == agent.unique_name])
        listener.inbox.clear()
    return came


def test_the_agents_signals_reach_the_daemon(service, agent):
    assert announce(agent, service) == [["InterfacesAdded"]]


@pytest.fixture
def advice(policies):
    """The agent's policy says besides what our guide advises."""
    with open(os.path.join(PROJECT, "docs/integrating.md"),
              encoding="utf-8") as file:
        (rules,) = re.findall(r"```xml\n(.*?)```", file.read(), re.DOTALL)
    path = os.path.join(FOLDER, "advice.conf")
    with open(path, "w", encoding="utf-8") as file:
        file.write("<busconfig>%s</busconfig>" % rules)
    yield
    os.unlink(path)


@pytest.mark.parametrize("kind", KINDS)
def test_the_agents_signals_can_be_kept_from_everybody_else(kind, advice):
    with SystemBus(kind):
        agent, service, plain = (Peer(SOCKET, user) for user in (
            "agent", "cloud-action", "plain"))
        assert agent.request_name(AGENT) == 1
        assert announce(agent, service, plain) == [["InterfacesAdded"], []]
        for peer in (agent, service, plain):
            peer.close()


@pytest.mark.parametrize("flags", (0, DO_NOT_QUEUE, REPLACE_EXISTING),
                         ids=("queue", "at-once", "replace"))
@pytest.mark.parametrize("user", ("root", "member", "plain", "agent"))
@pytest.mark.parametrize("owned", (True, False), ids=("owned", "free"))
def test_only_the_daemons_user_may_own_the_name(bus, request, user, flags,
                                                owned):
    if owned:
        request.getfixturevalue("service")
    peer = Peer(SOCKET, user)
    assert peer.request_name(NAME, flags) == DENIED
    assert peer.request_name(NAME + ".More", flags) == DENIED
    peer.close()


def test_the_daemons_user_may_own_no_other_name(peers, service):
    # But for names below its own: dbus-broker takes them for allowed as well.
    for name in (AGENT, "org.vantrel.actions", NAME + "Too", "other.Name"):
        assert peers["cloud-action"].request_name(name) == DENIED


@pytest.mark.parametrize("user", ("cloud-action", "member", "plain"))
def test_nobody_but_root_may_listen_in(peers, service, user):
    listener = Peer(SOCKET, user)
    assert listener.call_bus(
        "BecomeMonitor", "as" + "u", ([], 0),
        BUS + ".Monitoring").error == DENIED
    listener.call_bus("AddMatch", "s", ("eavesdrop='true'",))
    assert deliver(peers["member"], service, NAME, *OPEN[0]) == (True, None)
    listener.sync()
    heard = [message for message in listener.inbox
             if message.sender in (peers["member"].unique_name,
                                   service.unique_name)]
    listener.close()
    assert not heard


@pytest.mark.parametrize("kind", KINDS)
def test_a_bus_that_allows_everything_else_makes_no_difference(
        kind, policies):
    with SystemBus(kind, OPEN_POLICY):
        service, member, plain = (Peer(SOCKET, user) for user in (
            "cloud-action", "member", "plain"))
        assert plain.request_name("any.Name") == 1
        assert service.request_name("any.other.Name") == 1
        assert plain.request_name(NAME) == DENIED
        assert plain.request_name(NAME + ".More") == DENIED
        assert service.request_name(NAME) == 1
        for call in OPEN:
            assert deliver(member, service, NAME, *call) == (True, None)
            assert deliver(plain, service, NAME, *call) == (False, DENIED)
        for call in CLOSED:
            assert deliver(member, service, NAME, *call) == (False, DENIED)
        assert deliver(plain, member, member.unique_name, *OPEN[0]) == (
            True, None)
        for peer in (service, member, plain):
            peer.close()
