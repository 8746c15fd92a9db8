# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A connection to a bus that speaks the wire protocol itself.

It can be any user's, and can send what a D-Bus library would not: a call
without an interface, a reply that nobody asked for.
"""

import contextlib
import dataclasses
import os
import pwd
import select
import socket
import struct
import time

CALL, RETURN, ERROR, SIGNAL = range(1, 5)

BUS = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"

# The header fields: their number and type.
FIELDS = {"path": (1, "o"), "interface": (2, "s"), "member": (3, "s"),
          "error": (4, "s"), "reply_serial": (5, "u"),
          "destination": (6, "s"), "sender": (7, "s"),
          "signature": (8, "g")}
NAMES = {number: name for name, (number, _) in FIELDS.items()}

REPLACE_EXISTING, DO_NOT_QUEUE = 2, 4


@contextlib.contextmanager
def as_user(name):
    """Makes this process one of the user's, with his groups, for a while."""
    entry = pwd.getpwnam(name)
    groups = os.getgroups()
    os.setgroups(os.getgrouplist(name, entry.pw_gid))
    os.setegid(entry.pw_gid)
    os.seteuid(entry.pw_uid)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups(groups)


def _pad(data, size):
    return data + b"\0" * (-len(data) % size)


def _write(data, kind, value):
    """`data` with a value of a basic type, or an array of strings, behind."""
    if kind == "u":
        return _pad(data, 4) + struct.pack("<I", value)
    if kind in ("s", "o"):
        text = value.encode()
        return _pad(data, 4) + struct.pack("<I", len(text)) + text + b"\0"
    if kind == "g":
        return data + bytes([len(value)]) + value.encode() + b"\0"
    assert kind == "as"
    start = len(_pad(data, 4)) + 4
    inner = b"\0" * start
    for text in value:
        inner = _write(inner, "s", text)
    return _pad(data, 4) + struct.pack("<I", len(inner) - start) + inner[start:]


def _read(data, at, kind):
    """A value of a basic type, and where it ends."""
    if kind == "g":
        end = at + 1 + data[at]
        return data[at + 1:end].decode(), end + 1
    at += -at % 4
    (number,) = struct.unpack_from("<I", data, at)
    if kind == "u":
        return number, at + 4
    end = at + 4 + number
    return data[at + 4:end].decode(), end + 1


@dataclasses.dataclass
class Message:
    """One message that came in; of the body only what is in front is read,
    if it is a text or a number."""
    kind: int
    serial: int
    fields: dict
    text: str

    def __getattr__(self, name):
        if name not in FIELDS:
            raise AttributeError(name)
        return self.fields.get(name)


class Peer:
    """One connection; `inbox` has the messages that were not waited for."""

    def __init__(self, path, user="root", deadline_s=20):
        self.inbox = []
        self._deadline_s = deadline_s
        self._serial = 0
        self._data = b""
        self._socket = socket.socket(socket.AF_UNIX)
        with as_user(user):
            # Whose it is, is seen when it connects.
            self._socket.connect(path)
            identity = str(os.geteuid()).encode().hex()
        self._socket.sendall(b"\0AUTH EXTERNAL %s\r\n" % identity.encode())
        while not self._data.endswith(b"\r\n"):
            self._receive(time.monotonic() + deadline_s)
        assert self._data.startswith(b"OK "), self._data
        self._data = b""
        self._socket.sendall(b"BEGIN\r\n")
        self.unique_name = self.call_bus("Hello").text

    def _receive(self, end):
        left = end - time.monotonic()
        if left <= 0 or not select.select([self._socket], [], [], left)[0]:
            raise TimeoutError("waited %s s for a message" % self._deadline_s)
        data = self._socket.recv(1 << 16)
        if not data:
            raise ConnectionError("the bus closed the connection")
        self._data += data

    def send(self, kind, signature="", body=(), flags=0, **fields):
        """Sends a message with just these header fields; its serial."""
        self._serial += 1
        content = b""
        kinds = ["as", *signature[2:]] if signature[:2] == "as" else signature
        for one, value in zip(kinds, body):
            content = _write(content, one, value)
        header = struct.pack("<BBBBII", ord("l"), kind, flags, 1,
                             len(content), self._serial)
        start = len(header) + 4
        array = header + b"\0\0\0\0"
        if signature:
            fields["signature"] = signature
        for name, value in fields.items():
            number, field_type = FIELDS[name]
            array = _pad(array, 8) + bytes([number])
            array = _write(_write(array, "g", field_type), field_type, value)
        length = struct.pack("<I", len(array) - start)
        self._socket.sendall(
            _pad(header + length + array[start:], 8) + content)
        return self._serial

    def _take(self):
        """The first message that is here in full, or None."""
        if len(self._data) < 16:
            return None
        assert self._data[:1] == b"l"
        size, serial, fields_size = struct.unpack_from("<III", self._data, 4)
        start = 16 + fields_size + -fields_size % 8
        if len(self._data) < start + size:
            return None
        fields, at = {}, 16
        while at < 16 + fields_size:
            at += -at % 8
            number = self._data[at]
            kind, at = _read(self._data, at + 1, "g")
            value, at = _read(self._data, at, kind)
            fields[NAMES.get(number, number)] = value
        text = ""
        if fields.get("signature", "").startswith("s"):
            text, _ = _read(self._data[start:], 0, "s")
        elif fields.get("signature", "").startswith(("i", "u")):
            text = str(_read(self._data[start:], 0, "u")[0])
        message = Message(self._data[1], serial, fields, text)
        self._data = self._data[start + size:]
        return message

    def wait_for_reply(self, serial):
        """The answer; what comes before goes into the inbox."""
        end = time.monotonic() + self._deadline_s
        while True:
            message = self._take()
            if message is None:
                self._receive(end)
            elif (message.kind in (RETURN, ERROR)
                  and message.reply_serial == serial):
                return message
            else:
                self.inbox.append(message)

    def call(self, *arguments, **fields):
        return self.wait_for_reply(self.send(CALL, *arguments, **fields))

    def call_bus(self, member, signature="", body=(), interface=BUS):
        """Calls the bus itself."""
        return self.call(signature, body, destination=BUS, path=BUS_PATH,
                         interface=interface, member=member)

    def sync(self):
        """Returns when the bus has passed on all that was sent before, and
        all that it had for us is in the inbox."""
        assert self.call_bus("GetId").kind == RETURN

    def request_name(self, name, flags=DO_NOT_QUEUE):
        """What came of it: a number, or the name of the error."""
        reply = self.call_bus("RequestName", "su", (name, flags))
        return int(reply.text) if reply.kind == RETURN else reply.error

    def wait_for_owner(self, name, wanted=True):
        """Waits until somebody owns the name, or nobody does any more."""
        rule = "type='signal',member='NameOwnerChanged',arg0='%s'" % name
        assert self.call_bus("AddMatch", "s", (rule,)).kind == RETURN
        end = time.monotonic() + self._deadline_s
        while bool(self.call_bus("GetNameOwner", "s", (name,)).kind
                   == RETURN) != wanted:
            while not any(message.member == "NameOwnerChanged"
                          for message in self.inbox):
                message = self._take()
                if message is None:
                    self._receive(end)
                else:
                    self.inbox.append(message)
            self.inbox.clear()
        self.call_bus("RemoveMatch", "s", (rule,))

    def close(self):
        self._socket.close()
