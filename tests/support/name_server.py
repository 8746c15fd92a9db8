# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A name server for the sandbox, which can lie, dawdle and say nothing."""

import ipaddress
import os
import socket
import struct
import threading

ADDRESS = "127.0.0.53"
A = 1

RESOLVER = "/etc/resolv.conf"
SWITCH = "/etc/nsswitch.conf"

SILENCE = None
NXDOMAIN = "nxdomain"


class Question:
    """One query as it came."""

    def __init__(self, data):
        self.data = data
        labels, at = [], 12
        while data[at]:
            labels.append(data[at + 1:at + 1 + data[at]].decode("latin-1"))
            at += 1 + data[at]
        self.name = ".".join(labels)
        (self.kind,) = struct.unpack_from("!H", data, at + 1)
        self.question = data[12:at + 5]

    def answer(self, flags, addresses=()):
        """The bytes of an answer with these flags and addresses."""
        records = b"".join(
            b"\xc0\x0c" + struct.pack("!HHIH", A, 1, 0, 4) +
            ipaddress.IPv4Address(address).packed for address in addresses)
        return (self.data[:2] + struct.pack(
            "!HHHHH", flags, 1, len(addresses), 0, 0) + self.question +
            records)


class NameServer:
    """Serves UDP from the start, as the only one the sandbox knows.

    `answer(question)` gives SILENCE, NXDOMAIN, an IPv4 address or bytes.
    `options` go into the resolver's configuration. Names in /etc/hosts are
    found there and never asked for.
    """

    def __init__(self, answer, options=""):
        self.queries = []  # names, in the order of their coming
        self._answer = answer
        self._changed = threading.Condition()
        self._saved = {}
        for path in (RESOLVER, SWITCH):
            self._saved[path] = self._read(path)
        self.configure("options " + options if options else "")
        self._write(SWITCH, "passwd: files\ngroup: files\n"
                      "hosts: files dns\nservices: files\n")
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self._socket.bind((ADDRESS, 53))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    @staticmethod
    def _read(path):
        if not os.path.exists(path):
            return None
        with open(path, encoding="ascii") as file:
            return file.read()

    @staticmethod
    def _write(path, text):
        with open(path, "w", encoding="ascii") as file:
            file.write(text)

    def configure(self, lines):
        """Gives the resolver these lines beside the one of this server."""
        self._write(RESOLVER, "nameserver %s\n%s\n" % (ADDRESS, lines))

    def _serve(self):
        while True:
            data, peer = self._socket.recvfrom(4096)
            if not data:
                return
            question = Question(data)
            with self._changed:
                self.queries.append(question.name)
                self._changed.notify_all()
            answer = self._answer(question)
            if answer is SILENCE:
                continue
            if answer == NXDOMAIN:
                answer = question.answer(0x8183)
            elif isinstance(answer, str):
                # An address of the other family is one that does not exist.
                answer = question.answer(
                    0x8180, [answer] if question.kind == A else [])
            self._socket.sendto(answer, peer)

    def wait_for(self, count, deadline_s=20):
        """Waits until `count` different names have been asked for."""
        with self._changed:
            if not self._changed.wait_for(
                    lambda: len(set(self.queries)) >= count, deadline_s):
                raise TimeoutError("waited %s s for %d names, saw %d" % (
                    deadline_s, count, len(set(self.queries))))

    def stop(self):
        """Ends it and puts the sandbox's own configuration back."""
        # The thread takes an empty datagram for the end.
        self._socket.sendto(b"", (ADDRESS, 53))
        self._thread.join()
        self._socket.close()
        for path, text in self._saved.items():
            if text is None:
                os.unlink(path)
            else:
                self._write(path, text)
