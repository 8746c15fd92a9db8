# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The credential: exchanged, kept, refreshed, dropped."""

import os
import re
import stat
import threading

import pytest
from bus_client import CallError
from cloud import Reply
from conftest import ENDPOINT, secret
from daemon_process import CONFIG, ENDPOINTS, REFRESH_TOKEN, STATE

# What a form body may consist of: all else has to be escaped.
FORM = re.compile(rb"[A-Za-z0-9*\-._~%+&=]*")

TOKEN_REQUEST = [
    "POST /o/oauth2/token HTTP/1.1",
    "Host: identity.vantrel.example",
    "Content-Type: application/x-www-form-urlencoded"]

ALL_SORTS = "a b&c=d+e/f?g%h~i'j\"k\u00e9:;,@$!*()[]{}<>#|\\^`"


def authorization(cloud, count):
    return cloud.wait_for(count).field("Authorization")


# On the wire.

def test_a_stored_refresh_token_is_used_at_once(
        daemon, stored, identity, config):
    token = stored()
    daemon.start()
    request = identity.wait_for(1)
    assert request.lines() == TOKEN_REQUEST + [
        "Content-Length: %d" % len(request.body)]
    assert request.form() == [
        ("refresh_token", token), ("client_id", "client-1"),
        ("client_secret", config["SMARTHOME_CLIENT_SECRET"]),
        ("grant_type", "refresh_token")]
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert daemon.log() == [
        "INFO Refreshing access token.",
        "INFO Successfully fetched access token: 200"]


def test_a_code_is_exchanged_with_six_fields_in_order(
        daemon, agent, identity, config):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    code = secret("code")
    agent.set_credential(code, [ENDPOINT])
    request = identity.wait_for(1)
    assert request.lines() == TOKEN_REQUEST + [
        "Content-Length: %d" % len(request.body)]
    assert request.form() == [
        ("code", code), ("client_id", "client-1"),
        ("client_secret", config["SMARTHOME_CLIENT_SECRET"]),
        ("redirect_uri", "oob"), ("scope", config["SMARTHOME_SCOPE"]),
        ("grant_type", "authorization_code")]


def test_the_token_endpoint_is_not_asked_over_http_2(
        daemon, stored, serve, provider):
    """The library for it would leave copies of the credential in memory."""
    identity = serve("identity.vantrel.example", "127.0.0.1",
                     protocols=("h2", "http/1.1"), answer=provider)
    token = stored()
    daemon.start()
    request = identity.wait_for(1)
    assert request.protocol == "HTTP/1.1"
    assert request.form()[0] == ("refresh_token", token)


def test_the_fields_of_the_code_grant_are_encoded(
        daemon, agent, identity, files):
    files.write(CONFIG, "SMARTHOME_CLIENT_ID=id %s\n"
                "SMARTHOME_CLIENT_SECRET=S3CR3T %s\n"
                "SMARTHOME_SCOPE=scope %s\n" % ((ALL_SORTS,) * 3))
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    agent.set_credential("S3CR3T " + ALL_SORTS, [ENDPOINT])
    request = identity.wait_for(1)
    assert FORM.fullmatch(request.body)
    assert request.form() == [
        ("code", "S3CR3T " + ALL_SORTS), ("client_id", "id " + ALL_SORTS),
        ("client_secret", "S3CR3T " + ALL_SORTS), ("redirect_uri", "oob"),
        ("scope", "scope " + ALL_SORTS), ("grant_type", "authorization_code")]


def test_the_fields_of_the_refresh_grant_are_encoded(
        daemon, identity, files):
    files.write(REFRESH_TOKEN, "S3CR3T " + ALL_SORTS)
    daemon.start()
    request = identity.wait_for(1)
    assert FORM.fullmatch(request.body)
    assert request.form()[0] == ("refresh_token", "S3CR3T " + ALL_SORTS)


@pytest.mark.parametrize("content", [
    b"S3CR3T-refresh\n", b" S3CR3T-refresh ", b"S3CR3T-refresh\r\n\r\n",
    b"S3CR3T-\xff\x01\x00-refresh"], ids=repr)
def test_intended_the_whole_file_is_the_refresh_token(
        daemon, identity, files, content):
    files.write(REFRESH_TOKEN, content)
    daemon.start()
    body = identity.wait_for(1).body
    field, _, _ = body.partition(b"&")
    name, _, value = field.partition(b"=")
    assert name == b"refresh_token"
    assert bytes_of(value) == content


def bytes_of(encoded):
    """Decodes a form value without taking it for text."""
    return re.sub(rb"%([0-9A-Fa-f]{2})",
                  lambda m: bytes.fromhex(m.group(1).decode()),
                  encoded.replace(b"+", b" "))


# What is kept.

def test_a_fresh_refresh_token_is_stored_for_the_owner_alone(
        daemon, agent, identity, provider, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    daemon.stop()
    (token,) = provider.refresh_tokens
    assert files.read(REFRESH_TOKEN) == token.encode()
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert sorted(os.listdir(STATE)) == ["allowed_endpoints", "refresh_token"]
    mode = os.stat(REFRESH_TOKEN).st_mode
    assert stat.S_IMODE(mode) & 0o077 == 0


def test_a_stored_refresh_token_survives_a_restart(
        daemon, agent, identity, provider, cloud, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    assert daemon.stop() == 0
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert caller.request(ENDPOINT)[0] == 200
    (token,) = provider.refresh_tokens
    assert identity.requests[-1].form()[0] == ("refresh_token", token)
    assert len(cloud.requests) == 1


def test_the_access_token_of_the_code_grant_is_used_at_once(
        daemon, agent, identity, cloud, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    assert caller.request(ENDPOINT)[0] == 200
    assert len(identity.requests) == 1
    assert len(cloud.requests) == 1


def test_a_refresh_token_in_a_refresh_reply_is_not_taken(
        daemon, stored, identity, files):
    token = stored()
    identity.replies.append(Reply.json({
        "access_token": secret("access"), "refresh_token": secret("other")}))
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert daemon.stop() == 0
    assert files.read(REFRESH_TOKEN) == token.encode()


def test_a_refresh_token_that_cannot_be_stored_is_used_until_the_end(
        daemon, agent, identity, cloud, caller, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    os.chmod(STATE, 0o500)
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    assert caller.request(ENDPOINT)[0] == 200
    assert daemon.log("ERROR")[-1] == (
        "ERROR Failed to write allowed endpoints to file: Permission denied")
    assert agent.calls(path, "Abort") == []
    assert files.read(REFRESH_TOKEN) is None
    assert files.read(ENDPOINTS) is None


def test_what_an_unfinished_write_left_behind_is_cleaned_up(
        daemon, files, caller):
    for path in (REFRESH_TOKEN, ENDPOINTS):
        files.write(path + ".tmp.Ab1Cd2", secret("half"))
    others = ["allowed_endpoints.tmp", "other.tmp.Ab1Cd2",
              "xrefresh_token.tmp.Ab1Cd2"]
    for name in others:
        files.write(os.path.join(STATE, name), "")
    daemon.start()
    caller.sync()
    assert sorted(os.listdir(STATE)) == others


# A refresh that fails.

DISCARDED = "/var/lib/cloud_action/refresh_token"


@pytest.mark.parametrize("reply, lines", [
    (Reply.json({"error": "x"}, 500),
     ["INFO Successfully fetched access token: 500",
      "ERROR Error parsing oauth2 response: x - 500"]),
    (Reply.json({"error": "invalid_grant"}, 400),
     ["INFO Successfully fetched access token: 400",
      "ERROR Error parsing oauth2 response: invalid_grant - 400"]),
    (Reply.json({}, 401),
     ["INFO Successfully fetched access token: 401",
      "ERROR Error parsing oauth2 response: unexpected_response - 401"]),
    (Reply.json({"error": {"code": 5}}, 503),
     ["INFO Successfully fetched access token: 503",
      "ERROR Error parsing oauth2 response: unexpected_response - 503"]),
    (Reply.json({"error": "x", "access_token": "S3CR3T-no"}, 400),
     ["INFO Successfully fetched access token: 400",
      "ERROR Error parsing oauth2 response: x - 400"]),
    (Reply(400, b"not JSON"),
     ["INFO Successfully fetched access token: 400"]),
    (Reply(200, b"<html></html>"),
     ["INFO Successfully fetched access token: 200"]),
    (Reply(200, b'["access_token"]'),
     ["INFO Successfully fetched access token: 200"]),
    (Reply.json({"token": "S3CR3T-no"}),
     ["INFO Successfully fetched access token: 200"]),
    (Reply.json({"access_token": ""}),
     ["INFO Successfully fetched access token: 200"]),
    (Reply.json({"access_token": 5}),
     ["INFO Successfully fetched access token: 200"]),
], ids=["500", "400", "no error", "odd error", "400 with token", "no JSON",
        "HTML", "array", "no token", "empty token", "odd token"])
def test_a_refresh_reply_without_a_token_discards_the_credential(
        daemon, stored, identity, cloud, caller, files, reply, lines):
    stored()
    identity.replies.append(reply)
    daemon.start()
    daemon.wait_for_log(*lines[-1].split(" ", 1))
    # A request later, all that follows from the reply has happened.
    assert caller.request(ENDPOINT)[0] == 401
    assert authorization(cloud, 1) == "Bearer "
    assert files.read(REFRESH_TOKEN) is None
    assert daemon.log()[:len(lines) + 1] == [
        "INFO Refreshing access token."] + lines
    assert len(identity.requests) == 1


def test_an_error_text_of_the_provider_cannot_forge_a_log_line(
        daemon, stored, identity):
    stored()
    identity.replies.append(Reply.json({"error": "x\n[INFO] all is well"},
                                       400))
    daemon.start()
    daemon.wait_for_log("ERROR", "Error parsing oauth2 response: "
                        "x\\x0a[INFO] all is well - 400")


def test_after_a_discarded_credential_the_next_start_is_unprovisioned(
        daemon, stored, identity, caller):
    stored()
    identity.replies.append(Reply.json({"error": "invalid_grant"}, 400))
    daemon.start()
    daemon.wait_for_log_like("ERROR", "Error parsing oauth2 response: .*")
    caller.sync()
    assert daemon.stop() == 0
    daemon.start()
    with pytest.raises(CallError) as caught:
        caller.request(ENDPOINT)
    assert caught.value.message == (
        "actions/invalid_arguments: Authorization code not provisioned")


def test_a_credential_that_cannot_be_deleted_is_told(
        daemon, stored, identity, files):
    stored()
    reply = Reply.json({"error": "invalid_grant"}, 400,
                       gate=threading.Event())
    identity.replies.append(reply)
    daemon.start()
    identity.wait_for(1)
    os.chmod(STATE, 0o500)
    reply.gate.set()
    daemon.wait_for_log("ERROR", "Unable to delete saved refresh token")
    assert files.read(REFRESH_TOKEN) is not None


def test_a_provider_out_of_reach_does_not_cost_the_credential(
        daemon, stored, cloud, caller, files):
    token = stored()
    daemon.start()  # Nobody listens at the token endpoint.
    daemon.wait_for_log_like("WARNING", "Error fetching access token: .+")
    assert caller.request(ENDPOINT)[0] == 401
    assert authorization(cloud, 1) == "Bearer "
    assert files.read(REFRESH_TOKEN) == token.encode()


@pytest.mark.parametrize("handshake", ["reset", "garbage"])
def test_a_spoilt_connection_does_not_cost_the_credential(
        daemon, stored, identity, files, handshake):
    token = stored()
    identity.handshake = handshake
    daemon.start()
    daemon.wait_for_log_like("WARNING", "Error fetching access token: .+")
    assert files.read(REFRESH_TOKEN) == token.encode()


def test_the_credential_is_not_sent_to_a_provider_of_unknown_authority(
        daemon, stored, serve, certificate, other_authority, files):
    token = stored()
    host = "identity.vantrel.example"
    server = serve(host, "127.0.0.1", certificate=certificate(
        host, authority=other_authority))
    daemon.start()
    daemon.wait_for_log_like("WARNING", "Error fetching access token: .+")
    assert server.requests == []
    assert files.read(REFRESH_TOKEN) == token.encode()


@pytest.mark.parametrize("status", [302, 307, 308])
def test_the_credential_does_not_follow_a_redirect(
        daemon, stored, identity, serve, caller, status):
    stored()
    other = serve("other.vantrel.example", "127.0.0.3")
    identity.replies.append(Reply(status, b"", [
        ("Location", "https://other.vantrel.example/o/oauth2/token")]))
    daemon.start()
    daemon.wait_for_log(
        "INFO", "Successfully fetched access token: %d" % status)
    caller.sync()
    assert other.connections == 0


@pytest.mark.parametrize("token", ["S3CR3T\r\nX-Forged: 1", "S3CR3T\n",
                                   "S3CR3T\0", "S3CR3T\x7f"], ids=repr)
def test_an_access_token_that_no_header_can_hold_is_not_sent(
        daemon, stored, identity, cloud, caller, token):
    stored()
    identity.replies.append(Reply.json({"access_token": token}))
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    with pytest.raises(CallError) as caught:
        caller.request(ENDPOINT)
    assert caught.value.message.startswith("http/invalid_header: ")
    assert "S3CR3T" not in caught.value.message
    assert cloud.connections == 0


# The cloud says 401.

def test_a_401_is_handed_on_and_the_next_request_has_a_new_token(
        daemon, agent, identity, cloud, caller, provider):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    (old,) = provider.access_tokens
    provider.access_tokens.clear()
    before = len(daemon.log())
    assert caller.request(ENDPOINT) == (401, '{"error":"invalid_token"}')
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert [str(line) for line in daemon.lines[before:]] == [
        "[INFO] Access token invalidated",
        "[INFO] Refreshing access token.",
        "[INFO:platform/actions/cloud-actions/cloud_action_manager(354)] "
        "Access token invalidated",
        "[INFO] Successfully fetched access token: 200"]
    assert caller.request(ENDPOINT)[0] == 200
    (new,) = provider.access_tokens
    assert [r.field("Authorization") for r in cloud.requests] == [
        "Bearer " + old, "Bearer " + new]
    assert len(identity.requests) == 2


def test_a_401_with_an_empty_object_is_handed_on(
        daemon, provision, cloud, caller):
    provision()
    cloud.replies.append(Reply.json({}, 401))
    assert caller.request(ENDPOINT) == (401, "{}")
    assert daemon.count_log("INFO", "Access token invalidated") == 2


def test_a_401_that_is_no_json_drops_the_token_all_the_same(
        daemon, provision, cloud, caller):
    provision()
    cloud.replies.append(Reply(401, b"<html></html>"))
    with pytest.raises(CallError) as caught:
        caller.request(ENDPOINT)
    assert caught.value.message == "actions/remote_error: Invalid JSON response"
    assert daemon.count_log("INFO", "Access token invalidated") == 2
    caller.request(ENDPOINT)
    assert authorization(cloud, 2) == "Bearer "


def test_a_401_followed_at_once_by_a_request_sends_no_token(
        daemon, agent, identity, cloud, caller):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)
    cloud.replies.append(Reply.json({}, 401))
    held = Reply(gate=threading.Event())
    identity.replies.append(held)
    assert caller.request(ENDPOINT) == (401, "{}")
    assert caller.request(ENDPOINT)[0] == 401
    assert authorization(cloud, 2) == "Bearer "
    held.gate.set()


def test_intended_a_401_starts_a_refresh_even_without_a_refresh_token(
        daemon, files, identity, cloud, caller):
    files.write(REFRESH_TOKEN, "")
    files.write(ENDPOINTS, ENDPOINT)
    daemon.start()
    assert caller.request(ENDPOINT)[0] == 401
    assert identity.wait_for(1).form()[0] == ("refresh_token", "")
    daemon.wait_for_log("ERROR", "Error parsing oauth2 response: "
                        "invalid_grant - 400")
    assert len(cloud.requests) == 1


@pytest.mark.parametrize("status", [400, 402, 403, 407, 500])
def test_only_a_401_drops_the_access_token(
        daemon, provision, identity, cloud, caller, status):
    state = provision()
    cloud.replies.append(Reply.json({}, status))
    assert caller.request(ENDPOINT) == (status, "{}")
    caller.request(ENDPOINT)
    assert authorization(cloud, 2) == "Bearer " + state.access_token
    assert daemon.count_log("INFO", "Access token invalidated") == 0
    assert len(identity.requests) == 1


# A code exchange that fails.

ENDED = ["ERROR Failed to obtain refresh token from the provided "
         "authorization code"]


@pytest.mark.parametrize("reply, lines", [
    (Reply.json({"error": "invalid_grant"}, 400),
     ["INFO Successfully fetched refresh token: 400",
      "ERROR Error parsing oauth2 response: invalid_grant - 400",
      "ERROR Unable to fetch refresh token"]),
    (Reply.json({"access_token": "S3CR3T-a", "refresh_token": "S3CR3T-b"},
                500),
     ["INFO Successfully fetched refresh token: 500",
      "ERROR Error parsing oauth2 response: unexpected_response - 500",
      "ERROR Unable to fetch refresh token"]),
    (Reply(200, b"<html></html>"),
     ["INFO Successfully fetched refresh token: 200",
      "ERROR Unable to fetch refresh token"]),
    (Reply.json({"refresh_token": "S3CR3T-b"}),
     ["INFO Successfully fetched refresh token: 200",
      "ERROR Unable to fetch refresh token"]),
    (Reply.json({"access_token": "", "refresh_token": "S3CR3T-b"}),
     ["INFO Successfully fetched refresh token: 200",
      "ERROR Unable to fetch refresh token"]),
    (Reply.json({"access_token": "S3CR3T-a", "refresh_token": ""}),
     ["INFO Successfully fetched refresh token: 200",
      "ERROR Unable to fetch refresh token"]),
    (Reply.json({"access_token": "S3CR3T-a", "refresh_token": [1]}),
     ["INFO Successfully fetched refresh token: 200",
      "ERROR Unable to fetch refresh token"]),
], ids=["400", "500 with tokens", "HTML", "no access token",
        "empty access token", "empty refresh token", "odd refresh token"])
def test_a_code_reply_without_both_tokens_aborts_the_command(
        daemon, agent, identity, files, reply, lines):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    identity.replies.append(reply)
    path = agent.set_credential(secret("code"), [ENDPOINT])
    assert agent.wait_for_call("Abort", path).text() == 'Abort(ss) "", ""'
    daemon.wait_for_log(*ENDED[0].split(" ", 1))
    assert daemon.log()[-len(lines) - 3:] == [
        "INFO HandleSetCredential", "INFO Fetching refresh token",
    ] + lines + ENDED
    assert files.read(REFRESH_TOKEN) is None
    assert files.read(ENDPOINTS) is None
    assert len(agent.calls(member="UpdateState")) == 1


def test_a_provider_out_of_reach_aborts_the_command(daemon, agent, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    path = agent.set_credential(secret("code"), [ENDPOINT])
    assert agent.wait_for_call("Abort", path).text() == 'Abort(ss) "", ""'
    daemon.wait_for_log(*ENDED[0].split(" ", 1))
    assert daemon.log()[-4:-2] == [
        "INFO HandleSetCredential", "INFO Fetching refresh token"]
    assert re.fullmatch("WARNING Error fetching refresh token: .+",
                        daemon.log()[-2])
    assert files.read(REFRESH_TOKEN) is None


def test_a_failed_exchange_leaves_files_and_list_but_no_token_in_memory(
        daemon, agent, provision, identity, cloud, caller, files):
    agent.appear()
    state = provision()
    agent.wait_for_call("UpdateState")
    identity.replies.append(Reply.json({"error": "invalid_grant"}, 400))
    path = agent.set_credential(secret("code"),
                                ["https://other.vantrel.example/"])
    agent.wait_for_call("Abort", path)
    assert caller.request(ENDPOINT)[0] == 401
    assert authorization(cloud, 1) == "Bearer "
    assert files.read(REFRESH_TOKEN) == state.refresh_token.encode()
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert len(identity.requests) == 2
    assert daemon.stop() == 0
    # The old credential is read again at the next start.
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert identity.requests[-1].form()[0] == (
        "refresh_token", state.refresh_token)


def test_intended_a_code_reply_with_only_an_access_token_leaves_it_cached(
        daemon, agent, provision, identity, cloud, caller, files):
    agent.appear()
    state = provision()
    agent.wait_for_call("UpdateState")
    token = secret("access")
    identity.replies.append(Reply.json({"access_token": token}))
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Abort", path)
    daemon.wait_for_log("ERROR", "Unable to fetch refresh token")
    caller.request(ENDPOINT)
    assert authorization(cloud, 1) == "Bearer " + token
    assert files.read(REFRESH_TOKEN) == state.refresh_token.encode()


def test_during_an_exchange_requests_carry_no_token(
        agent, provision, identity, cloud, caller, provider):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    held = Reply.json({"access_token": provider.make("access"),
                       "refresh_token": provider.make("refresh")},
                      gate=threading.Event())
    identity.replies.append(held)
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(2)
    assert caller.request(ENDPOINT)[0] == 401
    assert authorization(cloud, 1) == "Bearer "
    held.gate.set()
    agent.wait_for_call("Complete", path)
    assert caller.request(ENDPOINT)[0] == 200


def test_a_second_exchange_is_rejected_while_one_is_outstanding(
        daemon, agent, identity, provider, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    held = Reply.json({"access_token": provider.make("access"),
                       "refresh_token": provider.make("refresh")},
                      gate=threading.Event())
    identity.replies.append(held)
    first = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    second = agent.set_credential(secret("code"), ["https://b.example/"])
    assert agent.wait_for_call("Abort", second).text() == 'Abort(ss) "", ""'
    assert daemon.log()[-3:-1] == [
        "INFO HandleSetCredential",
        "WARNING Request already outstanding: rejecting new request"]
    daemon.wait_for_log(*ENDED[0].split(" ", 1))
    held.gate.set()
    agent.wait_for_call("Complete", first)
    assert agent.calls(first, "Abort") == []
    assert agent.calls(second, "Complete") == []
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert len(identity.requests) == 1


def test_the_token_endpoint_can_be_read_off_the_binary(program):
    with open(program, "rb") as binary:
        assert (b"https://identity.vantrel.example/o/oauth2/token\0"
                in binary.read())
