# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The configuration file and the stored endpoints, good and bad."""

import os

import pytest
from bus_client import CallError
from cloud import Reply
from conftest import ENDPOINT, secret
from daemon_process import CONFIG, ENDPOINTS, REFRESH_TOKEN, STATE

NOT_REACHED = ("[ERROR:platform/actions/cloud-actions/"
               "cloud_action_manager(52)] Not reached: the configuration is "
               "incomplete, going on with what was read")
NOT_LOADED = "[ERROR] Failed to load config file /etc/ap/cloud_action.conf"
INCOMPLETE = "[ERROR] Missing fields in the config file - file corrupted?"
NO_ENDPOINTS = "[ERROR] Failed to read file: " + ENDPOINTS

SECRET = "S3CR3T-client-secret"


def lines(daemon):
    daemon.log()
    return [str(line) for line in daemon.lines]


def grant(agent, identity):
    """The form fields of a code exchange, which show the configuration."""
    agent.appear()
    agent.set_credential(secret("code"), [ENDPOINT])
    fields = dict(identity.wait_for(1).form())
    return [fields[name] for name in ("client_id", "client_secret", "scope")]


def assert_serves(caller, message):
    with pytest.raises(CallError) as caught:
        caller.request(ENDPOINT)
    assert caught.value.message == "actions/invalid_arguments: " + message


def test_a_missing_configuration_is_told_and_survived(daemon, files, caller):
    os.unlink(CONFIG)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == [NOT_LOADED, NOT_REACHED]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


def test_an_unreadable_configuration_is_told_and_survived(
        daemon, files, caller):
    os.chmod(CONFIG, 0)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == [NOT_LOADED, NOT_REACHED]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


def test_a_folder_for_a_configuration_is_told_and_survived(
        daemon, files, caller):
    os.unlink(CONFIG)
    os.mkdir(CONFIG)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == [NOT_LOADED, NOT_REACHED]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


def test_a_pipe_for_a_configuration_does_not_stall_the_start(
        daemon, files, caller):
    os.unlink(CONFIG)
    os.mkfifo(CONFIG)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == [NOT_LOADED, NOT_REACHED]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


def test_without_a_configuration_the_values_are_empty(
        daemon, agent, identity):
    os.unlink(CONFIG)
    daemon.start()
    assert grant(agent, identity) == ["", "", ""]


@pytest.mark.parametrize("content", [
    "", "SMARTHOME_CLIENT_ID\n", "nonsense\n", "=\n", b"\x00\xff" * 5000,
    "# SMARTHOME_CLIENT_ID=x\n", "smarthome_client_id=x\n",
    "SMARTHOME_CLIENT_ID_=x\n"], ids=lambda content: repr(content[:12]))
def test_a_configuration_without_the_keys_is_told_and_survived(
        daemon, files, caller, content):
    files.write(CONFIG, content)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == [INCOMPLETE, NOT_REACHED]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


@pytest.mark.parametrize("content, values", [
    ("SMARTHOME_CLIENT_ID=i\n", ["i", "", ""]),
    ("SMARTHOME_CLIENT_ID=i\nSMARTHOME_CLIENT_SECRET=%s\n" % SECRET,
     ["i", SECRET, ""]),
    ("SMARTHOME_CLIENT_ID=i\nSMARTHOME_SCOPE=s\n", ["i", "", ""]),
    ("SMARTHOME_CLIENT_SECRET=%s\nSMARTHOME_SCOPE=s\n" % SECRET,
     ["", "", ""]),
    ("SMARTHOME_SCOPE=s\n", ["", "", ""]),
], ids=["id", "id secret", "id scope", "secret scope", "scope"])
def test_reading_stops_at_the_first_missing_key(
        daemon, files, agent, identity, content, values):
    files.write(CONFIG, content)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon)[:2] == [INCOMPLETE, NOT_REACHED]
    assert grant(agent, identity) == values


@pytest.mark.parametrize("content, values", [
    ("SMARTHOME_CLIENT_ID=i\nSMARTHOME_CLIENT_SECRET=%s\nSMARTHOME_SCOPE=s\n",
     ["i", SECRET, "s"]),
    ("SMARTHOME_SCOPE=s\nSMARTHOME_CLIENT_SECRET=%s\nSMARTHOME_CLIENT_ID=i",
     ["i", SECRET, "s"]),
    ("# x\n\nOTHER=o\nSMARTHOME_CLIENT_ID=i=j\nSMARTHOME_CLIENT_SECRET=%s\n"
     "SMARTHOME_SCOPE=a b c\n", ["i=j", SECRET, "a b c"]),
    ("SMARTHOME_CLIENT_ID=i\r\nSMARTHOME_CLIENT_SECRET=%s\r\n"
     "SMARTHOME_SCOPE=s\r\n", ["i", SECRET, "s"]),
], ids=["plain", "any order", "others", "CR LF"])
def test_a_complete_configuration_is_read_without_a_word(
        daemon, files, agent, identity, content, values):
    files.write(CONFIG, content % SECRET)
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == []
    assert grant(agent, identity) == values


def test_a_key_with_an_empty_value_counts_as_present(
        daemon, files, agent, identity):
    files.write(CONFIG, "SMARTHOME_CLIENT_ID=\nSMARTHOME_CLIENT_SECRET=\n"
                "SMARTHOME_SCOPE=\n")
    files.write(ENDPOINTS, "")
    daemon.start()
    assert lines(daemon) == []
    assert grant(agent, identity) == ["", "", ""]


def test_the_configuration_is_read_once(
        daemon, files, agent, identity, config):
    daemon.start()
    files.write(CONFIG, "SMARTHOME_CLIENT_ID=new\n"
                "SMARTHOME_CLIENT_SECRET=new\nSMARTHOME_SCOPE=new\n")
    assert grant(agent, identity) == list(config.values())


def test_all_faults_are_told_in_the_order_of_reading(daemon):
    os.unlink(CONFIG)
    daemon.start()
    assert lines(daemon) == [NOT_LOADED, NOT_REACHED, NO_ENDPOINTS]


# The stored endpoints.

def test_missing_endpoints_are_told_and_survived(daemon, caller):
    daemon.start()
    assert lines(daemon) == [NO_ENDPOINTS]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


@pytest.mark.parametrize("kind", ["unreadable", "folder", "pipe"])
def test_unreadable_endpoints_are_told_and_survived(
        daemon, files, caller, kind):
    if kind == "folder":
        os.mkdir(ENDPOINTS)
    elif kind == "pipe":
        os.mkfifo(ENDPOINTS)
    else:
        files.write(ENDPOINTS, ENDPOINT)
        os.chmod(ENDPOINTS, 0)
    daemon.start()
    assert lines(daemon) == [NO_ENDPOINTS]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


def test_an_unreadable_state_folder_is_survived(daemon, stored, caller):
    stored()
    os.chmod(STATE, 0)
    daemon.start()
    assert lines(daemon) == [NO_ENDPOINTS]
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


@pytest.mark.parametrize("content", ["", "\n", " ,, ,\n", ","], ids=repr)
def test_no_endpoints_in_the_file_are_an_empty_list_and_no_log_line(
        daemon, files, caller, content):
    files.write(ENDPOINTS, content)
    daemon.start()
    assert lines(daemon) == []
    assert_serves(caller, "Endpoint %s not whitelisted" % ENDPOINT)


@pytest.mark.parametrize("content", [
    "https://a.vantrel.example/p , ,https://b.vantrel.example/q\n",
    "https://a.vantrel.example/p,https://b.vantrel.example/q",
    "\t\nhttps://a.vantrel.example/p\r\n,,\nhttps://b.vantrel.example/q\n\n",
], ids=repr)
def test_the_reader_is_lenient_with_blanks_and_commas(
        daemon, files, caller, content):
    files.write(ENDPOINTS, content)
    daemon.start()
    assert lines(daemon) == []
    for allowed in ("https://a.vantrel.example/p",
                    "https://b.vantrel.example/q"):
        with pytest.raises(CallError) as caught:
            caller.request(allowed)
        assert caught.value.message == (
            "actions/invalid_arguments: Authorization code not provisioned")
    with pytest.raises(CallError) as caught:
        caller.request("https://a.vantrel.example/q")
    assert "not whitelisted" in caught.value.message


def test_an_endpoint_that_is_no_url_is_told_and_the_others_are_kept(
        daemon, files, caller):
    files.write(ENDPOINTS, "https://a.vantrel.example/p,"
                "ftp://b.vantrel.example/q,x,https://a.vantrel.example/r")
    daemon.start()
    assert lines(daemon) == [
        "[ERROR] Ignore invalid endpoint URL: ftp://b.vantrel.example/q",
        "[ERROR] Ignore invalid endpoint URL: x"]
    for path in ("p", "r"):
        with pytest.raises(CallError) as caught:
            caller.request("https://a.vantrel.example/" + path)
        assert "not provisioned" in caught.value.message


def test_an_endpoint_that_climbs_is_told_twice(daemon, files):
    files.write(ENDPOINTS, "https://a.vantrel.example/x/../y")
    daemon.start()
    assert lines(daemon) == [
        "[ERROR] Path contains reference to parent directory: /x/../y",
        "[ERROR] Ignore invalid endpoint URL: "
        "https://a.vantrel.example/x/../y"]


def test_odd_bytes_in_the_endpoints_cannot_forge_a_log_line(daemon, files):
    files.write(ENDPOINTS, b"x\n[INFO] forged\x1b[0m\x00y")
    daemon.start()
    assert lines(daemon) == ["[ERROR] Ignore invalid endpoint URL: "
                             "x\\x0a[INFO] forged\\x1b[0m\\x00y"]


def test_ten_thousand_endpoints_are_all_read(daemon, files, caller):
    files.write(ENDPOINTS, ",".join("https://a.vantrel.example/%d/" % i
                                    for i in range(10000)))
    daemon.start()
    assert lines(daemon) == []
    with pytest.raises(CallError) as caught:
        caller.request("https://a.vantrel.example/9999/")
    assert "not provisioned" in caught.value.message


# The stored refresh token, as far as its mere existence goes.

@pytest.mark.parametrize("kind", ["empty", "unreadable", "folder", "pipe"])
def test_any_refresh_token_file_makes_the_daemon_provisioned(
        daemon, files, cloud, caller, kind):
    files.write(ENDPOINTS, ENDPOINT)
    if kind == "folder":
        os.mkdir(REFRESH_TOKEN)
    elif kind == "pipe":
        os.mkfifo(REFRESH_TOKEN)
    else:
        files.write(REFRESH_TOKEN, "" if kind == "empty" else secret("x"))
    if kind == "unreadable":
        os.chmod(REFRESH_TOKEN, 0)
    daemon.start()
    cloud.replies.append(Reply.json({}, 403))
    assert caller.request(ENDPOINT) == (403, "{}")
    assert cloud.requests[0].field("Authorization") == "Bearer "
    assert lines(daemon) == []
