# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The access token reaches the host that was checked, and nobody else."""

import os
import threading

import pytest
from bus_client import CallError
from cloud import Reply
from conftest import ENDPOINT, secret
from name_server import NameServer
from network import attempts

HOST = "cloud.vantrel.example"
OTHER = "other.vantrel.example"
# Where the name server sends everybody who asks for a name.
STRANGER = "127.0.0.66"


def refusal(caller, *arguments):
    """Calls, and returns the text of the error that must come."""
    with pytest.raises(CallError) as caught:
        caller.request(*arguments)
    return caught.value.message


def bearer(request):
    """The access token that a request carried."""
    kind, _, token = request.field("Authorization").partition(" ")
    assert kind == "Bearer"
    return token


@pytest.fixture
def name_server():
    server = NameServer(lambda question: STRANGER)
    yield server
    server.stop()


@pytest.fixture
def strangers(serve):
    """Listen wherever else a text about the cloud could lead."""
    return [serve("stranger.example", STRANGER),
            serve(None, STRANGER, 80, tls=False),
            serve(None, "127.0.0.1", 80, tls=False),
            serve(None, "127.0.0.2", 80, tls=False)]


@pytest.fixture
def admit(agent, daemon, identity):
    """Starts the daemon and has it admit some endpoints."""
    def start(*endpoints):
        agent.appear()
        daemon.start()
        agent.wait_for_call("UpdateState")
        path = agent.set_credential(secret("code"), list(endpoints))
        agent.wait_for_call("Complete", path)
    return start


def admitting(text):
    """The endpoint that admits `text`: the same host, and the root."""
    rest = text.partition("://")[2]
    end = min([rest.find(c) for c in " /#?" if c in rest] or [len(rest)])
    return "https://%s/" % rest[:end].split(":")[0].strip(" \t\n\v\f\r")


# One reader of URLs sees the cloud in these and another might see a stranger,
# or no two readers agree.
AMBIGUOUS = [
    # User information, behind a host that ends at a blank.
    "https://cloud.vantrel.example @stranger.example/",
    "https://cloud.vantrel.example #@stranger.example/",
    "https://cloud.vantrel.example ?@stranger.example/",
    "https://cloud.vantrel.example:443 @stranger.example/",
    "https://cloud.vantrel.example\t@stranger.example/",
    "https://cloud.vantrel.example\u00a0@stranger.example/",
    "https://cloud.vantrel.example;@stranger.example/",
    "https://cloud.vantrel.example%23@stranger.example/",
    "https://cloud.vantrel.example%3f@stranger.example/",
    "https://user@cloud.vantrel.example/", "https://@cloud.vantrel.example/",
    "https://a@b@cloud.vantrel.example/",
    "https://cloud.vantrel.example@:443/",
    # Blanks and control bytes, some of which the check trims off.
    "https://\tcloud.vantrel.example/", "https://cloud.vantrel.example\t/",
    "https://cloud.vantrel.example\n/", "https://cloud.vantrel.example\r\n/",
    "https://cloud.vantrel.example\v/", "https://cloud.vantrel.example\f:443/",
    "https://cloud.vantrel.example:\t443/",
    "https://cloud.vantrel\n.example/", "https://cloud.vantrel\x01.example/",
    "https://cloud.vantrel.example/\x01", "https://cloud.vantrel.example/\x7f",
    "https://cloud.vantrel.example/\r\nHost: stranger.example\r\n",
    "https://cloud.vantrel.example/ HTTP/1.1\r\nX: y",
    "https://cloud.vantrel.example/#\n",
    # Backslashes.
    "https://cloud.vantrel.example\\@stranger.example/",
    "https://cloud.vantrel.example\\.stranger.example/",
    "https://cloud.vantrel.example\\/", "https://\\cloud.vantrel.example/",
    "https://cloud.vantrel.example/\\@stranger.example/",
    # Escapes in a host.
    "https://%63loud.vantrel.example/", "https://cloud%2evantrel.example/",
    "https://cloud.vantrel.example%2fstranger.example/",
    "https://cloud.vantrel.example%00.stranger.example/",
    "https://cloud.vantrel.example%40stranger.example/",
    "https://cloud.vantrel.example%/", "https://cloud.vantrel.example%zz/",
    # Addresses in other notations, each of which is the stranger's.
    "https://2130706498/", "https://0x7f000042/", "https://0X7F000042/",
    "https://017700000102/", "https://0x7f.1/", "https://0x7f.0x42/",
    "https://127.66/", "https://127.0.66/", "https://127.0.0.066/",
    "https://0177.0.0.0102/", "https://0x7f.0.0.0x42/", "https://0/",
    "https://00127.0.0.66/", "https://0000000000000000000127.0.0.66/",
    # Ports out of range, which could come out as 443.
    "https://cloud.vantrel.example:0/", "https://cloud.vantrel.example:-443/",
    "https://cloud.vantrel.example:+443/",
    "https://cloud.vantrel.example:65536/",
    "https://cloud.vantrel.example:65979/",
    "https://cloud.vantrel.example:-65093/",
    "https://cloud.vantrel.example:2147483647/",
    # No names at all, and names that others map to the cloud's.
    "https://[fe80/", "https://[cloud.vantrel.example]/",
    "https://cloud.vantrel.example|stranger.example/",
    "https://cloud,vantrel.example/", "https://cloud*.vantrel.example/",
    "https://*/", "https://$HOME/", "https://cl\u00f6ud.vantrel.example/",
    "https://cloud\uff0evantrel\uff0eexample/",
    "https://cloud\u3002vantrel\u3002example/",
    "https://\uff43loud.vantrel.example/",
    "https://cl\u00adoud.vantrel.example/",
    "https://\u0441loud.vantrel.example/",
    "https://cloud.vantrel.example\u2100stranger.example/",
    "https://\u0661\u0662\u0667.66/", "https://\u2488\u2488/",
]


@pytest.mark.parametrize("scheme", ["https", "http"])
def test_a_text_that_reads_in_two_ways_leads_nowhere(
        admit, caller, name_server, strangers, cloud, scheme):
    admit(*{admitting(text) for text in AMBIGUOUS}, ENDPOINT)
    before = attempts()
    outcomes = {}
    for text in AMBIGUOUS:
        text = text.replace("https", scheme, 1)
        outcomes[text] = (refusal(caller, text).partition(":")[0],
                          refusal(caller, text, "POST", "{}").partition(
                              ":")[0])
        assert attempts() == before, text
    assert outcomes == {text: ("http/invalid_url",) * 2 for text in outcomes}
    assert len(outcomes) == len(AMBIGUOUS)
    # By the time of the next answer nothing has come of them, either.
    assert caller.request(ENDPOINT)[0] == 200
    before["TcpActiveOpens"] += 1
    assert attempts() == before
    assert [s.connections for s in strangers] == [0] * len(strangers)
    assert name_server.queries == []


# What has one meaning only, and what of it reaches the cloud.
PLAIN = {
    "https://cloud.vantrel.example": "/",
    "https://cloud.vantrel.example#@stranger.example/": "/",
    "https://cloud.vantrel.example#/@stranger.example?x": "/",
    "https://cloud.vantrel.example?@stranger.example/":
        "/?@stranger.example/",
    "https://cloud.vantrel.example?/#@stranger.example": "/?/",
    "https://cloud.vantrel.example??x": "/??x",
    "https://cloud.vantrel.example/@stranger.example/":
        "/@stranger.example/",
    "https://cloud.vantrel.example/:@stranger.example:80/":
        "/:@stranger.example:80/",
    "https://cloud.vantrel.example//stranger.example/":
        "//stranger.example/",
    "https://cloud.vantrel.example/https://stranger.example/":
        "/https://stranger.example/",
    "https://cloud.vantrel.example/%0d%0aHost:%20stranger.example":
        "/%0d%0aHost:%20stranger.example",
    "https://cloud.vantrel.example:0443/": "/",
    "https://cloud.vantrel.example:00000000000000443/": "/",
    "https://cloud.vantrel.example/" + "x" * 60000: "/" + "x" * 60000,
}


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_a_text_with_one_meaning_leads_to_the_host_that_was_checked(
        provision, caller, name_server, strangers, server, request):
    cloud = request.getfixturevalue(server)
    state = provision("https://%s/" % HOST)
    for number, (text, target) in enumerate(PLAIN.items(), 1):
        assert caller.request(text)[0] == 200, text
        seen = cloud.wait_for(number)
        assert seen.target == target
        assert (seen.field("Host") or seen.field(":authority")) == HOST
        assert seen.server_name == HOST
        assert bearer(seen) == state.access_token
    assert [s.connections for s in strangers] == [0] * len(strangers)
    assert name_server.queries == []


# Names that look like something else. They are looked up as they stand.
LOOKED_UP = {
    "4294967296": "4294967296", "127.0.0.66.1": "127.0.0.66.1",
    "cloud.vantrel.example.": HOST, "_cloud.vantrel.example":
    "_cloud.vantrel.example", "xn--cloud.vantrel.example":
    "xn--cloud.vantrel.example", "a" * 63 + ".example": "a" * 63 + ".example",
}


def test_a_name_is_looked_up_as_it_stands_and_its_holder_must_prove_it(
        provision, caller, name_server, strangers):
    provision(*("https://%s/" % name for name in LOOKED_UP))
    for name, query in LOOKED_UP.items():
        del name_server.queries[:]
        assert refusal(caller, "https://%s/" % name).startswith(
            "http/tls: "), name
        assert set(name_server.queries) == {query}
    assert [s.requests for s in strangers] == [[]] * len(strangers)


@pytest.mark.parametrize("name", [
    "cloud..vantrel.example", ".cloud.vantrel.example",
    "cloud.vantrel.example..", "a" * 64 + ".example", "a." * 130 + "example",
    "a" * 70000,
], ids=lambda name: name[:30])
def test_a_name_that_cannot_be_one_is_not_looked_up(
        provision, caller, name_server, strangers, name):
    provision("https://%s/" % name)
    assert refusal(caller, "https://%s/" % name).startswith("http/")
    assert name_server.queries == []
    assert [s.connections for s in strangers] == [0] * len(strangers)


def test_an_endpoint_of_megabytes_is_an_error_or_goes_to_the_cloud(
        provision, caller, cloud):
    provision()
    # The HTTP library reads no URL of more than 8 million bytes.
    assert refusal(caller, ENDPOINT + "x" * 9000000).startswith("http/")
    assert cloud.connections == 0
    assert caller.request(ENDPOINT)[0] == 200


# Answers that would lead elsewhere.

LOCATIONS = ["https://other.vantrel.example/v1/",
             "//other.vantrel.example/v1/",
             "http://cloud.vantrel.example/v1/",
             "https://cloud.vantrel.example:8443/v1/",
             "/v1/moved", "?moved", "https://cloud.vantrel.example/v1/moved"]


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
@pytest.mark.parametrize("status", [300, 301, 302, 303, 305, 307, 308])
def test_no_redirect_is_followed(
        provision, caller, serve, server, request, status):
    cloud = request.getfixturevalue(server)
    provision("https://%s/" % HOST, "https://%s/" % OTHER)
    others = [serve(OTHER, "127.0.0.3"), serve(HOST, "127.0.0.2", 8443),
              serve(None, "127.0.0.2", 80, tls=False)]
    count = 0
    for location in LOCATIONS:
        for method in ("GET", "POST"):
            cloud.replies.append(Reply.json(
                {"to": location}, status, headers=[("Location", location)]))
            assert caller.request(ENDPOINT, method, "{}")[0] == status
            count += 1
    caller.sync()
    assert [r.target for r in cloud.requests] == ["/v1/"] * count
    assert [one.connections for one in others] == [0] * len(others)


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_no_header_of_an_answer_leads_elsewhere(
        provision, caller, serve, server, request):
    cloud = request.getfixturevalue(server)
    state = provision("https://%s/" % HOST, "https://%s/" % OTHER)
    others = [serve(OTHER, "127.0.0.3"), serve(HOST, "127.0.0.2", 8443),
              serve(None, "127.0.0.2", 80, tls=False)]
    cloud.replies.append(Reply.json({}, headers=[
        ("Refresh", "0; url=https://other.vantrel.example/"),
        ("Alt-Svc", 'h2="other.vantrel.example:443", h2=":8443", '
         'h3=":8443"; ma=86400; persist=1'),
        ("Strict-Transport-Security", "max-age=9; includeSubDomains"),
        ("Content-Location", "https://other.vantrel.example/"),
        ("Link", "<https://other.vantrel.example/>; rel=preload"),
        ("Connection", "keep-alive")] if server == "cloud" else [
        ("Refresh", "0; url=https://other.vantrel.example/"),
        ("Alt-Svc", 'h2="other.vantrel.example:443", h2=":8443"; ma=86400')]))
    assert caller.request(ENDPOINT) == (200, "{}")
    assert caller.request(ENDPOINT)[0] == 200
    assert [bearer(r) for r in cloud.requests] == [state.access_token] * 2
    assert [one.connections for one in others] == [0] * len(others)


@pytest.mark.parametrize("status, name", [
    (401, "WWW-Authenticate"), (407, "Proxy-Authenticate")])
def test_no_challenge_is_answered(provision, caller, cloud, status, name):
    provision()
    challenges = [(name, kind) for kind in (
        'Basic realm="x"', 'Digest realm="x", nonce="y"', "NTLM", "Negotiate",
        'Bearer realm="x"')]
    cloud.replies.append(Reply.json({}, status, headers=challenges))
    assert caller.request(ENDPOINT) == (status, "{}")
    caller.sync()
    assert len(cloud.requests) == 1


@pytest.mark.parametrize("protocols", [("http/1.1",), ("h2",)])
def test_one_connection_never_serves_two_hosts(
        provision, caller, serve, certificate, provider, protocols):
    names = ["a.vantrel.example", "b.vantrel.example"]  # of one address
    both = certificate("*.vantrel.example")
    server = serve(None, "127.0.0.2", certificate=both, protocols=protocols)
    provision(*("https://%s/" % name for name in names))
    for name in names * 2:
        assert caller.request("https://%s/" % name) == (200, "{}")
    assert [(r.server_name, r.field("Host") or r.field(":authority"))
            for r in server.requests] == [(n, n) for n in names * 2]
    assert server.connections == 2


# The environment.

@pytest.mark.parametrize("variable, value", [
    ("HOSTALIASES", "/tmp/aliases"), ("LOCALDOMAIN", "stranger.example"),
    ("RES_OPTIONS", "ndots:9"), ("RESOLV_HOST_CONF", "/tmp/aliases"),
    ("RESOLV_ADD_TRIM_DOMAINS", ".vantrel.example"),
    ("RESOLV_OVERRIDE_TRIM_DOMAINS", ".vantrel.example"),
], ids=lambda text: text.strip("/."))
def test_no_variable_changes_the_name_that_is_looked_up(
        daemon, stored, identity, name_server, strangers, caller, variable,
        value):
    name_server.configure("search stranger.example")
    with open("/tmp/aliases", "w", encoding="ascii") as file:
        file.write("dotless stranger.example\n")
    stored("http://dotless/", "http://name.vantrel.example/")

    def names():
        """What is looked up for the two hosts."""
        daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
        del name_server.queries[:]
        for name in ("dotless", "name.vantrel.example"):
            caller.request("http://%s/" % name)
        return set(name_server.queries)
    daemon.start()
    usual = names()
    assert usual == {"dotless.stranger.example", "name.vantrel.example"}
    assert daemon.stop() == 0
    if variable == "LOCALDOMAIN":
        name_server.configure("search vantrel.example")
        usual = {"dotless.vantrel.example", "name.vantrel.example"}
    daemon.start(environment={variable: value})
    assert names() == usual


@pytest.mark.parametrize("variable", ["SSL_CERT_FILE", "CURL_CA_BUNDLE",
                                      "SSL_CERT_DIR", "CURL_CA_PATH"])
def test_no_variable_changes_who_is_trusted(
        daemon, stored, identity, serve, certificate, other_authority, caller,
        tmp_path, variable):
    authority = os.path.join(other_authority, "ca.crt")
    if variable in ("SSL_CERT_DIR", "CURL_CA_PATH"):
        hashed = os.popen("openssl x509 -hash -noout -in " + authority).read()
        os.symlink(authority, tmp_path / (hashed.strip() + ".0"))
        value = str(tmp_path)
    else:
        value = authority
    stored("https://%s/" % OTHER)
    server = serve(OTHER, "127.0.0.3", certificate=certificate(
        OTHER, authority=other_authority))
    daemon.start(environment={variable: value})
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert refusal(caller, "https://%s/" % OTHER).startswith("http/tls: ")
    assert server.requests == []


# Loads a module, trusts everybody, or refuses to start: whatever a TLS
# library lets its configuration do. That it is not even read is the rule.
SPOILT_TLS = """\
openssl_conf = all
[all]
providers = providers
ssl_conf = ssl
[providers]
nobody = nobody
[nobody]
module = %s/no-such-module.so
activate = 1
[ssl]
system_default = worst
[worst]
MaxProtocol = TLSv1.1
CipherString = NULL
"""


def test_no_file_that_a_variable_names_changes_a_request(
        daemon, stored, identity, cloud, caller, tmp_path, strangers):
    """Settings for programs with the same libraries, which are none of us."""
    home = tmp_path / "home"
    modules = tmp_path / "modules"
    home.mkdir()
    modules.mkdir()
    (tmp_path / "openssl.cnf").write_text(SPOILT_TLS % modules,
                                          encoding="ascii")
    for name in (".curlrc", "curlrc", "_curlrc"):
        (home / name).write_text(
            "insecure\nlocation\nproxy = http://%s:80\n"
            "connect-to = ::%s:443\n" % (STRANGER, STRANGER),
            encoding="ascii")
    (modules / "gconv-modules").write_text(
        "module UTF-8// INTERNAL nothing 1\n", encoding="ascii")
    values = {name: str(home) for name in (
        "HOME", "CURL_HOME", "XDG_CONFIG_HOME", "TMPDIR", "CURL_SSL_BACKEND")}
    values.update((name, str(modules)) for name in (
        "GCONV_PATH", "OPENSSL_ENGINES", "OPENSSL_MODULES",
        "NLSPATH", "TZDIR", "SASL_PATH", "KRB5_CONFIG"))
    values.update((name, str(tmp_path / "openssl.cnf")) for name in (
        "OPENSSL_CONF", "SSL_CONF", "GNUTLS_SYSTEM_PRIORITY_FILE",
        "LDAPCONF"))
    values.update(no_proxy="", NO_PROXY="", SYSTEMD_LOG_LEVEL="debug",
                  SYSTEMD_LOG_TARGET="console", CURL_TRACE="all",
                  ALL_PROXY="socks5://%s:80" % STRANGER)
    stored()
    daemon.start(environment=values)
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert caller.request(ENDPOINT)[0] == 200
    assert len(cloud.requests) == 1
    assert [s.connections for s in strangers] == [0] * len(strangers)
    assert os.listdir(modules) == ["gconv-modules"]


# What is sent as the token.

BAD_TOKENS = ["S3CR3T%cx" % code for code in range(32) if code != 9] + [
    "\rS3CR3T", "S3CR3T\n", "S3CR3T\r\n", "S3CR3T\r\n\r\n{}", "S3CR3T\x7f",
    "S3CR3T\nX-Forged: 1", "S3CR3T\r\nContent-Length: 9", "\0"]


def test_no_token_with_a_control_byte_becomes_a_header(
        agent, daemon, identity, cloud, caller, provider):
    agent.appear()
    daemon.start()

    def provide(token):
        identity.replies.append(Reply.json({
            "access_token": token, "refresh_token": secret("refresh")}))
        agent.wait_for_call("Complete", agent.set_credential(
            secret("code"), [ENDPOINT]))
    for token in BAD_TOKENS:
        provide(token)
        assert refusal(caller, ENDPOINT).startswith(
            "http/invalid_header: "), repr(token)
    assert cloud.connections == 0
    good = provider.make("access")
    provide(good)
    assert caller.request(ENDPOINT)[0] == 200
    assert [bearer(r) for r in cloud.requests] == [good]


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
@pytest.mark.parametrize("token_size", [
    17_000, 61_000, 62_000, 150_000, 500_000])
@pytest.mark.parametrize("body_size", [0, 17_000, 50_000, 150_000])
def test_a_large_request_is_sent_whole(
        daemon, stored, identity, caller, server, request, token_size,
        body_size):
    """The HTTP library sends it in pieces, and waits for ever between some.

    Over HTTP/2 it could not send all of them.
    """
    cloud = request.getfixturevalue(server)
    token = secret("access").ljust(token_size, "x")
    stored()
    identity.replies.append(Reply.json({"access_token": token}))
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    cloud.replies.extend([Reply()] * 2)
    assert caller.request(ENDPOINT) == (200, "{}")
    body = '"%s"' % ("x" * body_size)
    assert caller.request(ENDPOINT, "POST", body) == (200, "{}")
    get, post = cloud.wait_for(2), cloud.requests[1]
    assert bearer(get) == bearer(post) == token
    assert [seen.protocol for seen in (get, post)] == (
        ["HTTP/2"] * 2 if server == "cloud2" and token_size <= 61_000
        else ["HTTP/1.1"] * 2)
    assert post.body == body.encode()


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
@pytest.mark.parametrize("token", [
    "S3CR3T \t x", "S3CR3T: x", "S3CR3T;,=\"\\x", "S3CR3T-\u00e9\u20ac",
    "S3CR3T\u0085\u2028x", "S3CR3T\uffff\ufdd0\U0010ffff",
    "S3CR3T" + "x" * 60000], ids=lambda token: repr(token[:14]))
def test_any_other_token_is_sent_as_it_stands(
        daemon, stored, identity, caller, server, request, token):
    cloud = request.getfixturevalue(server)
    stored()
    identity.replies.append(Reply.json({"access_token": token}))
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    cloud.replies.append(Reply())
    assert caller.request(ENDPOINT) == (200, "{}")
    seen = cloud.wait_for(1)
    assert bearer(seen).encode("latin-1") == token.encode()
    assert [name.lower() for name, _ in seen.fields if name[0] != ":"
            and name != "Host"] == ["authorization", "content-type"]


# The token that was held when the request was made.

@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_each_request_on_a_kept_connection_has_the_token_of_its_time(
        agent, daemon, identity, caller, provider, server, request):
    cloud = request.getfixturevalue(server)
    agent.appear()
    daemon.start()
    held = []
    for round_number in range(4):
        agent.wait_for_call("Complete", agent.set_credential(
            secret("code"), [ENDPOINT]))
        held.append(provider.access_tokens.copy().difference(held).pop())
        for number in (1, 2):
            assert caller.request(ENDPOINT)[0] == 200
            seen = cloud.wait_for(2 * round_number + number)
            assert bearer(seen) == held[-1]
    assert cloud.connections == 1
    assert len(set(held)) == 4
    agent.wait_for_call("Complete", agent.remove_credential())
    for method in ("GET", "POST"):
        assert "not whitelisted" in refusal(caller, ENDPOINT, method, "{}")
    caller.sync()
    assert len(cloud.requests) == 8


@pytest.mark.parametrize("protocol", ["http/1.1", "h2"])
@pytest.mark.parametrize("change", ["replaced", "removed"])
def test_a_request_under_way_keeps_the_token_that_it_was_made_with(
        agent, daemon, identity, caller, provider, serve, protocol, change):
    """It waits for its host's address while the credential changes."""
    host = "slow.vantrel.example"
    slow = serve(host, STRANGER, protocols=(protocol,))
    looked_up = threading.Event()

    def answer(_):
        looked_up.wait(20)
        return STRANGER
    name_server = NameServer(answer)
    try:
        agent.appear()
        daemon.start()
        endpoints = ["https://%s/" % host]
        agent.wait_for_call("Complete", agent.set_credential(
            secret("code"), endpoints))
        (first,) = provider.access_tokens
        pending = caller.start(endpoints[0])
        name_server.wait_for(1)
        if change == "replaced":
            path = agent.set_credential(secret("code"), endpoints)
        else:
            path = agent.remove_credential()
        agent.wait_for_call("Complete", path)
        late = caller.start(endpoints[0])
        caller.sync()
        looked_up.set()
        assert caller.result(pending) == (200, "{}")
        if change == "replaced":
            assert caller.result(late) == (200, "{}")
            (second,) = provider.access_tokens - {first}
            assert sorted(bearer(r) for r in slow.requests) == sorted(
                [first, second])
        else:
            with pytest.raises(CallError):
                caller.result(late)
            assert [bearer(r) for r in slow.requests] == [first]
    finally:
        looked_up.set()
        name_server.stop()
