# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The two credential commands and the published state."""

import os
import threading

import pytest
from agent_process import COMMAND, MANAGER, MANAGER_PATH, REMOVE, SET
from bus_client import CallError
from cloud import TOKEN_PATH, Reply
from conftest import ENDPOINT, secret
from daemon_process import ENDPOINTS, REFRESH_TOKEN, STATE

PUBLISHED = ('UpdateState(a{sv}) {"_cloudActionConfiguration._credential": '
             '<a{sv} {"_provisioned": <b %s>}>}')
PROVISIONED = PUBLISHED % "true"
UNPROVISIONED = PUBLISHED % "false"
COMPLETE = "Complete(a{sv}) {}"
ABORT = 'Abort(ss) "", ""'


def texts(calls):
    return [call.text() for call in calls]


def settle(agent, caller):
    """Returns when all that the agent has sent so far has been dealt with.

    The bus has taken the agent's signals before the Ping is sent, so they
    reach the daemon first; what the daemon then calls at the agent, it calls
    before it answers the Ping; and the agent has told us of these calls
    before it has synchronised once more.
    """
    agent.do("sync")
    caller.sync()
    agent.do("sync")


def assert_refused(caller, endpoint, message):
    with pytest.raises(CallError) as caught:
        caller.request(endpoint)
    assert caught.value.message == "actions/invalid_arguments: " + message


# Set.

def test_a_set_command_provisions_publishes_and_completes(
        daemon, agent, identity, cloud, caller, files, provider):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    endpoints = [ENDPOINT, "http://b.vantrel.example:8080/x?y"]
    path = agent.set_credential(secret("code"), endpoints)
    agent.wait_for_call("Complete", path)
    assert texts(agent.calls()) == [UNPROVISIONED, PROVISIONED, COMPLETE]
    assert [call.path for call in agent.calls()] == [
        MANAGER_PATH, MANAGER_PATH, path]
    assert [call.refused for call in agent.calls()] == [None] * 3
    assert files.read(ENDPOINTS) == ",".join(endpoints).encode()
    assert caller.request(ENDPOINT)[0] == 200
    (token,) = provider.access_tokens
    assert cloud.requests[0].field("Authorization") == "Bearer " + token
    assert daemon.log() == [
        "ERROR Failed to read file: " + ENDPOINTS,
        "INFO HandleSetCredential", "INFO Fetching refresh token",
        "INFO Successfully fetched refresh token: 200"]


def test_the_command_stays_open_until_the_exchange_is_over(
        daemon, agent, identity, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    held = Reply.json({"access_token": secret("a"),
                       "refresh_token": secret("r")}, gate=threading.Event())
    identity.replies.append(held)
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    settle(agent, caller)
    assert agent.calls(path) == []
    assert_refused(caller, ENDPOINT, "Endpoint %s not whitelisted" % ENDPOINT)
    held.gate.set()
    agent.wait_for_call("Complete", path)


def test_endpoints_are_stored_exactly_as_delivered(
        daemon, agent, identity, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    endpoints = ["https://A.vantrel.example:443", "https://b.vantrel.example ",
                 "https://b.vantrel.example ", "http://c.vantrel.example/#f?"]
    path = agent.set_credential(secret("code"), endpoints)
    agent.wait_for_call("Complete", path)
    assert files.read(ENDPOINTS) == ",".join(endpoints).encode()


def test_a_set_command_replaces_list_and_credential(
        agent, provision, cloud, caller, files, provider):
    agent.appear()
    old = provision()
    agent.wait_for_call("UpdateState")
    other = "https://cloud.vantrel.example/v2/"
    path = agent.set_credential(secret("code"), [other])
    agent.wait_for_call("Complete", path)
    assert_refused(caller, ENDPOINT, "Endpoint %s not whitelisted" % ENDPOINT)
    assert caller.request(other)[0] == 200
    assert files.read(ENDPOINTS) == other.encode()
    (new,) = provider.refresh_tokens - {old.refresh_token}
    caller.sync()
    assert files.read(REFRESH_TOKEN) == new.encode()
    assert texts(agent.calls()) == [PROVISIONED, PROVISIONED, COMPLETE]
    assert cloud.requests[0].field("Authorization") != (
        "Bearer " + old.access_token)


@pytest.mark.parametrize("parameters", [
    {}, {"_allowedEndpoints": ["s", ENDPOINT]},
    {"_allowedEndpoints": ["av", [["s", ENDPOINT]]]},
    {"_allowedEndpoints": ["a{sv}", {}]}, {"_allowedEndpoints": ["as", []]},
    {"_allowedendpoints": ["as", [ENDPOINT]]},
], ids=["missing", "string", "variants", "dictionary", "empty", "case"])
def test_without_endpoints_the_command_succeeds_with_an_empty_list(
        agent, provision, caller, files, parameters):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    path = agent.command(SET, {"_authorizationCode": ["s", secret("code")],
                               **parameters})
    agent.wait_for_call("Complete", path)
    assert files.read(ENDPOINTS) == b""
    assert_refused(caller, ENDPOINT, "Endpoint %s not whitelisted" % ENDPOINT)
    assert texts(agent.calls()) == [PROVISIONED, PROVISIONED, COMPLETE]


def test_other_parameters_are_ignored(daemon, agent, identity, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.command(SET, {
        "_x": ["(sa{sv})", ["a", {"b": ["v", ["i", 5]]}]],
        "_y": ["d", 1.5], "_z": ["aay", [[1, 2], []]], "_o": ["o", "/a"],
        "_authorizationCode": ["s", secret("code")],
        "_allowedEndpoints": ["as", [ENDPOINT]]})
    agent.wait_for_call("Complete", path)
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert len(identity.requests) == 1


@pytest.mark.parametrize("endpoints, named", [
    (["ftp://x.example/"], "ftp://x.example/"),
    ([ENDPOINT, "nonsense", "ftp://x.example/"], "nonsense"),
    ([""], ""),
    ([ENDPOINT, "https://x.example:y/"], "https://x.example:y/"),
])
def test_an_invalid_endpoint_aborts_the_command_and_changes_nothing(
        daemon, agent, provision, identity, cloud, caller, files, endpoints,
        named):
    agent.appear()
    state = provision()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), endpoints)
    assert agent.wait_for_call("Abort", path).text() == ABORT
    settle(agent, caller)
    assert daemon.log()[-2:] == [
        "INFO HandleSetCredential",
        "ERROR Allowed endpoints contains an invalid URL: " + named]
    assert texts(agent.calls()) == [PROVISIONED, ABORT]
    assert len(identity.requests) == 1
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert files.read(REFRESH_TOKEN) == state.refresh_token.encode()
    assert caller.request(ENDPOINT)[0] == 200
    assert cloud.requests[0].field("Authorization") == (
        "Bearer " + state.access_token)


def test_an_endpoint_that_climbs_aborts_the_command(daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT + "../x"])
    agent.wait_for_call("Abort", path)
    settle(agent, caller)
    assert daemon.log()[-3:] == [
        "INFO HandleSetCredential",
        "ERROR Path contains reference to parent directory: /v1/../x",
        "ERROR Allowed endpoints contains an invalid URL: "
        "https://cloud.vantrel.example/v1/../x"]


@pytest.mark.parametrize("parameters", [
    {}, {"_authorizationCode": ["s", ""]}, {"_authorizationCode": ["i", 5]},
    {"_authorizationCode": ["u", 5]}, {"_authorizationCode": ["as", ["S"]]},
    {"_authorizationCode": ["v", ["s", "S3CR3T-code"]]},
    {"_authorizationCode": ["o", "/S3CR3T"]},
    {"_authorizationcode": ["s", "S3CR3T-code"]},
], ids=["missing", "empty", "int", "uint", "array", "variant", "path",
        "case"])
def test_a_command_without_a_code_is_aborted(
        daemon, agent, identity, caller, parameters):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.command(SET, {"_allowedEndpoints": ["as", [ENDPOINT]],
                               **parameters})
    assert agent.wait_for_call("Abort", path).text() == ABORT
    settle(agent, caller)
    assert daemon.log()[-2:] == [
        "INFO HandleSetCredential", "ERROR Authorization code not provided"]
    assert texts(agent.calls()) == [UNPROVISIONED, ABORT]
    assert identity.connections == 0


def test_of_two_faults_the_endpoint_is_told(daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential("", ["ftp://x.example/"])
    agent.wait_for_call("Abort", path)
    settle(agent, caller)
    assert daemon.log()[-2:] == [
        "INFO HandleSetCredential",
        "ERROR Allowed endpoints contains an invalid URL: ftp://x.example/"]
    assert texts(agent.calls(path)) == [ABORT]


def test_endpoints_that_cannot_be_stored_leave_the_command_successful(
        daemon, agent, identity, cloud, caller):
    agent.appear()
    os.mkdir(ENDPOINTS)
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    assert daemon.log()[-1] == (
        "ERROR Failed to write allowed endpoints to file: Is a directory")
    assert texts(agent.calls()) == [UNPROVISIONED, PROVISIONED, COMPLETE]
    assert caller.request(ENDPOINT)[0] == 200


# Remove.

def test_a_remove_command_deletes_everything(
        daemon, agent, provision, identity, caller):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)
    assert texts(agent.calls()) == [PROVISIONED, UNPROVISIONED, COMPLETE]
    assert os.listdir(STATE) == []
    assert_refused(caller, ENDPOINT, "Endpoint %s not whitelisted" % ENDPOINT)
    assert daemon.log()[-1] == "INFO HandleRemoveCredential"
    # The provider is not told: the next that it hears of is another code.
    code = secret("code")
    agent.wait_for_call("Complete", agent.set_credential(code, [ENDPOINT]))
    assert [(request.target, dict(request.form()).get("code"))
            for request in identity.requests] == [
                (TOKEN_PATH, None), (TOKEN_PATH, code)]


def test_a_remove_command_with_nothing_to_remove_succeeds(
        daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)
    settle(agent, caller)
    assert texts(agent.calls()) == [UNPROVISIONED, UNPROVISIONED, COMPLETE]
    assert daemon.log("ERROR") == [
        "ERROR Failed to read file: " + ENDPOINTS]


def test_after_a_remove_command_the_next_start_is_unprovisioned(
        daemon, agent, provision):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    agent.wait_for_call("Complete", agent.remove_credential())
    assert daemon.stop() == 0
    daemon.start()
    assert agent.wait_for_call("UpdateState", count=3).text() == UNPROVISIONED


def test_a_set_command_after_a_remove_command_provisions_again(
        agent, provision, cloud, caller):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    agent.wait_for_call("Complete", agent.remove_credential())
    agent.wait_for_call("Complete",
                        agent.set_credential(secret("code"), [ENDPOINT]))
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1


def test_intended_a_remove_command_that_cannot_delete_is_aborted_and_completed(
        daemon, agent, provision, caller):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    os.chmod(STATE, 0o500)
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)
    assert texts(agent.calls()) == [
        PROVISIONED, ABORT, UNPROVISIONED, COMPLETE]
    assert daemon.log("ERROR") == ["ERROR Failed to remove refresh token file"]
    assert_refused(caller, ENDPOINT, "Endpoint %s not whitelisted" % ENDPOINT)


def test_a_remove_command_during_an_exchange_drops_the_exchange(
        daemon, agent, identity, caller, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    held = Reply.json({"access_token": secret("a"),
                       "refresh_token": secret("r")}, gate=threading.Event())
    identity.replies.append(held)
    exchanged = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    removed = agent.remove_credential()
    agent.wait_for_call("Complete", removed)
    held.gate.set()
    # The token manager that asked is gone, and its answer with it.
    again = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", again)
    settle(agent, caller)
    assert agent.calls(exchanged) == []
    assert files.read(ENDPOINTS) == ENDPOINT.encode()


# What is not for us.

@pytest.mark.parametrize("state", ["", "Queued", "queued ", "inProgress",
                                   "done", "aborted", "cancelled", "error"])
@pytest.mark.parametrize("name", [SET, REMOVE])
def test_a_command_in_another_state_is_left_alone(
        daemon, agent, provision, caller, name, state):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    before = daemon.log()
    agent.command(name, {"_authorizationCode": ["s", secret("code")]},
                  state=state)
    settle(agent, caller)
    assert texts(agent.calls()) == [PROVISIONED]
    assert daemon.log() == before


@pytest.mark.parametrize("name", [
    "", "_setCredential", "_cloudActionConfiguration._SetCredential",
    SET + " ", " " + REMOVE, "_cloudActionConfiguration", "x._setCredential",
    "_cloudActionConfiguration._removeCredentials"])
def test_a_command_of_another_name_is_left_alone(
        daemon, agent, provision, caller, name):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    before = daemon.log()
    agent.command(name, {"_authorizationCode": ["s", secret("code")]})
    settle(agent, caller)
    assert texts(agent.calls()) == [PROVISIONED]
    assert daemon.log() == before


def test_a_later_change_of_state_does_not_start_a_command(
        daemon, agent, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.remove_credential(state="paused")
    agent.do("change", path=path, interface=COMMAND,
             properties={"State": ["s", "queued"]})
    settle(agent, caller)
    assert agent.calls(path) == []


# The agent's answers.

def test_a_state_that_the_agent_refuses_is_told_and_the_command_completes(
        daemon, agent, identity):
    agent.do("behave", member="UpdateState", how="error",
             name="org.vantrel.Error.No", message="no")
    agent.appear()
    daemon.start()
    daemon.wait_for_log("ERROR", "Failed to update state")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    assert daemon.count_log("ERROR", "Failed to update state") == 2
    assert len(agent.calls(member="UpdateState")) == 2


def test_a_state_reply_of_another_shape_is_a_failure(daemon, agent):
    agent.do("behave", member="UpdateState", how="lie", signature="s",
             arguments=["surprise"])
    agent.appear()
    daemon.start()
    daemon.wait_for_log("ERROR", "Failed to update state")


@pytest.mark.parametrize("member", ["Complete", "Abort"])
def test_the_answer_to_the_end_of_a_command_does_not_count(
        daemon, agent, caller, member):
    agent.do("behave", member=member, how="error",
             name="org.vantrel.Error.No", message="no")
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = (agent.remove_credential() if member == "Complete"
            else agent.set_credential("", []))
    agent.wait_for_call(member, path)
    before = daemon.log()
    settle(agent, caller)
    assert daemon.log() == before
    assert len(agent.calls(path)) == 1


def test_a_refused_state_is_not_sent_again(daemon, agent, caller):
    agent.do("behave", member="UpdateState", how="error", count=1,
             name="org.vantrel.Error.No", message="no")
    agent.appear()
    daemon.start()
    daemon.wait_for_log("ERROR", "Failed to update state")
    settle(agent, caller)
    assert len(agent.calls(member="UpdateState")) == 1


def test_without_a_manager_object_the_state_is_not_published(
        daemon, agent, identity, caller):
    agent.do("remove", path=MANAGER_PATH, announce=False)
    agent.appear()
    daemon.start()
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    settle(agent, caller)
    assert texts(agent.calls()) == [COMPLETE]
    assert daemon.log()[-1] == "ERROR Dosset not up yet"
    # The object comes, and with it the state.
    agent.do("publish", path=MANAGER_PATH, interface=MANAGER, properties={})
    agent.wait_for_call("UpdateState")
    assert texts(agent.calls()) == [COMPLETE, PROVISIONED]
