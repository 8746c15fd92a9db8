#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A stand-in for the identity provider and for the cloud's own API.

Run inside the sandbox it serves https://identity.vantrel.example (127.0.0.1)
and https://cloud.vantrel.example (127.0.0.2), port 443, HTTP/1.1 and HTTP/2,
and prints what each request looked like, with tokens shortened.

The identity provider gives a refresh token and an access token for any
authorization code, and a fresh access token for a refresh token of its own.
The cloud answers a request that carries a valid access token with what it
saw, and any other with 401. To make every access token invalid:

  curl -d token=all https://identity.vantrel.example/o/oauth2/revoke

Tests use the classes: a Server records each request byte by byte and gives
the replies that the test has laid out, or hangs, cuts, lies and resets.
"""

import argparse
import collections
import dataclasses
import http.client
import json
import os
import secrets
import select
import signal
import socket
import ssl
import struct
import sys
import tempfile
import threading
import urllib.parse

import h2.config
import h2.connection
import h2.errors
import h2.events
import h2.exceptions

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(
    os.path.realpath(__file__))), "support"))
import pki  # pylint: disable=wrong-import-position

AUTHORITY = "/run/pki"
TOKEN_PATH = "/o/oauth2/token"
REVOKE_PATH = "/o/oauth2/revoke"
JSON = ("Content-Type", "application/json")


@dataclasses.dataclass
class Request:
    """One request as it came over the wire."""
    protocol: str        # "HTTP/1.1" or "HTTP/2"
    head: bytes          # HTTP/1.1: all bytes up to and with the empty line
    method: str
    target: str          # path and query, as sent
    fields: list         # [(name, value)] in order; HTTP/2: with pseudo ones
    body: bytes
    connection: int      # number of the connection, from 1
    server_name: str     # from the TLS handshake; None without TLS

    def field(self, name):
        """The one value of a header field, or None."""
        values = [v for n, v in self.fields if n.lower() == name.lower()]
        if len(values) > 1:
            raise ValueError("%s came %d times" % (name, len(values)))
        return values[0] if values else None

    def lines(self):
        """HTTP/1.1: the request line and the header lines, as they stood."""
        return self.head.decode("latin-1").split("\r\n")[:-2]

    def form(self):
        """The body as form fields, in order."""
        return urllib.parse.parse_qsl(self.body.decode("ascii"),
                                      keep_blank_values=True,
                                      strict_parsing=True)


@dataclasses.dataclass
class Reply:
    """What to answer, and what to do to the connection behind it."""
    status: int = 200
    body: bytes = b"{}"
    headers: list = dataclasses.field(default_factory=lambda: [JSON])
    gate: threading.Event = None  # nothing is sent before it is set
    raw: bytes = None             # HTTP/1.1: sent instead of all the above
    frames: object = None         # HTTP/2: the same, as frames(stream)
    cut: int = None               # send only so many bytes of the body
    then: str = "keep"            # or "close", or "reset"

    @staticmethod
    def json(value, status=200, **more):
        return Reply(status, json.dumps(value).encode(), **more)


def hang():
    """A reply that never comes (until the server stops)."""
    return Reply(gate=threading.Event(), then="reset")


class Server:
    """Listens at once; one thread per connection.

    `certificate` is a pair of PEM files, or None for plain HTTP. Replies are
    taken from `replies`, first come first served, then from `answer`. `tune`
    may change the TLS context. `script` gets each connection's socket once
    TLS is up, and then there is no HTTP but its own.
    """

    def __init__(self, address, port, certificate=None,
                 protocols=("http/1.1",), answer=None, on_request=None,
                 tune=None, script=None):
        self.replies = collections.deque()
        self.requests = []
        self.connections = 0
        self.handshake = "normal"  # or "stall", "reset", "garbage"
        self._answer = answer or (lambda request: Reply())
        self._on_request = on_request
        self._script = script
        self._changed = threading.Condition()
        self._stopping = False
        self._gates = set()
        self._sockets = set()
        self._names = {}
        self._context = None
        if certificate:
            self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            if tune:
                tune(self._context)
            self._context.load_cert_chain(*certificate)
            self._context.set_alpn_protocols(list(protocols))
            self._context.sni_callback = self._on_server_name
        self._listener = socket.create_server((address, port), backlog=64)
        self._threads = []
        self._spawn(self._accept)

    def wait_for(self, count, deadline_s=10):
        """Waits for `count` requests in all; returns the last of them."""
        with self._changed:
            if not self._changed.wait_for(
                    lambda: len(self.requests) >= count, deadline_s):
                raise TimeoutError("waited %s s for request %d, saw %d" % (
                    deadline_s, count, len(self.requests)))
            return self.requests[count - 1]

    def wait_for_connections(self, count, deadline_s=10):
        """Waits until `count` connections in all have been accepted."""
        with self._changed:
            if not self._changed.wait_for(
                    lambda: self.connections >= count, deadline_s):
                raise TimeoutError("waited %s s for connection %d, saw %d" % (
                    deadline_s, count, self.connections))

    def stop(self):
        """Closes everything and returns when all threads are done."""
        with self._changed:
            if self._stopping:
                return
            self._stopping = True
            sockets = list(self._sockets)
            gates = list(self._gates)
        # A shutdown wakes the thread that waits in accept() or recv().
        for sock in [self._listener, *sockets]:
            try:
                sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        for gate in gates:
            gate.set()
        for thread in self._threads:
            thread.join()
        self._listener.close()

    def _spawn(self, target, *arguments):
        thread = threading.Thread(target=target, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()
        return thread

    def _accept(self):
        while True:
            try:
                sock, _ = self._listener.accept()
            except OSError:
                return
            with self._changed:
                if self._stopping:
                    sock.close()
                    return
                self.connections += 1
                number = self.connections
                self._sockets.add(sock)
                self._changed.notify_all()
            self._spawn(self._serve, sock, number)

    def _on_server_name(self, sock, name, _):
        self._names[sock] = name

    def _serve(self, raw, number):
        sock = raw
        raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            if self.handshake != "normal":
                self._spoil(raw)
                return
            name = None
            if self._context:
                # The plain socket stays open beside it: stop() shuts it down.
                sock = self._context.wrap_socket(
                    raw.dup(), server_side=True, suppress_ragged_eofs=True)
                name = self._names.get(sock)
            if self._script:
                self._script(sock)
                return
            connection = (Http2 if self._context and
                          sock.selected_alpn_protocol() == "h2" else Http1)
            connection(self, sock, number, name).run()
        except (OSError, ValueError, h2.exceptions.ProtocolError):
            pass  # The peer went away or spoke nonsense: the test sees that.
        finally:
            self._names.pop(sock, None)
            for one in {sock, raw}:
                one.close()
            with self._changed:
                self._sockets.discard(raw)
                self._changed.notify_all()

    def _spoil(self, raw):
        """A connection on which there will be no HTTP."""
        if self.handshake == "stall":
            while raw.recv(65536):
                pass
            return
        raw.recv(65536)
        if self.handshake == "garbage":
            raw.sendall(b"This is not what you were looking for.\r\n")
        else:
            reset(raw)

    def take(self, request):
        """Notes a request and finds its reply; waits for the reply's gate."""
        with self._changed:
            self.requests.append(request)
            reply = self.replies.popleft() if self.replies else None
            self._changed.notify_all()
        if reply is None:
            reply = self._answer(request)
        if self._on_request:
            self._on_request(request, reply)
        if reply.gate:
            with self._changed:
                if self._stopping:
                    raise OSError("stopping")
                self._gates.add(reply.gate)
            reply.gate.wait()
            with self._changed:
                self._gates.discard(reply.gate)
                if self._stopping:
                    raise OSError("stopping")
        return reply


def reset(sock):
    """Makes the next close() send a TCP reset."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                    struct.pack("ii", 1, 0))


class Http1:
    """One HTTP/1.1 connection."""

    def __init__(self, server, sock, number, name):
        self._server, self._sock = server, sock
        self._number, self._name = number, name
        self._buffer = b""

    def run(self):
        while True:
            request = self._read()
            if request is None:
                return
            reply = self._server.take(request)
            self._send(reply)
            if reply.then == "reset":
                reset(self._sock)
            if reply.then != "keep" or reply.cut is not None:
                return

    def _fill(self):
        data = self._sock.recv(65536)
        self._buffer += data
        return bool(data)

    def _read(self):
        while b"\r\n\r\n" not in self._buffer:
            if not self._fill():
                return None
        head, _, self._buffer = self._buffer.partition(b"\r\n\r\n")
        head += b"\r\n\r\n"
        first, *lines = head.decode("latin-1").split("\r\n")[:-2]
        method, target, _ = first.split(" ", 2)
        fields = []
        for line in lines:
            name, _, value = line.partition(":")
            # One blank belongs to the syntax; any more belong to the value.
            fields.append((name, value[1:] if value[:1] == " " else value))
        request = Request("HTTP/1.1", head, method, target, fields, b"",
                          self._number, self._name)
        length = int(request.field("Content-Length") or 0)
        while len(self._buffer) < length:
            if not self._fill():
                return None
        request.body = self._buffer[:length]
        self._buffer = self._buffer[length:]
        return request

    def _send(self, reply):
        if reply.raw is not None:
            self._sock.sendall(reply.raw)
            return
        if reply.then == "reset" and reply.gate:
            return
        head = "HTTP/1.1 %d %s\r\n" % (
            reply.status, http.client.responses.get(reply.status, "Status"))
        for name, value in reply.headers:
            head += "%s: %s\r\n" % (name, value)
        head += "Content-Length: %d\r\n\r\n" % len(reply.body)
        self._sock.sendall(head.encode("latin-1") + reply.body[:reply.cut])


class Http2:
    """One HTTP/2 connection; each stream's reply has a thread of its own."""

    def __init__(self, server, sock, number, name):
        self._server, self._sock = server, sock
        self._number, self._name = number, name
        # Nothing about the fields is mended or refused: they are recorded.
        self._h2 = h2.connection.H2Connection(h2.config.H2Configuration(
            client_side=False, header_encoding="latin-1",
            validate_inbound_headers=False, normalize_inbound_headers=False))
        self._streams = {}  # stream -> [fields, body]
        self._lock = threading.Condition()
        self._over = False

    def run(self):
        with self._lock:
            self._h2.initiate_connection()
            self._flush()
        threads = []
        try:
            while True:
                # Only one thread may be inside the TLS socket at a time.
                if not self._sock.pending():
                    select.select([self._sock], [], [])
                with self._lock:
                    data = self._sock.recv(65536)
                    if not data:
                        return
                    events = self._h2.receive_data(data)
                    for event in events:
                        self._on_event(event, threads)
                    self._flush()
                    self._lock.notify_all()
        finally:
            with self._lock:
                self._over = True
                self._lock.notify_all()

    def _flush(self):
        self._sock.sendall(self._h2.data_to_send())

    def _on_event(self, event, threads):
        if isinstance(event, h2.events.RequestReceived):
            self._streams[event.stream_id] = [event.headers, b""]
        elif isinstance(event, h2.events.DataReceived):
            self._streams[event.stream_id][1] += event.data
            self._h2.acknowledge_received_data(
                event.flow_controlled_length, event.stream_id)
        elif isinstance(event, h2.events.StreamEnded):
            thread = threading.Thread(
                target=self._reply, args=(event.stream_id,), daemon=True)
            threads.append(thread)
            thread.start()

    def _reply(self, stream):
        fields, body = self._streams.pop(stream)
        table = dict(fields)
        request = Request("HTTP/2", b"", table.get(":method", ""),
                          table.get(":path", ""), list(fields), body,
                          self._number, self._name)
        try:
            reply = self._server.take(request)
            self._send(stream, reply)
        except (OSError, h2.exceptions.ProtocolError):
            pass  # As for the connection: the test sees what came of it.

    def _send(self, stream, reply):
        with self._lock:
            if reply.then == "reset":
                self._h2.reset_stream(stream, h2.errors.ErrorCodes.CANCEL)
                self._flush()
                return
            if reply.frames:
                self._sock.sendall(reply.frames(stream))
                if reply.then == "close":
                    self._sock.shutdown(socket.SHUT_RDWR)
                return
            self._h2.send_headers(
                stream, [(":status", str(reply.status))] +
                [(name.lower(), value) for name, value in reply.headers] +
                [("content-length", str(len(reply.body)))])
            data = reply.body[:reply.cut]
            while data:
                self._lock.wait_for(
                    lambda: self._over or
                    self._h2.local_flow_control_window(stream) > 0)
                if self._over:
                    return
                size = min(self._h2.local_flow_control_window(stream),
                           self._h2.max_outbound_frame_size)
                self._h2.send_data(stream, data[:size])
                self._flush()
                data = data[size:]
            if reply.then == "close" or reply.cut is not None:
                self._h2.close_connection()
                self._flush()
                self._sock.shutdown(socket.SHUT_RDWR)
                return
            self._h2.end_stream(stream)
            self._flush()


class IdentityProvider:
    """The usual answers of the identity provider, as a Server's `answer`.

    `mark` starts every token that it makes.
    """

    def __init__(self, mark="S3CR3T"):
        self._mark = mark
        self._lock = threading.Lock()
        self.refresh_tokens = set()
        self.access_tokens = set()

    def make(self, kind):
        token = "%s-%s-%s" % (self._mark, kind, secrets.token_hex(8))
        with self._lock:
            (self.refresh_tokens if kind == "refresh"
             else self.access_tokens).add(token)
        return token

    def __call__(self, request):
        if request.method != "POST":
            return Reply.json({"error": "invalid_request"}, 405)
        if request.target == REVOKE_PATH:
            with self._lock:
                self.access_tokens.clear()
            return Reply.json({})
        if request.target != TOKEN_PATH:
            return Reply.json({"error": "not_found"}, 404)
        try:
            form = dict(request.form())
        except ValueError:
            return Reply.json({"error": "invalid_request"}, 400)
        grant = form.get("grant_type")
        if grant == "authorization_code" and form.get("code"):
            return Reply.json({"access_token": self.make("access"),
                               "refresh_token": self.make("refresh"),
                               "token_type": "Bearer", "expires_in": 3600})
        if grant == "refresh_token":
            if form.get("refresh_token") not in self.refresh_tokens:
                return Reply.json({"error": "invalid_grant"}, 400)
            return Reply.json({"access_token": self.make("access"),
                               "token_type": "Bearer", "expires_in": 3600})
        return Reply.json({"error": "unsupported_grant_type"}, 400)


class CloudApi:
    """The usual answers of the cloud: what it saw, to whom may see it."""

    def __init__(self, identity):
        self._identity = identity

    def __call__(self, request):
        kind, _, token = (request.field("Authorization") or "").partition(" ")
        if kind != "Bearer" or token not in self._identity.access_tokens:
            return Reply.json({"error": "invalid_token"}, 401)
        seen = {"method": request.method, "path": request.target}
        if request.body:
            try:
                seen["body"] = json.loads(request.body)
            except ValueError:
                return Reply.json({"error": "not JSON"}, 400)
        return Reply.json(seen)


def shortened(text):
    """The first few characters of a secret, and how many more there were."""
    return text if len(text) <= 12 else "%s...(%d more)" % (
        text[:12], len(text) - 12)


def printer(name):
    """Prints requests for a person to read."""
    lock = threading.Lock()

    def print_request(request, reply):
        lines = ["%s: %s %s %s" % (name, request.method, request.target,
                                   request.protocol)]
        for field, value in request.fields:
            if field in (":method", ":path", ":scheme"):
                continue  # Said in the first line.
            if field.lower() == "authorization":
                kind, _, token = value.partition(" ")
                value = "%s %s" % (kind, shortened(token))
            lines.append("%s:   %s: %s" % (name, field, value))
        if request.field("content-type") == (
                "application/x-www-form-urlencoded"):
            try:
                form = request.form()
            except ValueError:
                form = []
            for field, value in form:
                secret = field in ("code", "client_secret", "refresh_token")
                lines.append("%s:   [%s = %s]" % (
                    name, field, shortened(value) if secret else value))
        elif request.body:
            lines.append("%s:   %s" % (
                name, request.body.decode("utf-8", errors="replace")))
        lines.append("%s: -> %d" % (name, reply.status))
        with lock:
            print("\n".join(lines), flush=True)
    return print_request


def main():
    argparse.ArgumentParser(
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter).parse_args()
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: sys.exit(0))
    identity = IdentityProvider(mark="demo")
    protocols = ("h2", "http/1.1")
    try:
        with tempfile.TemporaryDirectory() as folder:
            for name, address, answer in (
                    ("identity", "127.0.0.1", identity),
                    ("cloud", "127.0.0.2", CloudApi(identity))):
                host = name + ".vantrel.example"
                Server(address, 443, pki.issue(AUTHORITY, folder, name, [host]),
                       protocols, answer, printer(name))
                print("%s: serving https://%s" % (name, host), flush=True)
            while True:
                signal.pause()
    except (OSError, RuntimeError) as error:
        print("cloud: %s" % error, file=sys.stderr)
        return 69


if __name__ == "__main__":
    sys.exit(main())
