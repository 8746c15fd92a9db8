# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""No secure connection to the right server: nothing is said to it."""

import os
import shutil
import ssl
import struct

import pki
import pytest
from bus_client import CallError
from cloud import AUTHORITY, Reply
from conftest import ENDPOINT
from daemon_process import REFRESH_TOKEN
from relay import Relay

HOST = "cloud.vantrel.example"
IDENTITY = "identity.vantrel.example"


def code(caller):
    """The domain and code of the error that a request must end in."""
    with pytest.raises(CallError) as caught:
        caller.request(ENDPOINT)
    return caught.value.message.partition(":")[0]


# What is wrong with a certificate, as what pki.issue() is told.
WRONG = {
    "expired": {"expired": True},
    "not yet valid": {"dates": pki.NOT_YET_VALID},
    "another name": {"names": ["other.vantrel.example"]},
    "the name below": {"names": ["x.cloud.vantrel.example"]},
    "the name above": {"names": ["vantrel.example"]},
    "a wildcard too wide": {"names": ["*.example"]},
    "a wildcard below": {"names": ["*.cloud.vantrel.example"]},
    "every name": {"names": ["*"]},
    "the right name only as common name": {
        "names": [HOST], "extensions": [
            "subjectAltName = DNS:other.vantrel.example"]},
    "for clients": {"usage": "clientAuth"},
    "for mail": {"usage": "emailProtection"},
    "for code": {"usage": "codeSigning"},
    "for signing certificates": {
        "extensions": ["keyUsage = critical,keyCertSign"]},
    "an unknown critical extension": {
        "extensions": ["1.2.3.4.5 = critical,ASN1:NULL"]},
    "RSA of 1024 bits": {"key_kind": ["rsa:1024"]},
    "RSA of 512 bits": {"key_kind": ["rsa:512"]},
    "signed with SHA-1": {"digest": "sha1"},
}


def weakest(context):
    """Has a server use whatever it is given."""
    context.set_ciphers("ALL:@SECLEVEL=0")


@pytest.mark.parametrize("fault", list(WRONG))
def test_a_server_with_a_wrong_certificate_gets_no_request(
        provision, serve, caller, tmp_path, fault):
    provision()
    details = {"names": [HOST], **WRONG[fault]}
    pair = pki.issue(AUTHORITY, str(tmp_path), "x", **details)
    server = serve(HOST, "127.0.0.2", certificate=pair, tune=weakest)
    assert code(caller) == "http/tls"
    assert server.connections == 1
    assert server.requests == []


def test_the_same_server_with_a_right_certificate_gets_the_request(
        provision, serve, caller, tmp_path):
    provision()
    pair = pki.issue(AUTHORITY, str(tmp_path), "x", [HOST])
    serve(HOST, "127.0.0.2", certificate=pair, tune=weakest)
    assert caller.request(ENDPOINT) == (200, "{}")


def test_a_server_that_signed_for_itself_gets_no_request(
        provision, serve, caller, tmp_path):
    provision()
    certificate, key = str(tmp_path / "crt"), str(tmp_path / "key")
    pki.openssl("req", "-x509", "-newkey", *pki.EC_KEY, "-nodes", "-days",
                "9", "-keyout", key, "-out", certificate, "-subj",
                "/CN=" + HOST, "-addext", "subjectAltName=DNS:" + HOST)
    server = serve(HOST, "127.0.0.2", certificate=(certificate, key))
    assert code(caller) == "http/tls"
    assert server.requests == []


def test_a_certificate_of_an_authority_of_the_same_name_is_refused(
        provision, serve, caller, tmp_path):
    provision()
    pki.make_ca(str(tmp_path / "ca"), "Sandbox authority")
    server = serve(HOST, "127.0.0.2", certificate=pki.issue(
        str(tmp_path / "ca"), str(tmp_path), "x", [HOST]))
    assert code(caller) == "http/tls"
    assert server.requests == []


def test_a_server_cannot_issue_certificates(
        provision, serve, caller, tmp_path):
    """A good certificate of another host is no authority."""
    provision()
    good, key = pki.issue(AUTHORITY, str(tmp_path), "good",
                          ["other.vantrel.example"])
    folder = tmp_path / "ca"
    folder.mkdir()
    shutil.copy(good, folder / pki.CA_CERTIFICATE)
    shutil.copy(key, folder / pki.CA_KEY)
    forged, key = pki.issue(str(folder), str(tmp_path), "forged", [HOST])
    with open(forged, "ab") as chain, open(good, "rb") as more:
        chain.write(more.read())
    server = serve(HOST, "127.0.0.2", certificate=(forged, key))
    assert code(caller) == "http/tls"
    assert server.requests == []


# What a server offers, as what its context is told.

def only(version, ciphers="ALL:@SECLEVEL=0"):
    def tune(context):
        context.minimum_version = context.maximum_version = version
        context.num_tickets = 0  # Every handshake is a whole one.
        context.set_ciphers(ciphers)
    return tune


TLS = ssl.TLSVersion
OFFERS = {
    "TLS 1.0": only(TLS.TLSv1), "TLS 1.1": only(TLS.TLSv1_1),
    "no encryption": only(TLS.TLSv1_2, "eNULL:@SECLEVEL=0"),
    "no certificate": only(TLS.TLSv1_2, "aNULL:@SECLEVEL=0"),
    "a shared key": only(TLS.TLSv1_2, "PSK:@SECLEVEL=0"),
}


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
@pytest.mark.parametrize("offer", list(OFFERS))
def test_a_server_that_offers_no_protection_gets_no_request(
        provision, serve, caller, offer):
    provision()
    server = serve(HOST, "127.0.0.2", tune=OFFERS[offer])
    assert code(caller) == "http/tls"
    assert server.connections == 1
    assert server.requests == []


@pytest.mark.parametrize("version", [TLS.TLSv1_2, TLS.TLSv1_3], ids=str)
def test_a_server_that_offers_tls_1_2_or_1_3_gets_the_request(
        provision, serve, caller, version):
    provision()
    serve(HOST, "127.0.0.2", tune=only(version))
    assert caller.request(ENDPOINT) == (200, "{}")


def test_a_server_that_wants_a_certificate_of_ours_gets_no_request(
        provision, serve, caller):
    provision()

    def tune(context):
        context.maximum_version = TLS.TLSv1_2
        context.verify_mode = ssl.CERT_REQUIRED
        context.load_verify_locations(os.path.join(AUTHORITY, "ca.crt"))
    server = serve(HOST, "127.0.0.2", tune=tune)
    assert code(caller) == "http/tls"
    assert server.requests == []


# The handshake breaks off.

def records(data):
    """Where the TLS records of a stream begin, and where the last ends."""
    at = [0]
    while at[-1] < len(data):
        (size,) = struct.unpack_from("!H", data, at[-1] + 3)
        at.append(at[-1] + 5 + size)
    return at


def alert(level, description):
    return struct.pack("!BHHBB", 21, 0x0303, 2, level, description)


LAST_WORDS = {
    "close": (b"", "close"), "reset": (b"", "reset"),
    "fatal alert": (alert(2, 40), "close"),
    "warning": (alert(1, 90), "close"),
    "goodbye": (alert(1, 0), "close"),
    "unknown alert": (alert(2, 251), "close"),
    "garbage": (b"\xffgarbage" * 9, "close"),
    "another protocol": (b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}",
                         "close"),
    "zeros": (b"\0" * 40000, "close"),
    "an empty record": (b"\x16\x03\x03\0\0" * 100, "close"),
    "a record too large": (b"\x16\x03\x03\xff\xff" + b"x" * 70000, "close"),
}


@pytest.fixture
def relay():
    """The way to the cloud, which is at another address then."""
    one = Relay(("127.0.0.2", 443), ("127.0.0.12", 443))
    yield one
    one.stop()


@pytest.mark.parametrize("version", [TLS.TLSv1_2, TLS.TLSv1_3], ids=str)
@pytest.mark.parametrize("words", list(LAST_WORDS))
def test_a_handshake_that_breaks_off_is_told_wherever_it_does(
        provision, serve, caller, relay, version, words):
    provision()
    server = serve(HOST, "127.0.0.12", tune=only(version))
    # One that is not disturbed; it says how long the handshake is.
    assert caller.request(ENDPOINT) == (200, "{}")
    heard = bytes(relay.heard[0])
    starts = records(heard)
    if version == TLS.TLSv1_3:
        # The last of them is in the same record as what finishes it.
        starts = starts[:3]
    else:
        starts = [at for at in starts if heard[at:at + 1] in (b"\x16",
                                                              b"\x14")][:3]
    points = sorted({0, 1} | {max(at + more, 0) for at in starts
                              for more in (-1, 0, 1, 4, 6, 30)})
    relay.cut()
    relay.last, relay.then = LAST_WORDS[words]
    for point in points:
        relay.limit = point
        # A reset can come before the connection is known to stand.
        right = ("http/tls", "http/connect") if (
            words == "reset" and point == 0) else ("http/tls",)
        assert code(caller) in right, "%d of %s" % (point, starts)
    assert len(server.requests) == 1
    relay.limit = None
    assert caller.request(ENDPOINT) == (200, "{}")


def test_a_record_that_was_tampered_with_ends_the_request(
        provision, serve, caller, relay):
    provision()
    server = serve(HOST, "127.0.0.12", tune=only(TLS.TLSv1_3))
    assert caller.request(ENDPOINT) == (200, "{}")
    whole = len(relay.heard[0])
    relay.cut()
    # The answer's record is the last one. The length of a signature varies by
    # a few bytes, and so does that of the handshake.
    relay.limit, relay.last = whole - 20, b"\0" * 40
    assert code(caller) in ("http/protocol", "http/tls")
    relay.limit = None
    relay.cut()
    assert caller.request(ENDPOINT) == (200, "{}")
    assert len(server.requests) >= 3


# At the token endpoint a failure must not cost the credential, either.

@pytest.mark.parametrize("fault", ["not yet valid", "another name",
                                   "for clients", "RSA of 1024 bits"])
def test_the_token_endpoint_with_a_wrong_certificate_gets_no_secret(
        daemon, stored, serve, files, tmp_path, fault):
    token = stored()
    details = {"names": [IDENTITY], **WRONG[fault]}
    server = serve(IDENTITY, "127.0.0.1", tune=weakest, certificate=pki.issue(
        AUTHORITY, str(tmp_path), "x", **details))
    daemon.start()
    daemon.wait_for_log_like("WARNING", "Error fetching access token: .+")
    assert server.requests == []
    assert files.read(REFRESH_TOKEN) == token.encode()


# Reading a device's hundred and more certificates takes longer than all the
# rest of a request.
def test_the_trusted_certificates_are_read_once(
        provision, serve, caller, identity):
    provision()
    server = serve(HOST, "127.0.0.2")
    server.replies.extend(Reply(then="close") for _ in range(2))
    path = "/etc/ssl/certs/ca-certificates.crt"
    with open(path, encoding="ascii") as file:
        trusted = file.read()
    try:
        with open(path, "w", encoding="ascii"):
            pass
        for _ in range(3):
            assert caller.request(ENDPOINT) == (200, "{}")
    finally:
        with open(path, "w", encoding="ascii") as file:
            file.write(trusted)
    assert server.connections == 3
