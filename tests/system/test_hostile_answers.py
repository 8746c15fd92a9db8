# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Servers that lie, dawdle, babble and break off: the daemon lives on."""

import gzip
import itertools
import json
import re
import struct
import threading
import time
import zlib

import pytest
from bus_client import CallError
from cloud import JSON, Reply
from conftest import ENDPOINT, secret
from daemon_process import REFRESH_TOKEN
from memory_scan import sanitized

REMOTE = "actions/remote_error"
PROTOCOL = "http/protocol"
TOO_LARGE = "http/too_large"


def outcome(caller, *arguments):
    """What a call ends in: (status, body), or the domain and code."""
    try:
        return caller.request(*arguments)
    except CallError as error:
        assert error.name == "org.freedesktop.DBus.Error.Failed"
        return error.message.partition(":")[0]


def wait_until_closed(server):
    """Waits until the server has closed all its connections."""
    with server._changed:
        assert server._changed.wait_for(lambda: not server._sockets, 10)


def check(caller, server, replies, method="GET"):
    """One request for each of `replies`, and what must come of it.

    `replies` maps names to (reply, expected); after each a request must work
    as usual. An `expected` that is a set holds all that is right. A request
    is sent once, whatever becomes of it: the server may have acted on it.
    """
    wrong = {}
    for name, (reply, expected) in replies.items():
        before = len(server.requests)
        server.replies.append(reply)
        found = outcome(caller, ENDPOINT, method, "{}")
        if found not in (expected if isinstance(expected, set)
                         else {expected}):
            wrong[name] = found
        if len(server.requests) != before + 1:
            wrong[name] = found, len(server.requests) - before
        if reply.then != "keep":
            wait_until_closed(server)
        server.replies.clear()
        server.replies.append(Reply.json({"good": True}))
        assert outcome(caller, ENDPOINT) == (200, '{"good":true}'), name
    assert wrong == {}


def raw(*parts, then="close"):
    return Reply(raw=b"".join(parts), then=then)


OK = b"HTTP/1.1 200 OK\r\n"
OBJECT = b'{"a":1}'
GOOD = (200, '{"a":1}')


def with_length(length, body=OBJECT, then="close"):
    return raw(OK, b"Content-Length: ", length, b"\r\n\r\n", body, then=then)


LENGTHS = {
    "right": (with_length(b"7", then="keep"), GOOD),
    "with blanks": (with_length(b"  7  ", then="keep"), GOOD),
    "with zeros": (with_length(b"0007", then="keep"), GOOD),
    "none, closed": (raw(OK, b"\r\n", OBJECT), GOOD),
    "none, reset": (raw(OK, b"\r\n", OBJECT[:3], then="reset"), PROTOCOL),
    "too short": (with_length(b"5"), REMOTE),
    "much too short": (with_length(b"0"), REMOTE),
    "too long": (with_length(b"8"), PROTOCOL),
    "much too long": (with_length(b"1000000"), PROTOCOL),
    "beyond the limit": (with_length(b"16777217"), TOO_LARGE),
    "huge": (with_length(b"9223372036854775807"), TOO_LARGE),
    "beyond 64 bits": (with_length(b"99999999999999999999"),
                       {TOO_LARGE, PROTOCOL}),
    "negative": (with_length(b"-7"), PROTOCOL),
    "signed": (with_length(b"+7"), {PROTOCOL, GOOD}),
    "hexadecimal": (with_length(b"0x7"), {PROTOCOL, REMOTE}),
    "a word": (with_length(b"seven"), PROTOCOL),
    "a list": (with_length(b"7, 7"), {PROTOCOL, GOOD}),
    "empty": (with_length(b""), {PROTOCOL, GOOD, REMOTE}),
    "two equal": (raw(OK, b"Content-Length: 7\r\nContent-Length: 7\r\n\r\n",
                      OBJECT), GOOD),
}


def test_a_wrong_length_is_told_or_does_no_harm(provision, cloud, caller):
    provision()
    check(caller, cloud, LENGTHS)


def test_two_different_lengths_give_no_answer_of_both(
        provision, cloud, caller):
    """What follows the shorter one is no part of the next answer."""
    provision()
    forged = OK + b"Content-Length: 14\r\n\r\n" + b'{"forged":true}'
    for first, second in ((b"7", b"60"), (b"60", b"7")):
        check(caller, cloud, {"different": (raw(
            OK, b"Content-Length: ", first, b"\r\nContent-Length: ", second,
            b"\r\n\r\n", OBJECT, forged, then="keep"),
            {PROTOCOL, REMOTE, GOOD})})


def test_what_follows_an_answer_is_not_the_next_one(
        provision, cloud, caller):
    """Bytes that nobody asked for spoil the connection, not a request."""
    provision()
    forged = OK + b'Content-Length: 15\r\n\r\n{"forged":true}'
    for extra in (forged, forged * 50, b"\r\n" + forged, b"x", b"\0" * 4096):
        check(caller, cloud, {repr(extra[:9]): (
            with_length(b"7", OBJECT + extra, then="keep"), GOOD)})
        # Also when they come on their own, and the connection is idle.
        cloud.replies.append(with_length(b"7", OBJECT + extra, then="keep"))
        assert outcome(caller, ENDPOINT) == GOOD
        caller.sync()
        assert outcome(caller, ENDPOINT)[1] != '{"forged":true}'


CHUNKED = OK + b"Transfer-Encoding: chunked\r\n\r\n"
CHUNKS = {
    "one": (raw(CHUNKED, b"7\r\n", OBJECT, b"\r\n0\r\n\r\n", then="keep"),
            GOOD),
    "many": (raw(CHUNKED, *(b"1\r\n%c\r\n" % c for c in OBJECT),
                 b"0\r\n\r\n", then="keep"), GOOD),
    "extension": (raw(CHUNKED, b"7;a=b;c=\"d\"\r\n", OBJECT,
                      b"\r\n0;x\r\n\r\n", then="keep"), GOOD),
    "trailer": (raw(CHUNKED, b"7\r\n", OBJECT, b"\r\n0\r\nX: y\r\n\r\n",
                    then="keep"), GOOD),
    "zeros": (raw(CHUNKED, b"0007\r\n", OBJECT, b"\r\n000\r\n\r\n",
                  then="keep"), GOOD),
    "no size": (raw(CHUNKED, b"\r\n", OBJECT, b"\r\n0\r\n\r\n"), PROTOCOL),
    "no number": (raw(CHUNKED, b"x\r\n", OBJECT, b"\r\n0\r\n\r\n"), PROTOCOL),
    "negative": (raw(CHUNKED, b"-7\r\n", OBJECT, b"\r\n0\r\n\r\n"), PROTOCOL),
    "too short": (raw(CHUNKED, b"6\r\n", OBJECT, b"\r\n0\r\n\r\n"), PROTOCOL),
    "too long": (raw(CHUNKED, b"9\r\n", OBJECT, b"\r\n0\r\n\r\n"), PROTOCOL),
    "one too long": (raw(CHUNKED, b"8\r\n", OBJECT, b"\r\n0\r\n\r\n"),
                     {PROTOCOL, GOOD}),
    "huge": (raw(CHUNKED, b"7fffffffffffffff\r\n", OBJECT), PROTOCOL),
    "beyond 64 bits": (raw(CHUNKED, b"1" + b"0" * 16 + b"\r\n", OBJECT),
                       PROTOCOL),
    "endless size": (raw(CHUNKED, b"1" * 100000), PROTOCOL),
    "no last": (raw(CHUNKED, b"7\r\n", OBJECT, b"\r\n"), PROTOCOL),
    "cut in size": (raw(CHUNKED, b"7"), PROTOCOL),
    "cut in chunk": (raw(CHUNKED, b"7\r\n{"), PROTOCOL),
    "cut in trailer": (raw(CHUNKED, b"7\r\n", OBJECT, b"\r\n0\r\nX"),
                       {PROTOCOL, GOOD}),
    "nothing": (raw(CHUNKED), PROTOCOL),
    "reset": (raw(CHUNKED, b"7\r\n{", then="reset"), PROTOCOL),
    "with a length": (raw(OK, b"Content-Length: 3\r\n"
                          b"Transfer-Encoding: chunked\r\n\r\n7\r\n", OBJECT,
                          b"\r\n0\r\n\r\n"), {GOOD, PROTOCOL}),
    "with a length behind": (raw(OK, b"Transfer-Encoding: chunked\r\n"
                                 b"Content-Length: 3\r\n\r\n7\r\n", OBJECT,
                                 b"\r\n0\r\n\r\n"), {GOOD, PROTOCOL}),
    "unknown coding": (raw(OK, b"Transfer-Encoding: cow\r\n\r\n", OBJECT),
                       {PROTOCOL, REMOTE, GOOD}),
    "identity": (raw(OK, b"Transfer-Encoding: identity\r\n\r\n", OBJECT),
                 {PROTOCOL, GOOD}),
    "100 codings": (raw(OK, b"Transfer-Encoding: ", b"gzip," * 100,
                        b"chunked\r\n\r\n0\r\n\r\n"), {PROTOCOL, REMOTE}),
    "many empty lines": (raw(CHUNKED, b"\r\n" * 100000), PROTOCOL),
}


def test_a_chunk_error_is_told_or_does_no_harm(provision, cloud, caller):
    provision()
    check(caller, cloud, CHUNKS)


END = b"Content-Length: 7\r\n\r\n" + OBJECT
HEADS = {
    "closed at once": (raw(), PROTOCOL),
    "reset at once": (raw(then="reset"), PROTOCOL),
    "closed in the first line": (raw(b"HTTP/1.1 2"), PROTOCOL),
    "reset in the first line": (raw(b"HTTP/1.1 2", then="reset"), PROTOCOL),
    "closed behind it": (raw(OK), PROTOCOL),
    "closed in a field": (raw(OK, b"Content-Le"), PROTOCOL),
    "reset in a field": (raw(OK, b"Content-Le", then="reset"), PROTOCOL),
    "closed before the body": (raw(OK, b"Content-Length: 7\r\n\r\n"),
                               PROTOCOL),
    "reset before the body": (raw(OK, b"Content-Length: 7\r\n\r\n",
                                  then="reset"), PROTOCOL),
    "reset in the body": (with_length(b"7", b'{"a', then="reset"), PROTOCOL),
    "HTTP/0.9": (raw(OBJECT), PROTOCOL),
    "HTTP/0.9 with lines": (raw(b"<html>\r\n\r\n", OBJECT), PROTOCOL),
    "HTTP/1.0": (raw(b"HTTP/1.0 200 OK\r\n\r\n", OBJECT), GOOD),
    "HTTP/1.0 with a length": (raw(b"HTTP/1.0 200 OK\r\n", END), GOOD),
    "HTTP/1.2": (raw(b"HTTP/1.2 200 OK\r\n", END), {PROTOCOL, GOOD}),
    "HTTP/2 unasked": (raw(b"HTTP/2 200 OK\r\n", END), {PROTOCOL, GOOD}),
    "HTTP/7": (raw(b"HTTP/7 200 OK\r\n", END), PROTOCOL),
    "frames unasked": (raw(b"\0\0\0\4\0\0\0\0\0" * 9), PROTOCOL),
    "no reason": (raw(b"HTTP/1.1 200\r\n", END), GOOD),
    "line feeds alone": (raw(b"HTTP/1.1 200 OK\nContent-Length: 7\n\n",
                             OBJECT), GOOD),
    "no status": (raw(b"HTTP/1.1 OK\r\n", END), PROTOCOL),
    "status 0": (raw(b"HTTP/1.1 000 No\r\n", END), PROTOCOL),
    "status 42": (raw(b"HTTP/1.1 42 No\r\n", END), PROTOCOL),
    "status 999": (raw(b"HTTP/1.1 999 Yes\r\n", END), (999, '{"a":1}')),
    "status 2000": (raw(b"HTTP/1.1 2000 No\r\n", END), PROTOCOL),
    "status -200": (raw(b"HTTP/1.1 -200 No\r\n", END), PROTOCOL),
    "no colon": (raw(OK, b"Nonsense\r\n", END), {PROTOCOL, GOOD}),
    "no name": (raw(OK, b": x\r\n", END), {PROTOCOL, GOOD}),
    "folded": (raw(OK, b"X: a\r\n b\r\n", END), {PROTOCOL, GOOD}),
    "folded at first": (raw(OK, b" X: a\r\n", END), {PROTOCOL, GOOD}),
    "control bytes": (raw(OK, b"X: \1\x1b[2J\x7f\r\n", END),
                      {PROTOCOL, GOOD}),
    "NUL": (raw(OK, b"X: a\0b\r\n", END), PROTOCOL),
    "bare CR": (raw(OK, b"X: a\rContent-Length: 3\r\n", END),
                {PROTOCOL, GOOD}),
    "a long line": (raw(OK, b"X: ", b"y" * 70000, b"\r\n", END), TOO_LARGE),
    "a huge line": (raw(OK, b"X: ", b"y" * 5000000, b"\r\n", END), TOO_LARGE),
    "an endless first line": (raw(b"HTTP/1.1 200 ", b"y" * 5000000),
                              TOO_LARGE),
    "a line of garbage": (raw(b"y" * 5000000), {TOO_LARGE, PROTOCOL}),
    "very many fields": (raw(OK, b"X: y\r\n" * 100000, END), TOO_LARGE),
    "204": (raw(b"HTTP/1.1 204 No Content\r\n\r\n", then="keep"), REMOTE),
    "204 with a body": (raw(b"HTTP/1.1 204 No Content\r\n", END), REMOTE),
    "304": (raw(b"HTTP/1.1 304 Not Modified\r\n\r\n", then="keep"), REMOTE),
    "304 with a length": (raw(b"HTTP/1.1 304 Not Modified\r\n"
                              b"Content-Length: 7\r\n\r\n", then="keep"),
                          REMOTE),
    "100 before": (raw(b"HTTP/1.1 100 Continue\r\n\r\n", OK, END), GOOD),
    "103 before": (raw(b"HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n", OK,
                       END), GOOD),
    "many before": (raw(b"HTTP/1.1 103 Early Hints\r\n\r\n" * 500, OK, END),
                    GOOD),
    "very many before": (raw(b"HTTP/1.1 102 Wait\r\n\r\n" * 100000, OK, END),
                         TOO_LARGE),
    "101": (raw(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: h2c\r\n"
                b"Connection: Upgrade\r\n\r\n" + b"\0" * 64),
            {PROTOCOL, REMOTE}),
    "only 100": (raw(b"HTTP/1.1 100 Continue\r\n\r\n"), PROTOCOL),
    "only 103": (raw(b"HTTP/1.1 103 Early Hints\r\n\r\n"), PROTOCOL),
}


@pytest.mark.parametrize("method", ["GET", "POST"])
def test_a_spoilt_head_is_told_or_does_no_harm(
        provision, cloud, caller, method):
    provision()
    check(caller, cloud, HEADS, method)


def coded(coding, body):
    return Reply(body=body, headers=[JSON, ("Content-Encoding", coding)])


CODINGS = {
    # Not asked for, and so not undone.
    "gzip": (coded("gzip", gzip.compress(OBJECT)), REMOTE),
    "deflate": (coded("deflate", zlib.compress(OBJECT)), REMOTE),
    "a bomb": (coded("gzip", gzip.compress(b" " * (64 << 20))), REMOTE),
    "br": (coded("br", b"\x0b\x03\x80" + OBJECT + b"\x03"), REMOTE),
    "gzip in name only": (coded("gzip", OBJECT), {GOOD, REMOTE}),
    "identity": (coded("identity", OBJECT), GOOD),
    "unknown": (coded("cow", OBJECT), {GOOD, REMOTE}),
    "20 of them": (coded(",".join(["gzip"] * 20), OBJECT), {GOOD, REMOTE}),
    "gzip and not said": (Reply(body=gzip.compress(OBJECT)), REMOTE),
    "UTF-16": (Reply(body='{"a":1}'.encode("utf-16"), headers=[
        ("Content-Type", "application/json; charset=utf-16")]), REMOTE),
    "Latin-1": (Reply(body=b'{"a":"\xe9"}', headers=[
        ("Content-Type", "application/json; charset=latin1")]), REMOTE),
}


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_a_coding_that_was_not_asked_for_does_no_harm(
        provision, caller, server, request):
    provision()
    check(caller, request.getfixturevalue(server), CODINGS)


def text_of(value):
    return (200, value)


ODD_JSON = {
    "BOM": (b"\xef\xbb\xbf" + OBJECT, REMOTE),
    "trailing NUL": (OBJECT + b"\0", REMOTE),
    "leading NUL": (b"\0" + OBJECT, REMOTE),
    "two documents": (OBJECT + OBJECT, REMOTE),
    "two lines": (OBJECT + b"\n" + OBJECT, REMOTE),
    "only blanks": (b" \t\r\n" * 1000, REMOTE),
    "form feed": (b"\f" + OBJECT, REMOTE),
    "invalid UTF-8": (b'{"a":"\xc3\x28"}', REMOTE),
    "overlong": (b'{"a":"\xc0\x80"}', REMOTE),
    "encoded surrogate": (b'{"a":"\xed\xa0\x80"}', REMOTE),
    "beyond Unicode": (b'{"a":"\xf4\x90\x80\x80"}', REMOTE),
    "cut character": (b'{"a":"\xe2\x82"}', REMOTE),
    "invalid UTF-8 in a name": (b'{"\xff":1}', REMOTE),
    "lone high surrogate": (b'{"a":"\\ud800"}', REMOTE),
    "lone low surrogate": (b'{"a":"\\udc00"}', REMOTE),
    "swapped surrogates": (b'{"a":"\\udc00\\ud800"}', REMOTE),
    "surrogate in a name": (b'{"\\ud800":1}', REMOTE),
    "half an escape": (b'{"a":"\\ud83d\\u"}', REMOTE),
    "unknown escape": (b'{"a":"\\x41"}', REMOTE),
    "raw control": (b'{"a":"\1"}', REMOTE),
    "raw NUL": (b'{"a":"\0"}', REMOTE),
    "NaN": (b'{"a":NaN}', REMOTE), "hexadecimal": (b'{"a":0x1}', REMOTE),
    "plus": (b'{"a":+1}', REMOTE), "leading zero": (b'{"a":01}', REMOTE),
    "a dot behind": (b'{"a":1.}', REMOTE),
    "a dot before": (b'{"a":.1}', REMOTE),
    "comments": (b'{"a":1/**/}', REMOTE), "comma": (b'{"a":1,}', REMOTE),
    "name without quotes": (b"{a:1}", REMOTE),
    "deep array": (b'{"a":' + b"[" * 100000 + b"]" * 100000 + b"}", REMOTE),
    "deep object": (b'{"a":' * 100000 + b"1" + b"}" * 100000, REMOTE),
    "deep and open": (b'{"a":' + b"[" * 1000000, REMOTE),
    "NUL escape": (b'{"a\\u0000b":"\\u0000"}',
                   text_of('{"a\\u0000b":"\\u0000"}')),
    "noncharacter": ('{"\ufdd0":"\uffff\U0001ffff"}'.encode(), text_of(
        '{"\\ufdd0":"\\uffff\\ud83f\\udfff"}')),
    "all controls": (json.dumps({"a": "".join(map(chr, range(32)))}).encode(),
                     None),
    "pair": (b'{"a":"\\ud83d\\ude00"}', text_of('{"a":"\U0001f600"}')),
    "duplicates": (b'{"a":1,"b":2,"a":3}', None),
    "20000 duplicates": (b"{" + b'"a":1,' * 20000 + b'"a":2}',
                         text_of('{"a":2}')),
    "empty name": (b'{"":{"":[]}}', text_of('{"":{"":[]}}')),
    "long number": (b'{"a":' + b"9" * 100000 + b"}",
                    text_of('{"a":%s}' % ("9" * 100000))),
    "long fraction": (b'{"a":0.' + b"1" * 100000 + b"e-5}",
                      text_of('{"a":0.%se-5}' % ("1" * 100000))),
    "large exponent": (b'{"a":1e999999999}', text_of('{"a":1e999999999}')),
}


@pytest.mark.parametrize("server", ["cloud", "cloud2"])
def test_odd_json_is_refused_or_handed_on_as_valid_text(
        provision, caller, server, request):
    provision()
    cloud = request.getfixturevalue(server)
    for name, (body, expected) in ODD_JSON.items():
        if expected is None:
            cloud.replies.append(Reply(body=body))
            status, text = caller.request(ENDPOINT)
            assert (status, json.loads(text)) == (200, json.loads(body)), name
        else:
            check(caller, cloud, {name: (Reply(body=body), expected)})


def large(caller, cloud, daemon, body, expected):
    """A large answer, and by how much it raised the daemon's peak memory."""
    cloud.replies.append(Reply(body=body))
    before = kilobytes(daemon, "VmHWM")
    found = outcome(caller, ENDPOINT)
    assert (found if isinstance(found, str) else found[0]) == expected
    cloud.replies.append(Reply.json({}))
    assert outcome(caller, ENDPOINT) == (200, "{}")
    return (kilobytes(daemon, "VmHWM") - before) / 1024


def kilobytes(daemon, name):
    return int(daemon.status()[name].split()[0])


LIMIT = 16 << 20
# What it may take to read a large head, and a body to its limit.
HEAD_MB = 5
BODY_MB = 30
ONES = b'{"a":[' + b"1," * ((LIMIT - 10) // 2) + b"1]}"
MEMBERS = b"{%s}" % b",".join(b'"%x":1' % n for n in range(1400000))
NESTED = b'{"a":[' + b"[" * 500 + b"]" * 500 + (
    b",[]" * ((LIMIT - 1010) // 3)) + b"]}"


@pytest.mark.parametrize("name, body, expected", [
    ("ones", ONES, 200), ("members", MEMBERS, 200),
    ("empty arrays", NESTED, 200),
    ("50 MB", b'{"a":"%s"}' % (b"x" * 50000000), TOO_LARGE),
    ("50 MB of braces", b"[" * 50000000, TOO_LARGE),
    ("open braces", b"[" * LIMIT, REMOTE),
    ("escapes", b'{"a":"%s"}' % (b"\\u0001" * ((LIMIT - 9) // 6)), 200),
], ids=lambda value: value if isinstance(value, str) else "")
def test_a_large_answer_costs_a_bounded_amount_of_memory(
        daemon, provision, cloud, caller, program, name, body, expected,
        record_property):
    if name == "members" and sanitized(program):
        pytest.skip("takes 20 s with the sanitizer")
    provision()
    assert len(body) <= LIMIT or expected == TOO_LARGE
    grown = large(caller, cloud, daemon, body, expected)
    record_property("megabytes", grown)
    print("%s: %.0f MB" % (name, grown))
    if not sanitized(program):
        # The answer, its value, its text, and the message that holds it.
        assert grown < 120


# Over HTTP/2: what is sent in place of an answer.

def frame(kind, flags, stream, payload=b""):
    return (struct.pack("!I", len(payload))[1:] + bytes([kind, flags]) +
            struct.pack("!I", stream) + payload)


DATA, HEADERS, RESET, SETTINGS, PUSH, PING, GOAWAY, WINDOW, CONTINUATION = (
    0, 1, 3, 4, 5, 6, 7, 8, 9)
END_STREAM, END_HEADERS, PADDED = 1, 4, 8
STATUS_200 = b"\x88"


def field(name, value):
    """A header field, neither indexed nor compressed (below 127 bytes)."""
    return bytes([0, len(name)]) + name + bytes([len(value)]) + value


def answer(stream, body=OBJECT):
    return (frame(HEADERS, END_HEADERS, stream, STATUS_200) +
            frame(DATA, END_STREAM, stream, body))


def framed(make, then="keep"):
    return Reply(frames=make, then=then)


def many(count, one):
    return lambda s: one(s) * count + answer(s)


FRAMES = {
    "good": (framed(answer), GOOD),
    "padded": (framed(lambda s: frame(HEADERS, END_HEADERS, s, STATUS_200) +
                      frame(DATA, END_STREAM | PADDED, s, b"\5" + OBJECT +
                            b"\0" * 5)), GOOD),
    "unknown frames": (framed(lambda s: frame(0x42, 0xff, s, b"x" * 99) +
                              frame(0xfe, 0, 0, b"y") + answer(s) +
                              frame(0x77, 1, 0)), GOOD),
    "interim answers": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, b"\x08\x03100") * 100 + answer(s)), GOOD),
    "pings": (framed(many(500, lambda s: frame(PING, 0, 0, b"12345678"))),
              {GOOD, PROTOCOL}),
    "settings": (framed(many(500, lambda s: frame(SETTINGS, 0, 0))),
                 {GOOD, PROTOCOL}),
    "empty data": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200) + frame(DATA, 0, s) * 5000 +
        frame(DATA, END_STREAM, s, OBJECT)), {GOOD, PROTOCOL}),
    "no body": (framed(lambda s: frame(HEADERS, END_HEADERS | END_STREAM, s,
                                       STATUS_200)), REMOTE),
    "trailers": (framed(lambda s: frame(HEADERS, END_HEADERS, s, STATUS_200) +
                        frame(DATA, 0, s, OBJECT) + frame(
                            HEADERS, END_HEADERS | END_STREAM, s,
                            field(b"x-end", b"y"))), GOOD),
    "refused stream": (framed(lambda s: frame(RESET, 0, s, b"\0\0\0\7")),
                       PROTOCOL),
    "cancelled": (framed(lambda s: frame(RESET, 0, s, b"\0\0\0\x08")),
                  PROTOCOL),
    "reset without an error": (framed(lambda s: frame(RESET, 0, s,
                                                      b"\0\0\0\0")),
                               PROTOCOL),
    "reset in the body": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200) + frame(DATA, 0, s, b"{") +
        frame(RESET, 0, s, b"\0\0\0\2")), PROTOCOL),
    "answer, then reset": (framed(lambda s: answer(s) + frame(
        RESET, 0, s, b"\0\0\0\0")), {GOOD, PROTOCOL}),
    "going away": (framed(lambda s: frame(GOAWAY, 0, 0, b"\0" * 8)),
                   PROTOCOL),
    "going away behind": (framed(lambda s: frame(
        GOAWAY, 0, 0, struct.pack("!II", s, 0)) + answer(s)), GOOD),
    "going away, enhance your calm": (framed(lambda s: frame(
        GOAWAY, 0, 0, struct.pack("!II", 0, 0xb) + b"too many"), "close"),
        PROTOCOL),
    "closed": (framed(lambda s: b"", "close"), PROTOCOL),
    "closed in a frame": (framed(lambda s: answer(s)[:5], "close"), PROTOCOL),
    "closed in the body": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200) + frame(DATA, 0, s, b"{"),
        "close"), PROTOCOL),
    "a short length": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200 + field(b"content-length", b"3"))
        + frame(DATA, END_STREAM, s, OBJECT)), {PROTOCOL, REMOTE}),
    "a long length": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200 + field(b"content-length", b"9"))
        + frame(DATA, END_STREAM, s, OBJECT)), {PROTOCOL}),
    "no status": (framed(lambda s: frame(HEADERS, END_HEADERS, s, field(
        b"a", b"b")) + frame(DATA, END_STREAM, s, OBJECT)), PROTOCOL),
    "body first": (framed(lambda s: frame(DATA, END_STREAM, s, OBJECT)),
                   PROTOCOL),
    "bad compression": (framed(lambda s: frame(HEADERS, END_HEADERS, s,
                                               b"\xff" * 20)), PROTOCOL),
    "capital letters": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200 + field(b"X-A", b"b")) +
        frame(DATA, END_STREAM, s, OBJECT)), {GOOD, PROTOCOL}),
    "line ends in a field": (framed(lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200 + field(b"x-a", b"b\r\nc: d")) +
        frame(DATA, END_STREAM, s, OBJECT)), {GOOD, PROTOCOL}),
    "a promise": (framed(lambda s: frame(
        PUSH, END_HEADERS, s, b"\0\0\0\2\x82\x87\x84") + answer(s)),
        PROTOCOL),
    "another stream": (framed(lambda s: answer(s + 2)), PROTOCOL),
    "stream 0": (framed(lambda s: frame(DATA, END_STREAM, 0, OBJECT)),
                 PROTOCOL),
    "an even stream": (framed(lambda s: answer(2)), PROTOCOL),
    "a lone continuation": (framed(lambda s: frame(
        CONTINUATION, END_HEADERS, s, STATUS_200)), PROTOCOL),
    "continuations": (framed(lambda s: frame(HEADERS, 0, s, STATUS_200) +
                             frame(CONTINUATION, 0, s, field(
                                 b"x", b"y" * 100) * 100) * 200), PROTOCOL),
    "a frame too large": (framed(lambda s: b"\xff\xff\xff\0\0" +
                                 struct.pack("!I", s) + b"x" * 20000),
                          PROTOCOL),
    "a window of 0": (framed(lambda s: frame(WINDOW, 0, s, b"\0\0\0\0")),
                      PROTOCOL),
    "a window too large": (framed(lambda s: frame(
        WINDOW, 0, s, b"\x7f\xff\xff\xff") * 2), PROTOCOL),
    "bad settings": (framed(lambda s: frame(
        SETTINGS, 0, 0, b"\0\5\0\0\0\0")), PROTOCOL),
    "half a setting": (framed(lambda s: frame(SETTINGS, 0, 0, b"\0\5")),
                       PROTOCOL),
    "HTTP/1.1": (framed(lambda s: OK + END), PROTOCOL),
    "altsvc": (framed(lambda s: frame(
        0xa, 0, s, b'\0\0h2="other.vantrel.example:443"') + answer(s)),
        GOOD),
}


@pytest.mark.parametrize("method", ["GET", "POST"])
def test_odd_frames_are_told_or_do_no_harm(
        provision, cloud2, caller, method):
    provision()
    check(caller, cloud2, FRAMES, method)
    assert {r.protocol for r in cloud2.requests} == {"HTTP/2"}


def test_endless_continuations_cost_little_memory(
        daemon, provision, cloud2, caller, program):
    provision()
    outcome(caller, ENDPOINT)
    before = kilobytes(daemon, "VmHWM")
    check(caller, cloud2, {"continuations": (framed(
        lambda s: frame(HEADERS, 0, s, STATUS_200) + frame(
            CONTINUATION, 0, s, field(b"x", b"y" * 100) * 100) * 3000),
        PROTOCOL)})
    grown = (kilobytes(daemon, "VmHWM") - before) / 1024
    print("%.1f MB" % grown)
    assert sanitized(program) or grown < HEAD_MB


def test_a_server_that_wants_http_1_gets_it(provision, cloud2, caller):
    provision()
    cloud2.replies.extend([
        Reply(frames=lambda s: frame(RESET, 0, s, b"\0\0\0\x0d")),
        Reply.json({"good": True})])
    assert caller.request(ENDPOINT) == (200, '{"good":true}')
    assert [r.protocol for r in cloud2.requests] == ["HTTP/2", "HTTP/1.1"]


# Servers that never come to an end.

def endless(first, again):
    """Says `first` and then `again` until nobody listens any more."""
    def script(sock):
        sock.recv(65536)
        sock.sendall(first)
        while True:
            sock.sendall(again)
    return script


ENDLESS = {
    "body": (endless(OK + b"\r\n", b" " * 65536), TOO_LARGE),
    "chunks": (endless(CHUNKED, b"1000\r\n" + b" " * 4096 + b"\r\n"),
               TOO_LARGE),
    "one chunk": (endless(CHUNKED + b"fffffff\r\n", b" " * 65536),
                  TOO_LARGE),
    "chunk size": (endless(CHUNKED, b"0" * 65536), PROTOCOL),
    "chunk extension": (endless(CHUNKED + b"1;", b"x" * 65536),
                        {TOO_LARGE, PROTOCOL, "http/timeout"}),
    "trailers": (endless(CHUNKED + b"0\r\n", b"X: y\r\n" * 10000),
                 {TOO_LARGE, PROTOCOL}),
    "first line": (endless(b"HTTP/1.1 200 ", b"x" * 65536), TOO_LARGE),
    "field": (endless(OK + b"X: ", b"y" * 65536), TOO_LARGE),
    "fields": (endless(OK, b"X: y\r\n" * 10000), TOO_LARGE),
    "interim answers": (endless(b"", b"HTTP/1.1 103 Early Hints\r\n\r\n" *
                                1000), TOO_LARGE),
    "empty lines": (endless(b"", b"\r\n" * 10000), {TOO_LARGE, PROTOCOL}),
    "nonsense": (endless(b"", b"nonsense"), {TOO_LARGE, PROTOCOL}),
}
HOST = "https://cloud.vantrel.example:8443/v1/"


@pytest.mark.parametrize("name", [n for n in ENDLESS
                                  if n != "chunk extension"])
def test_an_endless_answer_is_cut_off(
        daemon, provision, cloud, serve, caller, program, name):
    script, expected = ENDLESS[name]
    provision()
    assert outcome(caller, ENDPOINT)[0] == 200
    serve("cloud.vantrel.example", "127.0.0.2", 8443, script=script)
    before = kilobytes(daemon, "VmHWM")
    found = outcome(caller, HOST)
    assert found in (expected if isinstance(expected, set) else {expected})
    grown = (kilobytes(daemon, "VmHWM") - before) / 1024
    print("%s: %.1f MB" % (name, grown))
    assert sanitized(program) or grown < (
        BODY_MB if name in ("body", "chunks", "one chunk") else HEAD_MB)
    assert outcome(caller, ENDPOINT)[0] == 200


def slowly(stop, first, again):
    """Says `first`, and one byte of `again` at a time until `stop` is set."""
    def script(sock):
        sock.recv(65536)
        sock.sendall(first)
        for byte in itertools.cycle(again):
            if stop.wait(0.2):
                return
            sock.sendall(bytes([byte]))
        stop.wait()
    return script


@pytest.mark.duration
def test_whatever_is_said_too_slowly_is_given_up_after_thirty_seconds(
        daemon, provision, cloud, serve, caller, program):
    provision()
    assert outcome(caller, ENDPOINT)[0] == 200
    before = kilobytes(daemon, "VmHWM")
    stop = threading.Event()
    scripts = {
        "nothing": slowly(stop, b"", b""),
        "first line": slowly(stop, b"HTTP/1.1 200 ", b"x"),
        "field": slowly(stop, OK + b"X: ", b"y"),
        "fields": slowly(stop, OK, b"X: y\r\n"),
        "body": slowly(stop, OK + b"\r\n", b" "),
        "body of a length": slowly(
            stop, OK + b"Content-Length: 9999\r\n\r\n", b" "),
        "chunks": slowly(stop, CHUNKED, b"1\r\n \r\n"),
        "chunk extension": slowly(stop, CHUNKED + b"1;", b"x"),
        "fast chunk extension": ENDLESS["chunk extension"][0],
        "interim answers": slowly(
            stop, b"", b"HTTP/1.1 100 Continue\r\n\r\n"),
    }
    for number, script in enumerate(scripts.values()):
        serve("cloud.vantrel.example", "127.0.0.2", 9000 + number,
              script=script)
    serve("cloud.vantrel.example", "127.0.0.2", 9100).handshake = "stall"
    half = serve("cloud.vantrel.example", "127.0.0.2", 9101,
                 protocols=("h2",))
    half.replies.append(Reply(frames=lambda s: frame(
        HEADERS, END_HEADERS, s, STATUS_200) + frame(DATA, 0, s, b"{")))
    ports = [9000 + n for n in range(len(scripts))] + [9100, 9101]
    begin = time.monotonic()
    try:
        pending = {port: caller.start("https://cloud.vantrel.example:%d/v1/" %
                                      port) for port in ports}
        assert outcome(caller, ENDPOINT)[0] == 200
        for port, one in pending.items():
            with pytest.raises(CallError) as caught:
                caller.result(one)
            assert caught.value.message.startswith("http/timeout: "), port
            assert 29 < time.monotonic() - begin < 36, port
        assert outcome(caller, ENDPOINT)[0] == 200
        # The fast one has said gigabytes.
        grown = (kilobytes(daemon, "VmHWM") - before) / 1024
        print("%.1f MB" % grown)
        assert sanitized(program) or grown < HEAD_MB
    finally:
        stop.set()


# The same at the token endpoint.

def tokens(refresh="S3CR3T-refresh", status=200, access="S3CR3T-access",
           **more):
    return Reply.json({"access_token": access, "refresh_token": refresh},
                      status, **more)


BOTH = b'{"access_token":"S3CR3T-a","refresh_token":"S3CR3T-b"}'
# What the command ends with, and what is stored then.
TOKEN_REPLIES = {
    **{name: (reply, None) for name, (reply, expected) in
       {**HEADS, **CHUNKS, **LENGTHS}.items()
       if expected in (PROTOCOL, TOO_LARGE, REMOTE) or expected == GOOD},
    "status 201": (tokens(status=201), b"S3CR3T-refresh"),
    "status 399": (tokens(status=399), b"S3CR3T-refresh"),
    "status 400": (tokens(status=400), None),
    "BOM": (Reply(body=b"\xef\xbb\xbf" + BOTH), None),
    "two documents": (Reply(body=BOTH * 2), None),
    "trailing NUL": (Reply(body=BOTH + b"\0"), None),
    "invalid UTF-8": (Reply(body=BOTH.replace(b"-b", b"\xff")), None),
    "lone surrogate": (Reply(body=BOTH.replace(b"-b", b"\\ud800")), None),
    "lone surrogate elsewhere": (Reply(body=BOTH[:-1] + b',"x":"\\udc00"}'),
                                 None),
    "deep": (Reply(body=BOTH[:-1] + b',"x":' + b"[" * 100000 +
                   b"]" * 100000 + b"}"), None),
    "gzip": (coded("gzip", gzip.compress(BOTH)), None),
    "an array": (Reply(body=b"[" + BOTH + b"]"), None),
    "nested": (Reply(body=b'{"x":' + BOTH + b"}"), None),
    "duplicates, the last good": (Reply(
        body=b'{"refresh_token":7,' + BOTH[1:]), b"S3CR3T-b"),
    "duplicates, the last bad": (Reply(
        body=BOTH[:-1] + b',"refresh_token":7}'), None),
    "escaped names": (Reply(body=BOTH.replace(
        b"access_", b"acc\\u0065ss\\u005f")), b"S3CR3T-b"),
    "NUL in a name": (Reply(body=BOTH.replace(
        b"access_token", b"access_token\\u0000")), None),
    "NUL in a token": (tokens("S3CR3T\0x"), b"S3CR3T\0x"),
    "line end in a token": (tokens("S3CR3T\r\n"), b"S3CR3T\r\n"),
    "noncharacter": (tokens("S3CR3T\uffff\ufdd0"),
                     "S3CR3T\uffff\ufdd0".encode()),
    "a token of a megabyte": (tokens("S3CR3T" + "x" * 1000000),
                              b"S3CR3T" + b"x" * 1000000),
    "an object for a token": (tokens({"a": []}), None),
    "null for a token": (tokens(None), None),
    "a large answer": (Reply(body=BOTH[:-1] + b',"x":[' + b"1," * 1000000 +
                             b"1]}"), b"S3CR3T-b"),
    "50 MB": (Reply(body=b" " * 50000000), None),
    "an odd error": (Reply.json({"error": "\0\n\uffff" + "x" * 100000}, 400),
                     None),
    "an error of another type": (Reply.json({"error": [1]}, 500), None),
}


def test_an_odd_token_reply_ends_the_command_as_it_must(
        daemon, agent, identity, caller, files):
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    kept = None
    for name, (reply, expected) in TOKEN_REPLIES.items():
        identity.replies.append(reply)
        path = agent.set_credential(secret("code"), [ENDPOINT])
        agent.wait_for_call("Abort" if expected is None else "Complete", path)
        caller.sync()
        assert len(agent.calls(path)) == 1, name
        kept = expected or kept
        assert files.read(REFRESH_TOKEN) == kept, name
        identity.replies.clear()
    for line in daemon.log():
        assert len(line) < 9000
    path = agent.set_credential(secret("code"), [ENDPOINT])
    agent.wait_for_call("Complete", path)


@pytest.mark.parametrize("name", [
    "closed at once", "reset in the body", "negative", "no last", "deep",
    "gzip", "lone surrogate", "a large answer", "50 MB", "an odd error"])
def test_an_odd_refresh_reply_keeps_or_drops_the_credential_as_it_must(
        daemon, stored, identity, cloud, caller, files, name):
    token = stored()
    reply, expected = TOKEN_REPLIES[name]
    identity.replies.append(reply)
    daemon.start()
    lost = daemon.wait_for_log_like(
        "INFO" if reply.raw is None and name != "50 MB" else "WARNING",
        "Successfully fetched access token: .*|Error fetching access token: "
        ".*")
    status = outcome(caller, ENDPOINT)[0]
    kept = lost.severity == "WARNING" or expected
    assert files.read(REFRESH_TOKEN) == (token.encode() if kept else None)
    assert status == 401  # Nobody knows the token, if there is one.
    assert re.fullmatch("Bearer (S3CR3T-a)?", cloud.wait_for(1).field(
        "Authorization"))
