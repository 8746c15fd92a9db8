#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A server that holds thousands of requests at a time.

One thread, in a process of its own: the fake cloud has a thread for each
connection. It speaks HTTP/1.1 on port 80, and HTTP/1.1 and HTTP/2 over TLS on
port 443. It answers a request with what it saw, in a form that the first part
of the path after /v1/ asks for:

  echo      {"method", "path", "body"} with status 200
  STATUS    the same with that status (a number)
  large     the same with 64 KiB of padding
  html      no JSON
  cut       half an answer, and the end of the connection

As a module: LoadServer starts it and tells it what to do, one line each:

  hold      hold the requests that come from now on
  wait N    answer when N requests are held
  release   answer the held requests, and hold no more
  counts    say how many requests there were over HTTP/1.1 and over HTTP/2,
            and how many connections: at most, now
"""

import asyncio
import collections
import json
import os
import resource
import select
import signal
import ssl
import subprocess
import sys

import h2.config
import h2.connection
import h2.events
import h2.exceptions
import h2.settings

BACKLOG = 4096
PADDING = "x" * (64 << 10)

Counts = collections.namedtuple(
    "Counts", "http1 http2 most_connections connections")


class State:
    """What all connections share."""

    def __init__(self):
        self.held = None  # or the list of answers to give later
        self.requests = collections.Counter()  # by protocol
        self.connections = 0
        self.most_connections = 0
        self._waiters = []  # (how many, future)

    def came(self):
        self.connections += 1
        self.most_connections = max(self.most_connections, self.connections)

    def take(self, protocol, give):
        """Calls `give` now, or when the requests are released."""
        self.requests[protocol] += 1
        if self.held is None:
            give()
            return
        self.held.append(give)
        for count, future in self._waiters:
            if len(self.held) >= count and not future.done():
                future.set_result(None)

    async def wait(self, count):
        if len(self.held) < count:
            future = asyncio.get_running_loop().create_future()
            self._waiters.append((count, future))
            await future

    def release(self):
        held, self.held = self.held, None
        for give in held:
            give()


def answer_to(method, path, body):
    """(status, body) for a request; None stands for half an answer."""
    kind = path.split("/")[2]
    seen = {"method": method, "path": path,
            "body": json.loads(body) if body else None}
    if kind == "cut":
        return None
    if kind == "html":
        return 200, b"<html>" + path.encode()
    if kind == "large":
        seen["padding"] = PADDING
    status = int(kind) if kind.isdigit() else 200
    return status, json.dumps(seen).encode()


class Http1(asyncio.Protocol):
    """One HTTP/1.1 connection. A client sends one request at a time."""

    def __init__(self, state):
        self._state = state
        self._transport = None
        self._buffer = b""

    def connection_made(self, transport):
        self._transport = transport

    def connection_lost(self, _):
        self._state.connections -= 1

    def data_received(self, data):
        self._buffer += data
        head, end, rest = self._buffer.partition(b"\r\n\r\n")
        if not end:
            return
        first, *fields = head.decode("latin-1").split("\r\n")
        length = 0
        for field in fields:
            name, _, value = field.partition(":")
            if name.lower() == "content-length":
                length = int(value)
        if len(rest) < length:
            return
        method, path, _ = first.split(" ", 2)
        self._buffer = b""
        answer = answer_to(method, path, rest[:length])
        self._state.take("http/1.1", lambda: self._give(answer))

    def _give(self, answer):
        if answer is None:
            self._transport.write(b"HTTP/1.1 200 OK\r\nContent-Le")
            self._transport.close()
            return
        status, body = answer
        self._transport.write(
            b"HTTP/1.1 %d Status\r\nContent-Type: application/json\r\n"
            b"Content-Length: %d\r\n\r\n" % (status, len(body)) + body)


class Http2(asyncio.Protocol):
    """One HTTP/2 connection."""

    def __init__(self, state):
        self._state = state
        self._transport = None
        self._h2 = h2.connection.H2Connection(h2.config.H2Configuration(
            client_side=False, header_encoding="latin-1"))
        self._streams = {}  # stream -> [fields, body]
        self._unsent = {}   # stream -> rest of the body

    def connection_made(self, transport):
        self._transport = transport
        self._h2.initiate_connection()
        self._flush()

    def connection_lost(self, _):
        self._state.connections -= 1
        self._transport = None

    def data_received(self, data):
        try:
            for event in self._h2.receive_data(data):
                self._on_event(event)
        except h2.exceptions.ProtocolError:
            self._transport.abort()
            return
        self._flush()

    def _on_event(self, event):
        if isinstance(event, h2.events.RequestReceived):
            self._streams[event.stream_id] = [dict(event.headers), b""]
        elif isinstance(event, h2.events.DataReceived):
            self._streams[event.stream_id][1] += event.data
            self._h2.acknowledge_received_data(
                event.flow_controlled_length, event.stream_id)
        elif isinstance(event, h2.events.StreamEnded):
            fields, body = self._streams.pop(event.stream_id)
            answer = answer_to(fields[":method"], fields[":path"], body)
            self._state.take(
                "h2", lambda: self._give(event.stream_id, answer))
        elif isinstance(event, h2.events.WindowUpdated):
            for stream in list(self._unsent):
                self._send(stream)
        elif isinstance(event, h2.events.StreamReset):
            self._unsent.pop(event.stream_id, None)

    def _give(self, stream, answer):
        if self._transport is None:
            return
        try:
            if answer is None:
                self._h2.reset_stream(stream)
            else:
                status, body = answer
                self._h2.send_headers(stream, [
                    (":status", str(status)),
                    ("content-type", "application/json"),
                    ("content-length", str(len(body)))])
                self._unsent[stream] = body
                self._send(stream)
        except h2.exceptions.ProtocolError:
            pass  # The client gave the request up.
        self._flush()

    def _send(self, stream):
        rest = self._unsent[stream]
        while rest:
            size = min(self._h2.local_flow_control_window(stream),
                       self._h2.max_outbound_frame_size)
            if size <= 0:
                break
            self._h2.send_data(stream, rest[:size],
                               end_stream=size >= len(rest))
            rest = rest[size:]
        self._unsent[stream] = rest
        if not rest:
            del self._unsent[stream]

    def _flush(self):
        if self._transport is not None:
            self._transport.write(self._h2.data_to_send())


class Connection(asyncio.Protocol):
    """One connection, before it is known what is spoken on it."""

    def __init__(self, state):
        self._state = state

    def connection_made(self, transport):
        self._state.came()
        tls = transport.get_extra_info("ssl_object")
        is_http2 = tls and tls.selected_alpn_protocol() == "h2"
        protocol = (Http2 if is_http2 else Http1)(self._state)
        transport.set_protocol(protocol)
        protocol.connection_made(transport)


async def serve(address, certificate, key, protocols):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    context.set_alpn_protocols(protocols)
    state = State()
    loop = asyncio.get_running_loop()
    await loop.create_server(
        lambda: Connection(state), address, 80, backlog=BACKLOG)
    # Many handshakes at once take their time.
    await loop.create_server(
        lambda: Connection(state), address, 443, ssl=context, backlog=BACKLOG,
        ssl_handshake_timeout=60)
    orders = asyncio.StreamReader()
    await loop.connect_read_pipe(
        lambda: asyncio.StreamReaderProtocol(orders), sys.stdin)
    print("ready", flush=True)
    while line := (await orders.readline()).decode().split():
        if line[0] == "hold":
            state.held = []
        elif line[0] == "wait":
            await state.wait(int(line[1]))
        elif line[0] == "release":
            state.release()
        print(state.requests["http/1.1"], state.requests["h2"],
              state.most_connections, state.connections, flush=True)


class LoadServer:
    """Starts the server as a process; ends with stop()."""

    def __init__(self, address, certificate, protocols=("http/1.1",)):
        self._process = subprocess.Popen(
            [sys.executable, os.path.realpath(__file__), address, *certificate,
             *protocols],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self._answer("its start", 20) == "ready"

    def _answer(self, what, deadline_s):
        if not select.select([self._process.stdout], [], [], deadline_s)[0]:
            raise TimeoutError("waited %s s for the server: %s" % (
                deadline_s, what))
        return self._process.stdout.readline().strip()

    def _order(self, line, deadline_s=20):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()
        return Counts(*map(int, self._answer(line, deadline_s).split()))

    def hold(self):
        self._order("hold")

    def wait_for_held(self, count, deadline_s=29):
        """Waits until it holds `count` requests."""
        self._order("wait %d" % count, deadline_s)

    def release(self):
        """Answers all that it holds, and from then on at once."""
        self._order("release", 60)

    def counts(self):
        """The Counts of now."""
        return self._order("counts")

    def stop(self):
        self._process.send_signal(signal.SIGKILL)
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


def main():
    _, limit = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    asyncio.run(serve(*sys.argv[1:4], sys.argv[4:]))


if __name__ == "__main__":
    main()
