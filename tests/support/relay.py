# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Passes bytes between a client and a server, until it is told to spoil it."""

import os
import socket
import threading

import cloud


class Relay:
    """Listens at `here` and connects to `there`, one thread a direction.

    Both are (address, port), or the path of a socket. Of what the server
    says on each connection, `limit` bytes are passed on; then comes `last`,
    and then the end: by "close", by "reset", or, with "stall", not at all.
    """

    def __init__(self, here, there, limit=None, last=b"", then="close"):
        self.limit, self.last, self.then = limit, last, then
        self.heard = []  # what the server said, a bytearray a connection
        self._there = there
        self._changed = threading.Condition()
        self._stopping = False
        self._sockets = []
        self._threads = []
        self._path = here if isinstance(here, str) else None
        if self._path and os.path.lexists(self._path):
            os.unlink(self._path)
        self._listener = socket.socket(self._family(here))
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(here)
        self._listener.listen(16)
        self._spawn(self._accept)

    @staticmethod
    def _family(address):
        return (socket.AF_UNIX if isinstance(address, str)
                else socket.AF_INET)

    def _spawn(self, target, *arguments):
        thread = threading.Thread(target=target, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()
        return thread

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            server = socket.socket(self._family(self._there))
            server.connect(self._there)
            with self._changed:
                if self._stopping:
                    return
                self._sockets += [client, server]
                heard = bytearray()
                self.heard.append(heard)
            forward = self._spawn(self._forward, client, server)
            self._spawn(self._spoil, server, client, heard, forward)

    @staticmethod
    def _forward(source, sink):
        try:
            while data := source.recv(65536):
                sink.sendall(data)
        except OSError:
            pass
        try:
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def _spoil(self, source, sink, heard, forward):
        """Forwards what the server says, as far as it may."""
        try:
            while self.limit is None or len(heard) < self.limit:
                data = source.recv(65536)
                if not data:
                    break
                if self.limit is not None:
                    data = data[:self.limit - len(heard)]
                with self._changed:
                    heard += data
                    self._changed.notify_all()
                sink.sendall(data)
            if self.limit is not None:
                sink.sendall(self.last)
                if self.then == "stall":
                    return
                if self.then == "reset":
                    # No thread may wait in it, or it would not be closed.
                    sink.shutdown(socket.SHUT_RD)
                    forward.join()
                    cloud.reset(sink)
                    sink.close()
                    return
            sink.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def cut(self):
        """Ends all connections now."""
        with self._changed:
            sockets = list(self._sockets)
        for one in sockets:
            try:
                one.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def stop(self):
        with self._changed:
            self._stopping = True
        self._listener.shutdown(socket.SHUT_RDWR)
        self.cut()
        for thread in self._threads:
            thread.join()
        for one in [self._listener, *self._sockets]:
            one.close()
        if self._path:
            os.unlink(self._path)
