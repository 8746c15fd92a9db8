# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Drives tests/fakes/agent.py from a test.

The agent is a process of its own, because the daemon's calls to it block the
daemon: it has to answer whatever the test is doing.
"""

import dataclasses
import json
import os
import subprocess
import sys
import threading

PROGRAM = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(
    __file__))), "fakes", "agent.py")

NAME = "org.vantrel.Dosset"
ROOT = "/org/vantrel/Dosset"
MANAGER_PATH = ROOT + "/Manager"
MANAGER = NAME + ".Manager"
COMMAND = NAME + ".Command"
SET = "_cloudActionConfiguration._setCredential"
REMOVE = "_cloudActionConfiguration._removeCredential"


@dataclasses.dataclass
class Call:
    """One method call that the agent got."""
    time: float
    sender: str
    path: str
    interface: str
    member: str
    signature: str
    arguments: list  # as text that shows the types inside variants
    refused: str     # why it was refused, or None

    def text(self):
        return "%s(%s) %s" % (self.member, self.signature,
                              ", ".join(self.arguments))


class AgentError(Exception):
    """The agent could not do what it was asked to do."""


class AgentProcess:
    """The agent's process; it is not on the bus before appear()."""

    def __init__(self, deadline_s=20):
        self._deadline_s = deadline_s
        self._changed = threading.Condition()
        self._calls = []
        self._done = {}
        self._ready = False
        self._ended = False
        self._last_request = 0
        self._last_command = 0
        self.unique_name = None  # of the connection that appear() made
        self._process = subprocess.Popen(
            [sys.executable, PROGRAM, "--json"], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self._wait(lambda: self._ready, "the agent's program to start")

    def _read(self):
        for line in self._process.stdout:
            event = json.loads(line)
            kind = event.pop("event")
            with self._changed:
                if kind == "ready":
                    self._ready = True
                elif kind == "call":
                    self._calls.append(Call(**event))
                elif kind == "done":
                    self._done[event["id"]] = event
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def _wait(self, condition, what, deadline_s=None):
        """Waits under the lock; `what` is said when it takes too long."""
        limit = deadline_s or self._deadline_s
        with self._changed:
            self._changed.wait_for(lambda: condition() or self._ended, limit)
            if condition():
                return
            raise TimeoutError("waited %s s for %s; the agent %s; calls: %s" % (
                limit, what, "has ended" if self._ended else "is up",
                [call.text() for call in self._calls]))

    def do(self, action, **details):
        """Has the agent do one thing and returns what came of it."""
        self._last_request += 1
        number = self._last_request
        line = json.dumps({"id": number, "do": action, "with": details})
        self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()
        self._wait(lambda: number in self._done, "the agent to " + action)
        done = self._done.pop(number)
        if "error" in done:
            raise AgentError("%s: %s" % (action, done["error"]))
        return done.get("result")

    def appear(self):
        """Comes onto the bus under the agent's name."""
        self.unique_name = self.do("connect")
        self.do("own")

    def leave(self):
        """Leaves the bus, as if the agent had crashed."""
        self.do("disconnect")

    def command(self, name, parameters=None, state="queued", path=None,
                announce=True, **odd):
        """Publishes a command object and returns its path.

        `odd` replaces properties by [signature, value] pairs, or leaves them
        out where it says None.
        """
        self._last_command += 1
        identity = str(self._last_command)
        path = path or "%s/commands/%s" % (ROOT, identity)
        properties = {
            "Name": ["s", name], "Id": ["s", identity], "State": ["s", state],
            "Parameters": ["a{sv}", parameters or {}],
            "Progress": ["a{sv}", {}], "Results": ["a{sv}", {}],
            "Origin": ["s", "cloud"], **odd}
        self.do("publish", path=path, interface=COMMAND, announce=announce,
                properties={k: v for k, v in properties.items()
                            if v is not None})
        return path

    def set_credential(self, code, endpoints, **more):
        """Publishes a set command of the usual shape."""
        return self.command(SET, {"_authorizationCode": ["s", code],
                                  "_allowedEndpoints": ["as", endpoints]},
                            **more)

    def remove_credential(self, **more):
        """Publishes a remove command."""
        return self.command(REMOVE, **more)

    def calls(self, path=None, member=None):
        """The calls so far on the agent's own interfaces, in order."""
        with self._changed:
            return [call for call in self._calls
                    if call.interface in (MANAGER, COMMAND) and
                    path in (None, call.path) and
                    member in (None, call.member)]

    def all_calls(self, member):
        """The calls so far of one name, on whatever interface."""
        with self._changed:
            return [call for call in self._calls if call.member == member]

    def wait_for_call(self, member, path=None, count=1, deadline_s=None):
        """Waits for the `count`-th such call and returns it."""
        def matching():
            return [call for call in self._calls if call.member == member and
                    path in (None, call.path)]
        self._wait(lambda: len(matching()) >= count,
                   "call %d of %s%s" % (count, member,
                                        " on " + path if path else ""),
                   deadline_s)
        with self._changed:
            return matching()[count - 1]

    def stop(self):
        """Ends the process."""
        if self._process.poll() is None:
            self._process.stdin.close()
            self._process.wait(self._deadline_s)
        self._reader.join()
        self._process.stdout.close()

    def kill(self):
        """Ends the process without giving it a chance to say goodbye."""
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
