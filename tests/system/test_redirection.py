# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Which requests are let through, and what goes out and comes back."""

import os
import subprocess

import pytest
from bus_client import CallError
from cloud import Reply
from conftest import ENDPOINT
from daemon_process import ENDPOINTS, REFRESH_TOKEN

FAILED = "org.freedesktop.DBus.Error.Failed"


def refusal(caller, *arguments):
    """Calls, and returns the text of the error that must come."""
    with pytest.raises(CallError) as caught:
        caller.request(*arguments)
    assert caught.value.name == FAILED
    return caught.value.message


def curl(environment, *arguments):
    """Runs the command line tool, and returns its exit code.

    It shows what the environment does to a program that does not guard
    against it.
    """
    return subprocess.run(
        ["curl", "--silent", "--output", "/dev/null", "--max-time", "20",
         *arguments], env={**os.environ, **environment}, timeout=30,
        check=False).returncode


def invalid(text):
    return "actions/invalid_arguments: " + text


# The checks, in their order.

@pytest.mark.parametrize("endpoint", [
    "", "cloud.vantrel.example", "ftp://cloud.vantrel.example/v1/",
    "https:// cloud.vantrel.example/v1/",
    "HTTPS://cloud.vantrel.example/v1/", "https://", "https:///v1/",
    "https://cloud.vantrel.example:x/v1/",
    "https://cloud.vantrel.example:1:2/v1/",
    "https://cloud.vantrel.example:2147483648/v1/",
    "https://:443/v1/", "https:/cloud.vantrel.example/v1/",
])
def test_an_endpoint_that_is_no_url_is_refused(provision, caller, endpoint):
    provision()
    assert refusal(caller, endpoint) == invalid(
        "Endpoint %s is not a valid URL" % endpoint)


def test_a_malformed_endpoint_is_told_before_the_missing_credential(
        daemon, caller):
    daemon.start()
    assert refusal(caller, "nonsense") == invalid(
        "Endpoint nonsense is not a valid URL")


def test_an_unlisted_endpoint_is_told_before_the_missing_credential(
        daemon, caller):
    daemon.start()
    assert refusal(caller, ENDPOINT) == invalid(
        "Endpoint %s not whitelisted" % ENDPOINT)


def test_a_missing_credential_is_told_before_the_wrong_method(
        daemon, caller, files):
    files.write(ENDPOINTS, ENDPOINT)
    daemon.start()
    assert refusal(caller, ENDPOINT, "PUT", "{") == invalid(
        "Authorization code not provisioned")


@pytest.mark.parametrize("method", ["PUT", "put", "DELETE", "HEAD", "PATCH",
                                    "GETS", "POST ", "", "G\u00c9T"])
@pytest.mark.parametrize("body", ["{}", "{"])
def test_another_method_than_get_and_post_is_refused_whatever_the_body(
        provision, cloud, caller, method, body):
    provision()
    assert refusal(caller, ENDPOINT, method, body) == invalid(
        "Method %s not supported" % method)
    assert cloud.connections == 0


@pytest.mark.parametrize("body", [
    "", "{", "}", "{}x", "[1,]", "{'a':1}", "nul", "NaN", "// x\n1", "01",
    '"\n"', '{"a":1,}', "[" * 513 + "]" * 513, "\ufeff{}", " ",
], ids=lambda body: repr(body[:12]))
def test_a_post_body_that_is_not_json_is_refused(
        provision, cloud, caller, body):
    provision()
    assert refusal(caller, ENDPOINT, "POST", body) == invalid(
        "Request body not in JSON format")
    assert cloud.connections == 0


def test_a_refusal_logs_nothing(daemon, provision, caller):
    provision()
    before = daemon.log()
    refusal(caller, "nonsense")
    refusal(caller, "https://other.vantrel.example/")
    refusal(caller, ENDPOINT, "PUT")
    refusal(caller, ENDPOINT, "POST", "{")
    caller.sync()
    assert daemon.log() == before


def test_a_request_to_a_parent_folder_is_refused_with_a_log_line(
        daemon, provision, cloud, caller):
    provision()
    endpoint = ENDPOINT + "%2E%2e/secret"
    assert refusal(caller, endpoint) == invalid(
        "Endpoint %s is not a valid URL" % endpoint)
    assert daemon.count_log(
        "ERROR", "Path contains reference to parent directory: "
        "/v1/%2E%2e/secret") == 1
    assert cloud.connections == 0


def test_control_bytes_in_an_endpoint_cannot_forge_a_log_line(
        daemon, provision, caller):
    provision()
    refusal(caller, ENDPOINT + "..\n[ERROR] forged\x1b[2J")
    daemon.wait_for_log(
        "ERROR", "Path contains reference to parent directory: "
        "/v1/..\\x0a[ERROR] forged\\x1b[2J")
    assert daemon.count_log("ERROR", "forged") == 0


def test_a_long_log_message_is_cut(daemon, provision, caller):
    provision()
    path = "/v1/../" + "x" * 9000
    refusal(caller, "https://cloud.vantrel.example" + path)
    message = "Path contains reference to parent directory: " + path
    expected = "%s... (%d bytes)" % (message[:8192], len(message))
    assert daemon.count_log("ERROR", expected) == 1
    # The system log must tell the same.
    assert daemon.stop() == 0


def test_a_log_message_of_8_kib_is_not_cut(daemon, provision, caller):
    provision()
    message = "Path contains reference to parent directory: /v1/../"
    message += "x" * (8192 - len(message))
    refusal(caller, "https://cloud.vantrel.example" + message.split(": ")[1])
    assert daemon.count_log("ERROR", message) == 1


@pytest.mark.parametrize("letter", ["x", "\u00e9", "\u20ac", "\U0001f600"])
@pytest.mark.parametrize("shift", range(4))
def test_a_long_error_text_is_cut(provision, caller, letter, shift):
    provision()
    endpoint = "https://other.vantrel.example/" + "y" * shift + letter * 5000
    text = invalid("Endpoint %s not whitelisted" % endpoint).encode()
    # What is left of a character that was cut in two is no text any more.
    kept = text[:4096].decode(errors="ignore")
    kept += "?" * (4096 - len(kept.encode()))
    assert refusal(caller, endpoint) == "%s... (%d bytes)" % (kept, len(text))


def test_an_error_text_of_4_kib_is_not_cut(provision, caller):
    provision()
    form = invalid("Endpoint https://other.vantrel.example/%s not whitelisted")
    fill = "x" * (4096 - len(form % ""))
    assert refusal(caller, "https://other.vantrel.example/" + fill) == (
        form % fill)


# The list of allowed endpoints.

@pytest.mark.parametrize("endpoint", [
    "https://cloud.vantrel.example/v1/",
    "https://cloud.vantrel.example/v1/things",
    "https://cloud.vantrel.example/V1/things?x=1",
    "https://cloud.vantrel.example:443/v1/",
])
def test_an_endpoint_below_a_listed_one_is_let_through(
        provision, cloud, caller, endpoint):
    provision("https://elsewhere.example/", ENDPOINT)
    cloud.replies.append(Reply())
    assert caller.request(endpoint) == (200, "{}")


@pytest.mark.parametrize("endpoint", [
    "https://CLOUD.vantrel.example/v1/",
    "https://cloud.vantrel.example./v1/",
    "https://other.vantrel.example/v1/",
    "https://cloud.vantrel.example/v1",
    "https://cloud.vantrel.example/",
    "https://cloud.vantrel.example",
    "https://cloud.vantrel.example/v2/",
    "https://cloud.vantrel.example/x/v1/",
    "https://cloud.vantrel.example@other.vantrel.example/v1/",
    "https://x@cloud.vantrel.example/v1/",
    "https://cloud.vantrel.example\\@other.vantrel.example/v1/",
    "https://cloud.vantrel.example%2f@other.vantrel.example/v1/",
])
def test_an_endpoint_beside_the_listed_ones_is_refused(
        provision, cloud, caller, endpoint):
    provision()
    assert refusal(caller, endpoint) == invalid(
        "Endpoint %s not whitelisted" % endpoint)
    assert cloud.connections == 0


def test_intended_the_scheme_of_a_listed_endpoint_does_not_count(
        provision, serve, caller):
    provision()
    plain = serve(None, "127.0.0.2", 80, tls=False)
    assert caller.request("http://cloud.vantrel.example/V1/things?x=1") == (
        200, "{}")
    assert plain.wait_for(1).target == "/V1/things?x=1"


def test_intended_the_port_of_a_listed_endpoint_does_not_count(
        provision, serve, caller):
    provision()
    other = serve("cloud.vantrel.example", "127.0.0.2", 8443)
    assert caller.request("https://cloud.vantrel.example:8443/v1/") == (
        200, "{}")
    assert other.wait_for(1).field("Host") == "cloud.vantrel.example:8443"


@pytest.mark.parametrize("path", ["/dev", "/device", "/dev?x=1", "/DEV/1"])
def test_intended_a_listed_path_is_a_plain_prefix(
        provision, cloud, caller, path):
    provision("https://cloud.vantrel.example/dev")
    cloud.replies.append(Reply())
    assert caller.request("https://cloud.vantrel.example" + path) == (
        200, "{}")
    assert cloud.requests[0].target == path


@pytest.mark.parametrize("endpoint", [
    "https://cloud.vantrel.example /v1/",
    "https://cloud.vantrel.example/v1/a b",
    "https://cloud.vantrel.example/v1/\t",
    "https://cloud.vantrel.example/v1/\r\nX-Forged: 1",
    "https://cloud.vantrel.example/v1/\\.",
    "https://cloud.vantrel.example:0/v1/",
    "https://cloud.vantrel.example:-1/v1/",
    "https://cloud.vantrel.example:65536/v1/",
    "https://127.1/v1/", "https://0x7f.0.0.2/v1/", "https://2130706434/v1/",
])
def test_a_listed_endpoint_that_reads_in_two_ways_is_not_requested(
        provision, cloud, caller, endpoint):
    provision("https://cloud.vantrel.example/", "https://127.1/",
              "https://0x7f.0.0.2/", "https://2130706434/")
    assert refusal(caller, endpoint).startswith("http/invalid_url: ")
    assert cloud.connections == 0


# What goes out.

@pytest.mark.parametrize("method", ["GET", "get", "gEt"])
def test_a_get_has_two_headers_and_no_body_over_http_1(
        provision, cloud, caller, method):
    state = provision()
    assert caller.request(ENDPOINT + "x?y=z", method, "not { json")[0] == 200
    request = cloud.wait_for(1)
    assert request.lines() == [
        "GET /v1/x?y=z HTTP/1.1",
        "Host: cloud.vantrel.example",
        "Authorization: Bearer " + state.access_token,
        "Content-Type: application/json"]
    assert request.body == b""


@pytest.mark.parametrize("method", ["POST", "post", "pOSt"])
def test_a_post_has_two_headers_and_the_body_over_http_1(
        provision, cloud, caller, method):
    state = provision()
    caller.request(ENDPOINT + "x?y=z", method, '{"on":true}')
    request = cloud.wait_for(1)
    assert request.lines() == [
        "POST /v1/x?y=z HTTP/1.1",
        "Host: cloud.vantrel.example",
        "Authorization: Bearer " + state.access_token,
        "Content-Type: application/json",
        "Content-Length: 11"]
    assert request.body == b'{"on":true}'


def test_a_get_has_two_headers_over_http_2(provision, cloud2, caller):
    state = provision()
    assert caller.request(ENDPOINT + "x?y=z")[0] == 200
    request = cloud2.wait_for(1)
    assert request.protocol == "HTTP/2"
    assert [f for f in request.fields if f[0][0] != ":"] == [
        ("authorization", "Bearer " + state.access_token),
        ("content-type", "application/json")]
    assert sorted(f for f in request.fields if f[0][0] == ":") == [
        (":authority", "cloud.vantrel.example"), (":method", "GET"),
        (":path", "/v1/x?y=z"), (":scheme", "https")]
    assert request.body == b""


def test_a_post_has_two_headers_and_the_body_over_http_2(
        provision, cloud2, caller):
    state = provision()
    assert caller.request(ENDPOINT, "POST", "[1,2]")[0] == 200
    request = cloud2.wait_for(1)
    assert request.protocol == "HTTP/2"
    assert [f for f in request.fields if f[0][0] != ":"] == [
        ("authorization", "Bearer " + state.access_token),
        ("content-type", "application/json"), ("content-length", "5")]
    assert request.body == b"[1,2]"


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
@pytest.mark.parametrize("method, body", [("GET", ""), ("POST", "{}")])
def test_without_an_access_token_nothing_follows_the_word_bearer(
        daemon, files, server, request, caller, method, body):
    files.write(REFRESH_TOKEN, "")
    files.write(ENDPOINTS, ENDPOINT)
    daemon.start()
    cloud = request.getfixturevalue(server)
    assert caller.request(ENDPOINT, method, body) == (
        401, '{"error":"invalid_token"}')
    seen = cloud.wait_for(1)
    assert seen.protocol == "HTTP/1.1"
    assert seen.lines()[:4] == [
        method + " /v1/ HTTP/1.1", "Host: cloud.vantrel.example",
        "Authorization: Bearer ", "Content-Type: application/json"]


@pytest.mark.parametrize("rest", [
    "", "a/./b", "a//b", "%7Eme/%2f", "a%", "?q=%41&&b=[]{}|^`\"<>",
    "caf\u00e9", "a;b,c=d", "x?a=/?b", "./", "'!*()",
], ids=lambda rest: repr(rest))
def test_the_endpoint_is_requested_as_it_stands(
        provision, cloud, caller, rest):
    provision()
    cloud.replies.append(Reply())
    assert caller.request(ENDPOINT + rest) == (200, "{}")
    target = cloud.requests[0].target.encode("latin-1").decode("utf-8")
    assert target == "/v1/" + rest


def test_the_host_is_named_as_it_stands(provision, cloud, caller):
    endpoint = "https://Cloud.VANTREL.example/v1/"
    provision(endpoint)
    cloud.replies.append(Reply())
    assert caller.request(endpoint) == (200, "{}")
    assert cloud.requests[0].field("Host") == "Cloud.VANTREL.example"


def test_a_fragment_stays_at_home(provision, cloud, caller):
    provision()
    cloud.replies.append(Reply())
    assert caller.request(ENDPOINT + "a#b") == (200, "{}")
    assert cloud.requests[0].target == "/v1/a"


def test_an_endpoint_without_a_path_gets_the_root(provision, cloud, caller):
    provision("https://cloud.vantrel.example")
    cloud.replies.extend([Reply(), Reply()])
    caller.request("https://cloud.vantrel.example")
    caller.request("https://cloud.vantrel.example?x=1")
    assert [r.target for r in cloud.requests] == ["/", "/?x=1"]


@pytest.mark.parametrize("body, sent", [
    ('[1, 2]', b"[1,2]"), ("5", b"5"), ('"a"', b'"a"'), ("null", b"null"),
    (" true ", b"true"), ("[]", b"[]"),
    ('{ "b" : 1,\n\t"a" : [ { } ] }', b'{"b":1,"a":[{}]}'),
    ('{"n":[1e400,1.10,123456789012345678901234567890,-0,18446744073709551615]'
     '}', b'{"n":[1e400,1.10,123456789012345678901234567890,-0,'
     b'18446744073709551615]}'),
    ('{"a":1,"a":2}', b'{"a":2}'),
    ('"\u00e9\u20ac"', '"\u00e9\u20ac"'.encode()),
    ("[" * 512 + "]" * 512, b"[" * 512 + b"]" * 512),
], ids=lambda value: repr(value[:12]))
def test_any_json_value_is_posted_in_compact_form(
        provision, cloud, caller, body, sent):
    provision()
    cloud.replies.append(Reply())
    assert caller.request(ENDPOINT, "POST", body) == (200, "{}")
    assert cloud.requests[0].body == sent


def test_a_large_post_body_arrives_whole(provision, cloud, caller):
    provision()
    cloud.replies.append(Reply())
    body = '{"a":"%s"}' % ("x" * (4 << 20))
    assert caller.request(ENDPOINT, "POST", body) == (200, "{}")
    assert cloud.requests[0].body == body.encode()
    assert cloud.requests[0].field("Expect") is None


def test_a_large_post_body_arrives_whole_over_http_2(
        provision, cloud2, caller):
    provision()
    cloud2.replies.append(Reply())
    body = '{"a":"%s"}' % ("x" * (4 << 20))
    assert caller.request(ENDPOINT, "POST", body) == (200, "{}")
    assert cloud2.requests[0].body == body.encode()


def test_proxies_and_netrc_of_the_environment_do_not_count(
        daemon, stored, identity, cloud, serve, caller, monkeypatch, tmp_path):
    stored()
    proxy = serve(None, "127.0.0.9", 3128, tls=False)
    (tmp_path / ".netrc").write_text(
        "default login somebody password something\n", encoding="ascii")
    monkeypatch.setenv("HOME", str(tmp_path))
    environment = {name: "http://127.0.0.9:3128" for name in (
        "http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY")}
    proxy.replies.append(Reply(403, then="close"))
    curl(environment, ENDPOINT)
    assert proxy.wait_for(1).method == "CONNECT"
    assert curl(environment, "--netrc", "--noproxy", "*", ENDPOINT) == 0
    assert cloud.wait_for(1).field("Authorization").startswith("Basic ")

    daemon.start(environment=environment)
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert caller.request(ENDPOINT)[0] == 200
    assert cloud.wait_for(2).field("Authorization").startswith("Bearer ")
    assert proxy.connections == 1


def test_a_connection_is_kept_for_the_next_request(provision, cloud, caller):
    provision()
    for _ in range(3):
        assert caller.request(ENDPOINT)[0] == 200
    assert [r.connection for r in cloud.requests] == [1, 1, 1]


@pytest.mark.parametrize("method, body", [("GET", ""), ("POST", "{}")])
def test_a_kept_connection_that_the_cloud_has_closed_is_replaced(
        provision, cloud, caller, method, body):
    provision()
    cloud.replies.append(Reply(then="close"))
    assert caller.request(ENDPOINT, method, body) == (200, "{}")
    assert caller.request(ENDPOINT, method, body)[0] == 200
    assert [r.connection for r in cloud.requests] == [1, 2]


def test_the_keys_of_a_connection_are_never_written_down(
        daemon, stored, identity, cloud, caller, tmp_path):
    stored()
    log = tmp_path / "keys"
    environment = {"SSLKEYLOGFILE": str(log)}
    assert curl(environment, ENDPOINT) == 0
    assert log.stat().st_size > 0
    log.unlink()

    daemon.start(environment=environment)
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert caller.request(ENDPOINT)[0] == 200
    assert not log.exists()
    assert len(identity.requests) == 1
    assert len(cloud.requests) == 2


# What comes back.

@pytest.mark.parametrize("status", [200, 201, 202, 299, 301, 302, 307, 400,
                                    403, 404, 409, 418, 429, 500, 503, 599])
def test_a_json_object_is_handed_back_whatever_the_status(
        provision, cloud, caller, status):
    provision()
    cloud.replies.append(Reply.json({"a": 1}, status))
    assert caller.request(ENDPOINT) == (status, '{"a":1}')


@pytest.mark.parametrize("body, answer", [
    (b'{ "b" : [ 1 , 2 ] ,\r\n "a" : { } }\n', '{"b":[1,2],"a":{}}'),
    (b"{}", "{}"),
    (b'{"n":[1e400,1.10,123456789012345678901234567890,-0]}',
     '{"n":[1e400,1.10,123456789012345678901234567890,-0]}'),
    (b'{"a":1,"b":2,"a":3}', None),
    ('{"\u00e9":"\u20ac\U0001f600"}'.encode(),
     '{"\u00e9":"\u20ac\U0001f600"}'),
    (b'{"a":"\\u0000\\n\\ufffe"}', '{"a":"\\u0000\\n\\ufffe"}'),
    ('{"a":"\uffff\U0010ffff"}'.encode(), '{"a":"\\uffff\\udbff\\udfff"}'),
], ids=lambda value: repr(value[:16]) if value else "-")
def test_the_object_comes_back_in_compact_form(
        provision, cloud, caller, body, answer):
    provision()
    cloud.replies.append(Reply(body=body))
    status, text = caller.request(ENDPOINT)
    assert status == 200
    if answer is None:  # The last of two members of one name counts.
        assert text in ('{"a":3,"b":2}', '{"b":2,"a":3}')
    else:
        assert text == answer


@pytest.mark.parametrize("headers", [
    [], [("Content-Type", "text/html")], [("Content-Type", "nonsense")]])
def test_the_content_type_of_a_reply_does_not_count(
        provision, cloud, caller, headers):
    provision()
    cloud.replies.append(Reply(headers=headers))
    assert caller.request(ENDPOINT) == (200, "{}")


@pytest.mark.parametrize("status", [200, 404, 500])
@pytest.mark.parametrize("body", [
    b"", b"[1]", b"5", b'"a"', b"null", b"<html></html>", b"{", b"{}{}",
    b"\xff{}", b'{"a":"\xff"}', b"\xef\xbb\xbf{}", b'{"a":1}\0',
    b'{"a":' * 600 + b"1" + b"}" * 600,
], ids=lambda value: repr(value[:12]))
def test_a_reply_that_is_no_json_object_is_a_remote_error(
        provision, cloud, caller, status, body):
    provision()
    cloud.replies.append(Reply(status, body))
    assert refusal(caller, ENDPOINT) == (
        "actions/remote_error: Invalid JSON response")


def test_a_204_is_a_remote_error(provision, cloud, caller):
    provision()
    cloud.replies.append(Reply(raw=b"HTTP/1.1 204 No Content\r\n\r\n"))
    assert refusal(caller, ENDPOINT) == (
        "actions/remote_error: Invalid JSON response")


def test_a_redirect_is_not_followed(provision, cloud, serve, caller):
    provision("https://cloud.vantrel.example/",
              "https://other.vantrel.example/")
    other = serve("other.vantrel.example", "127.0.0.3")
    cloud.replies.append(Reply.json({"moved": True}, 302, headers=[
        ("Location", "https://other.vantrel.example/v1/")]))
    assert caller.request(ENDPOINT) == (302, '{"moved":true}')
    assert other.connections == 0


def test_a_cookie_is_not_sent_back(provision, cloud, caller):
    provision()
    cloud.replies.append(Reply(headers=[("Set-Cookie", "a=b; Path=/")]))
    caller.request(ENDPOINT)
    caller.request(ENDPOINT)
    assert cloud.wait_for(2).field("Cookie") is None


LIMIT = 16 << 20


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_a_reply_of_16_mib_is_handed_back(provision, request, caller, server):
    provision()
    body = b'{"a":"%s"}' % (b"x" * (LIMIT - 8))
    assert len(body) == LIMIT
    request.getfixturevalue(server).replies.append(Reply(body=body))
    assert caller.request(ENDPOINT) == (200, body.decode())


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_a_reply_beyond_16_mib_is_too_large(
        provision, request, caller, server):
    provision()
    request.getfixturevalue(server).replies.append(
        Reply(body=b'{"a":"%s"}' % (b"x" * (LIMIT - 7))))
    assert refusal(caller, ENDPOINT).startswith("http/too_large: ")


def test_a_reply_of_no_said_length_beyond_16_mib_is_too_large(
        provision, cloud, caller):
    provision()
    chunk = b"10000\r\n" + b"x" * 0x10000 + b"\r\n"
    cloud.replies.append(Reply(
        raw=b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" +
        chunk * 257 + b"0\r\n\r\n", then="close"))
    assert refusal(caller, ENDPOINT).startswith("http/too_large: ")


def test_reply_headers_beyond_64_kib_are_too_large(provision, cloud, caller):
    provision()
    cloud.replies.append(Reply(headers=[("X-%d" % i, "y" * 1000)
                                        for i in range(70)]))
    assert refusal(caller, ENDPOINT).startswith("http/too_large: ")


def test_the_daemon_lives_on_after_a_reply_that_is_too_large(
        provision, cloud, caller):
    provision()
    cloud.replies.extend([Reply(body=b" " * (LIMIT + 1)), Reply()])
    refusal(caller, ENDPOINT)
    assert caller.request(ENDPOINT) == (200, "{}")


def test_a_reply_that_grows_too_large_for_the_bus_is_a_remote_error(
        provision, cloud, caller):
    provision()
    # Each of these is written as twelve characters in place of four bytes.
    body = ('{"a":"%s"}' % ("\U0001fffe" * 3000000)).encode()
    assert len(body) < LIMIT
    cloud.replies.extend([Reply(body=body), Reply()])
    assert refusal(caller, ENDPOINT) == (
        "actions/remote_error: Invalid JSON response")
    assert caller.request(ENDPOINT) == (200, "{}")


# No reply at all.

@pytest.mark.parametrize("host, code", [
    ("closed.vantrel.example", "connect"),
    ("nobody-knows-this.vantrel.example", "resolve"),
])
def test_a_host_out_of_reach_is_an_error_of_the_http_layer(
        provision, caller, host, code):
    endpoint = "https://%s/" % host
    provision(endpoint)
    assert refusal(caller, endpoint).startswith("http/%s: " % code)


def test_a_certificate_for_another_name_is_refused(
        provision, serve, certificate, caller):
    endpoint = "https://wrong-name.vantrel.example/"
    provision(endpoint)
    server = serve("x", "127.0.0.4",
                   certificate=certificate("other.vantrel.example"))
    assert refusal(caller, endpoint).startswith("http/tls: ")
    assert server.requests == []


def test_an_expired_certificate_is_refused(
        provision, serve, certificate, caller):
    host = "expired.vantrel.example"
    provision("https://%s/" % host)
    server = serve(host, "127.0.0.5", certificate=certificate(host, True))
    assert refusal(caller, "https://%s/" % host).startswith("http/tls: ")
    assert server.requests == []


def test_a_certificate_of_an_unknown_authority_is_refused(
        provision, serve, certificate, other_authority, caller):
    host = "unknown-authority.vantrel.example"
    provision("https://%s/" % host)
    server = serve(host, "127.0.0.6", certificate=certificate(
        host, authority=other_authority))
    assert refusal(caller, "https://%s/" % host).startswith("http/tls: ")
    assert server.requests == []


@pytest.mark.parametrize("handshake", ["reset", "garbage"])
def test_a_spoilt_tls_handshake_is_an_error_of_the_http_layer(
        provision, cloud, caller, handshake):
    provision()
    cloud.handshake = handshake
    assert refusal(caller, ENDPOINT).startswith("http/tls: ")


@pytest.mark.parametrize("reply", [
    Reply(body=b'{"a":1}', cut=3),
    Reply(raw=b"", then="close"),
    Reply(raw=b"", then="reset"),
    Reply(raw=b"garbage and more garbage\r\n\r\n", then="close"),
    Reply(raw=b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n{}", then="close"),
    Reply(raw=b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{}", then="reset"),
], ids=["cut", "closed", "reset", "garbage", "bad length", "reset within"])
def test_a_spoilt_reply_is_an_error_of_the_http_layer(
        provision, cloud, caller, reply):
    provision()
    # Were the request sent again, it would spoil again.
    cloud.replies.extend([reply] * 4)
    assert refusal(caller, ENDPOINT).startswith("http/protocol: ")


@pytest.mark.parametrize("reply", [Reply(body=b'{"a":1}', cut=3),
                                   Reply(then="reset")],
                         ids=["cut", "reset"])
def test_a_spoilt_reply_over_http_2_is_an_error_of_the_http_layer(
        provision, cloud2, caller, reply):
    provision()
    cloud2.replies.extend([reply] * 4)
    assert refusal(caller, ENDPOINT).startswith("http/protocol: ")


def test_a_failed_request_changes_nothing(daemon, provision, cloud, caller):
    state = provision()
    before = daemon.log()
    cloud.replies.append(Reply(raw=b"", then="reset"))
    refusal(caller, ENDPOINT)
    assert daemon.log() == before
    assert caller.request(ENDPOINT)[0] == 200
    assert cloud.requests[-1].field("Authorization") == (
        "Bearer " + state.access_token)


def test_nothing_is_asked_of_the_cloud_twice(provision, cloud, caller):
    provision()
    cloud.replies.append(Reply.json({}, 503, headers=[("Retry-After", "0")]))
    assert caller.request(ENDPOINT) == (503, "{}")
    caller.sync()
    assert len(cloud.requests) == 1
