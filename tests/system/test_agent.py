# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The agent's life: absent, there before us, restarted, gone, odd."""

import threading

import pytest
from agent_process import (COMMAND, MANAGER, MANAGER_PATH, NAME, REMOVE, ROOT,
                           SET, AgentProcess)
from cloud import Reply
from conftest import ENDPOINT, secret
from daemon_process import ENDPOINTS, REFRESH_TOKEN
from test_commands import (ABORT, COMPLETE, PROVISIONED, UNPROVISIONED,
                           settle, texts)

OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"


@pytest.fixture
def second_agent():
    process = AgentProcess()
    yield process
    process.stop()


@pytest.fixture
def held(identity, provider):
    """A good reply to a code exchange that waits for its gate."""
    reply = Reply.json({"access_token": provider.make("access"),
                        "refresh_token": provider.make("refresh")},
                       gate=threading.Event())
    identity.replies.append(reply)
    return reply


# Coming and going.

def test_an_agent_that_is_there_before_us_gets_the_state(daemon, agent):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    assert texts(agent.calls()) == [UNPROVISIONED]


def test_an_agent_that_comes_later_gets_the_state(daemon, agent, caller):
    daemon.start()
    caller.sync()
    agent.appear()
    agent.wait_for_call("UpdateState")
    assert texts(agent.calls()) == [UNPROVISIONED]


def test_a_provisioned_daemon_says_so(agent, provision):
    provision()
    agent.appear()
    agent.wait_for_call("UpdateState")
    assert texts(agent.calls()) == [PROVISIONED]


def test_commands_that_are_queued_before_us_are_carried_out(
        daemon, agent, identity):
    path = agent.set_credential(secret("code"), [ENDPOINT], announce=False)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.wait_for_call("Complete", path)
    assert texts(agent.calls(path)) == [COMPLETE]


def test_commands_of_an_agent_that_comes_later_are_carried_out(
        daemon, agent, identity, caller):
    daemon.start()
    caller.sync()
    path = agent.set_credential(secret("code"), [ENDPOINT], announce=False)
    agent.appear()
    agent.wait_for_call("Complete", path)
    announced = agent.remove_credential()
    agent.wait_for_call("Complete", announced)


def test_a_restarted_agent_gets_the_state_again(agent, provision, caller):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    agent.leave()
    caller.sync()
    agent.appear()
    agent.wait_for_call("UpdateState", count=2)
    settle(agent, caller)
    assert texts(agent.calls()) == [PROVISIONED, PROVISIONED]
    assert len(agent.all_calls("GetManagedObjects")) == 2


def test_a_killed_agent_can_be_followed_by_another(
        daemon, agent, second_agent, identity):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.kill()
    second_agent.appear()
    second_agent.wait_for_call("UpdateState")
    path = second_agent.set_credential(secret("code"), [ENDPOINT])
    second_agent.wait_for_call("Complete", path)


def test_requests_are_served_after_the_agent_has_gone(
        agent, provision, cloud, caller):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    agent.leave()
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1


def test_an_agent_that_gives_up_its_name_is_gone(
        daemon, agent, second_agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("disown")
    agent.remove_credential()
    settle(agent, caller)
    assert len(agent.calls()) == 1
    second_agent.appear()
    second_agent.wait_for_call("UpdateState")
    # What the former owner says has no weight any more.
    agent.remove_credential()
    settle(agent, caller)
    assert len(agent.calls()) == 1
    assert len(second_agent.calls()) == 1


def test_an_agent_that_takes_its_name_again_is_asked_again(
        daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("disown")
    path = agent.remove_credential(announce=False)
    agent.do("own")
    agent.wait_for_call("Complete", path)
    settle(agent, caller)
    assert len(agent.all_calls("GetManagedObjects")) == 2


def test_an_agent_that_dies_in_a_call_is_a_failed_call(
        daemon, agent, caller):
    agent.do("behave", member="UpdateState", how="ignore")
    agent.appear()
    daemon.start(wait=False)
    agent.wait_for_call("UpdateState")
    agent.leave()
    daemon.wait_for_log("ERROR", "Failed to update state")
    daemon.wait_for_name()
    caller.sync()


def test_an_agent_that_never_answers_is_a_failed_call(daemon, agent, caller):
    agent.do("behave", member="UpdateState", how="ignore")
    agent.appear()
    # The D-Bus library's own limit, which is 25 s otherwise.
    daemon.start(environment={"SYSTEMD_BUS_TIMEOUT": "300ms"})
    daemon.wait_for_log("ERROR", "Failed to update state")
    caller.sync()


def test_a_removed_manager_object_that_returns_gets_the_state(
        daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("remove", path=MANAGER_PATH)
    settle(agent, caller)
    agent.do("publish", path=MANAGER_PATH, interface=MANAGER, properties={})
    agent.wait_for_call("UpdateState", count=2)
    assert texts(agent.calls()) == [UNPROVISIONED] * 2


def test_a_manager_object_that_returns_after_a_set_gets_the_present_state(
        daemon, agent, identity, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    agent.do("remove", path=MANAGER_PATH)
    agent.do("publish", path=MANAGER_PATH, interface=MANAGER, properties={})
    agent.wait_for_call("UpdateState", count=3)
    settle(agent, caller)
    assert texts(agent.calls(MANAGER_PATH)) == [
        UNPROVISIONED, PROVISIONED, PROVISIONED]


# In the middle of a code exchange.

def test_a_command_removed_during_its_exchange_leaves_a_sound_state(
        daemon, agent, held, identity, provider, cloud, caller, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    agent.do("remove", path=path)
    settle(agent, caller)
    held.gate.set()
    agent.wait_for_call("UpdateState", count=2)
    settle(agent, caller)
    assert texts(agent.calls()) == [UNPROVISIONED, PROVISIONED]
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert files.read(REFRESH_TOKEN).decode() in provider.refresh_tokens
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1


def test_a_command_removed_during_an_exchange_that_fails_leaves_no_trace(
        daemon, agent, identity, caller, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    reply = Reply.json({"error": "invalid_grant"}, 400, gate=threading.Event())
    identity.replies.append(reply)
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    agent.do("remove", path=path)
    settle(agent, caller)
    reply.gate.set()
    daemon.wait_for_log("ERROR", "Failed to obtain refresh token from the "
                        "provided authorization code")
    settle(agent, caller)
    assert texts(agent.calls()) == [UNPROVISIONED]
    assert files.read(REFRESH_TOKEN) is None


def test_a_command_replaced_during_its_exchange_is_not_mixed_up(
        daemon, agent, held, identity, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    agent.do("remove", path=path)
    # The same path, but another command: rejected, since one is outstanding.
    agent.set_credential(secret("code"), [ENDPOINT], path=path)
    assert agent.wait_for_call("Abort", path).text() == ABORT
    held.gate.set()
    agent.wait_for_call("UpdateState", count=2)
    settle(agent, caller)
    assert texts(agent.calls(path)) == [ABORT]


def test_an_agent_that_leaves_during_an_exchange_hears_of_it_when_back(
        daemon, agent, held, identity, cloud, caller, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    agent.leave()
    caller.sync()
    held.gate.set()
    daemon.wait_for_log("ERROR", "Dosset not up yet")
    assert caller.request(ENDPOINT)[0] == 200
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    agent.do("remove", path=path, announce=False)
    agent.appear()
    agent.wait_for_call("UpdateState", count=2)
    settle(agent, caller)
    assert texts(agent.calls()) == [UNPROVISIONED, PROVISIONED]
    assert len(cloud.requests) == 1


def test_a_command_removed_while_its_end_is_told_does_no_harm(
        daemon, agent, identity, cloud, caller):
    agent.do("behave", member="Complete", how="hold")
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    agent.do("remove", path=path)
    agent.do("release", member="Complete")
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1


def test_a_command_removed_while_the_state_is_published_does_no_harm(
        daemon, agent, identity, cloud, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("behave", member="UpdateState", how="hold")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("UpdateState", count=2)
    agent.do("remove", path=path)
    agent.do("release", member="UpdateState")
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1


def test_an_agent_that_dies_while_a_command_ends_does_no_harm(
        daemon, agent, identity, cloud, caller):
    agent.do("behave", member="Complete", how="ignore")
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    agent.leave()
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1


# Told twice.

def test_a_command_that_is_announced_twice_runs_once(
        daemon, agent, identity, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.do("announce", path=path)
    agent.wait_for_call("Complete", path)
    agent.do("announce", path=path)
    settle(agent, caller)
    assert texts(agent.calls(path)) == [COMPLETE]
    assert len(identity.requests) == 1


def test_a_manager_object_that_is_announced_twice_gets_the_state_once(
        daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("announce", path=MANAGER_PATH)
    settle(agent, caller)
    assert len(agent.calls(member="UpdateState")) == 1


def test_a_command_that_returns_at_its_old_path_runs_again(
        daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)
    agent.do("remove", path=path)
    agent.remove_credential(path=path)
    agent.wait_for_call("Complete", path, count=2)
    settle(agent, caller)
    assert texts(agent.calls(path)) == [COMPLETE, COMPLETE]


# Odd objects.

def assert_unharmed(daemon, agent, caller, warnings):
    """Nothing was called, and another command still works."""
    settle(agent, caller)
    assert [c for c in agent.calls() if c.interface == COMMAND] == []
    told = daemon.log("WARNING")
    assert len(told) == warnings, told
    assert daemon.log("ERROR") == [
        "ERROR Failed to read file: " + ENDPOINTS]
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)


@pytest.mark.parametrize("odd, warnings", [
    ({"Name": None}, 0), ({"State": None}, 0),
    ({"Name": ["i", 5]}, 1), ({"State": ["b", True]}, 1),
    ({"Name": ["v", ["s", REMOVE]]}, 1), ({"State": ["as", ["queued"]]}, 1),
    ({"Name": None, "State": None, "Parameters": None, "Id": None}, 0),
], ids=["no name", "no state", "odd name", "odd state", "name in variant",
        "list of states", "nothing"])
def test_a_command_whose_name_or_state_cannot_be_read_is_left_alone(
        daemon, agent, caller, odd, warnings):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.remove_credential(**odd)
    assert_unharmed(daemon, agent, caller, warnings)


@pytest.mark.parametrize("odd, warnings", [
    ({"Parameters": None}, 0), ({"Parameters": ["s", "x"]}, 1),
    ({"Parameters": ["a{ss}", {"_authorizationCode": "S3CR3T"}]}, 1),
    ({"Parameters": ["as", ["_authorizationCode"]]}, 1),
], ids=["none", "string", "strings", "list"])
def test_a_set_command_without_readable_parameters_has_no_code(
        daemon, agent, caller, odd, warnings):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.command(SET, **odd)
    assert agent.wait_for_call("Abort", path).text() == ABORT
    settle(agent, caller)
    assert daemon.log()[-1] == "ERROR Authorization code not provided"
    assert len(daemon.log("WARNING")) == warnings


def test_properties_that_nobody_reads_may_be_odd(daemon, agent):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.remove_credential(
        Id=["i", 5], Progress=None, Results=["s", "x"], Origin=["o", "/"],
        Surprise=["a(sv)", [["a", ["d", 0.5]]]])
    agent.wait_for_call("Complete", path)


def test_unknown_interfaces_are_ignored(daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    before = daemon.log()
    for interface in ("org.vantrel.Dosset.Other", "org.example.X",
                      "org.freedesktop.DBus.Properties"):
        agent.do("publish", path=ROOT + "/other", interface=interface,
                 properties={"Name": ["s", REMOVE], "State": ["s", "queued"],
                             "X": ["a{s(iv)}", {"a": [1, ["ay", [1, 2]]]}]})
    settle(agent, caller)
    agent.do("remove", path=ROOT + "/other")
    settle(agent, caller)
    assert daemon.log() == before
    assert len(agent.calls()) == 1


def test_an_unknown_interface_beside_a_command_does_not_hide_it(
        daemon, agent):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = ROOT + "/commands/9"
    agent.do("publish", path=path, interface="org.example.A", announce=False,
             properties={"X": ["v", ["v", ["i", 1]]]})
    agent.remove_credential(path=path, announce=False)
    agent.do("publish", path=path, interface="org.example.Z", announce=False,
             properties={})
    agent.do("announce", path=path)
    agent.wait_for_call("Complete", path)


def test_objects_that_were_never_there_can_be_removed(daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    for path in (ROOT + "/commands/77", "/", ROOT):
        agent.do("signal", path=ROOT, interface=OBJECT_MANAGER,
                 member="InterfacesRemoved", signature="oas",
                 arguments=[path, [COMMAND, MANAGER, "org.example.X"]])
    assert_unharmed(daemon, agent, caller, 0)


@pytest.mark.parametrize("member, path, signature, arguments", [
    ("InterfacesAdded", ROOT, "", []),
    ("InterfacesAdded", ROOT, "o", ["/x"]),
    ("InterfacesAdded", ROOT, "sa{sa{sv}}", ["/x", {COMMAND: {}}]),
    ("InterfacesAdded", ROOT, "oa{sa{ss}}",
     ["/x", {COMMAND: {"Name": REMOVE, "State": "queued"}}]),
    ("InterfacesRemoved", ROOT, "o", ["/x"]),
    ("InterfacesRemoved", ROOT, "os", ["/x", COMMAND]),
    ("PropertiesChanged", MANAGER_PATH, "s", [MANAGER]),
    ("PropertiesChanged", MANAGER_PATH, "sa{ss}as",
     [MANAGER, {"Status": "x"}, []]),
])
def test_a_signal_of_another_shape_is_told_and_ignored(
        daemon, agent, caller, member, path, signature, arguments):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("signal", path=path, member=member, signature=signature,
             arguments=arguments, interface=PROPERTIES
             if member == "PropertiesChanged" else OBJECT_MANAGER)
    assert_unharmed(daemon, agent, caller, 1)


@pytest.mark.parametrize("answer", [
    {"how": "error", "name": "org.vantrel.Error.No", "message": "no"},
    {"how": "lie", "signature": "", "arguments": []},
    {"how": "lie", "signature": "s", "arguments": ["x"]},
    {"how": "lie", "signature": "a{sa{sa{sv}}}", "arguments": [{}]},
    {"how": "lie", "signature": "a{oa{sa{sv}}}s", "arguments": [{}, "x"]},
], ids=["error", "nothing", "string", "near miss", "too much"])
def test_an_odd_answer_about_its_objects_is_told_and_the_agent_can_recover(
        daemon, agent, caller, answer):
    agent.do("behave", member="GetManagedObjects", count=1, **answer)
    agent.appear()
    daemon.start()
    agent.wait_for_call("GetManagedObjects")
    settle(agent, caller)
    told = daemon.log("WARNING") + [
        line for line in daemon.log("ERROR") if "Failed to read" not in line]
    assert len(told) == 1
    agent.do("publish", path=MANAGER_PATH, interface=MANAGER, properties={})
    agent.wait_for_call("UpdateState")


def test_an_agent_that_leaves_before_its_objects_are_known_can_return(
        daemon, agent, caller):
    agent.do("behave", member="GetManagedObjects", how="hold", count=1)
    agent.appear()
    daemon.start()
    agent.wait_for_call("GetManagedObjects")
    agent.leave()
    caller.sync()
    agent.appear()
    agent.wait_for_call("UpdateState")
    assert texts(agent.calls()) == [UNPROVISIONED]


def test_a_thousand_objects_are_taken_in(daemon, agent, caller):
    for i in range(1000):
        agent.command("x._unknown", path="%s/commands/x%d" % (ROOT, i),
                      announce=False)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    settle(agent, caller)
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)


# Forged.

def forged_command(agent, destination=None):
    agent.do("signal", path=ROOT, interface=OBJECT_MANAGER, forged=True,
             member="InterfacesAdded", signature="oa{sa{sv}}",
             destination=destination,
             arguments=[ROOT + "/commands/66", {COMMAND: {
                 "Name": ["s", REMOVE], "State": ["s", "queued"],
                 "Parameters": ["a{sv}", {}]}}])


@pytest.mark.parametrize("aimed", [False, True])
def test_a_command_that_a_stranger_announces_is_not_believed(
        daemon, agent, caller, client, provision, files, aimed):
    agent.appear()
    state = provision()
    agent.wait_for_call("UpdateState")
    before = daemon.log()
    forged_command(agent, client.owner(
        "org.vantrel.actions.CloudActions") if aimed else None)
    settle(agent, caller)
    assert daemon.log() == before
    assert texts(agent.calls()) == [PROVISIONED]
    assert files.read(REFRESH_TOKEN) == state.refresh_token.encode()


@pytest.mark.parametrize("aimed", [False, True])
def test_without_an_agent_a_stranger_is_not_believed_either(
        daemon, agent, caller, client, provision, files, aimed):
    provision()
    before = daemon.log()
    agent.do("connect")  # On the bus, but without the name.
    forged_command(agent, client.owner(
        "org.vantrel.actions.CloudActions") if aimed else None)
    settle(agent, caller)
    assert daemon.log() == before
    assert files.read(REFRESH_TOKEN) is not None


@pytest.mark.parametrize("aimed", [False, True])
def test_a_removal_that_a_stranger_announces_is_not_believed(
        daemon, agent, held, identity, caller, client, aimed):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    destination = client.owner(
        "org.vantrel.actions.CloudActions") if aimed else None
    for target in (path, MANAGER_PATH):
        agent.do("signal", path=ROOT, interface=OBJECT_MANAGER, forged=True,
                 member="InterfacesRemoved", signature="oas",
                 destination=destination,
                 arguments=[target, [COMMAND, MANAGER]])
    settle(agent, caller)
    held.gate.set()
    agent.wait_for_call("Complete", path)
    assert texts(agent.calls()) == [UNPROVISIONED, PROVISIONED, COMPLETE]


@pytest.mark.parametrize("owner", ["", ":1.999"])
def test_a_change_of_owner_that_a_stranger_announces_is_not_believed(
        daemon, agent, caller, client, owner):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.do("signal", path="/org/freedesktop/DBus", forged=True,
             interface="org.freedesktop.DBus", member="NameOwnerChanged",
             signature="sss", arguments=[NAME, agent.unique_name, owner],
             destination=client.owner("org.vantrel.actions.CloudActions"))
    settle(agent, caller)
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)
    assert len(agent.all_calls("GetManagedObjects")) == 1
