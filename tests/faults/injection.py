# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Runs the daemon with one call of it going wrong, and looks what came of it.

The peers are kept from run to run; each run has a daemon of its own.
"""

import ctypes
import dataclasses
import functools
import mmap
import os
import re
import select
import signal
import subprocess
import threading

import daemon_process
from agent_process import AgentProcess
from bus_client import CallError
from daemon_process import CONFIG, ENDPOINTS, REFRESH_TOKEN, STATE

FOLDER = os.path.dirname(os.path.realpath(__file__))
MARK = "S3CR3T"

COUNT, KILL, FAIL, SHORTEN, NO_BREAK = range(5)

# Longer than anything may take, the time that a request is given included.
LIMIT_S = 40
# Said of a reply that the bus would not take.
LOST = "A reply was lost"

OLD_ENDPOINT = "https://cloud.vantrel.example/v1/"
NEW_ENDPOINT = "https://cloud.vantrel.example/v2/"

RECORDS = 1 << 16


class Record(ctypes.Structure):
    _fields_ = [("number", ctypes.c_int64), ("arguments", ctypes.c_int64 * 4),
                ("result", ctypes.c_int64)]


class ControlFile(ctypes.Structure):
    """As in control.h."""
    _fields_ = [(name, ctypes.c_int64) for name in (
        "armed", "mode", "number", "occurrence", "value", "second",
        "log", "pid", "seen", "hit", "records")] + [
            ("record", Record * RECORDS)]


class Control:
    """The file that an injector and we share."""

    def __init__(self, path):
        self.path = path
        with open(path, "wb+") as file:
            file.truncate(ctypes.sizeof(ControlFile))
            self._memory = mmap.mmap(file.fileno(),
                                     ctypes.sizeof(ControlFile))
        self._file = ControlFile.from_buffer(self._memory)

    def order(self, mode=COUNT, number=-1, occurrence=1, value=0, second=-1,
              log=-1):
        """Says what is to go wrong, once armed."""
        file = self._file
        file.armed = file.pid = file.seen = file.hit = file.records = 0
        file.mode, file.number, file.occurrence = mode, number, occurrence
        file.value, file.second, file.log = value, second, log

    def arm(self):
        self._file.armed = 1

    def disarm(self):
        self._file.armed = 0

    @property
    def hit(self):
        return bool(self._file.hit)

    @property
    def pid(self):
        return self._file.pid

    def records(self):
        """The calls since it was armed."""
        count = self._file.records
        assert count < RECORDS, "too many calls to keep"
        return [Call(r.number, tuple(r.arguments), r.result)
                for r in self._file.record[:count]]


@dataclasses.dataclass
class Call:
    """One call that the injector has seen."""
    number: int
    arguments: tuple
    result: int


@functools.cache
def system_call_names():
    """The names of the system calls by number."""
    with open("/usr/include/x86_64-linux-gnu/asm/unistd_64.h",
              encoding="ascii") as file:
        return {int(number): name for name, number in re.findall(
            r"^#define __NR_(\w+) (\d+)$", file.read(), re.MULTILINE)}


def build(source, out, *flags):
    """Compiles one of the tools beside this file."""
    subprocess.run(["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-O1",
                    "-o", out, os.path.join(FOLDER, source), *flags],
                   check=True)
    return out


class Agent(AgentProcess):
    """The agent; waits for it end when the daemon does."""

    def poke(self):
        with self._changed:
            self._changed.notify_all()

    def wait_until(self, condition, what):
        self._wait(condition, what)

    def seen(self, member, path=None):
        """How many such calls there were; to be called in a condition."""
        return sum(call.member == member and path in (None, call.path)
                   for call in self._calls)


class Run:
    """One run of the daemon, under an injector or alone."""

    def __init__(self, world, line, environment=(), control=None):
        self._world = world
        self._control = control
        self.ended = False
        self.code = None
        self._pipe, writer = os.pipe()
        os.set_blocking(self._pipe, False)
        self._stderr = b""
        self._silent = False
        self._stdout = os.memfd_create("stdout")
        self._said = threading.Condition()
        self._process = subprocess.Popen(
            line, stdin=subprocess.DEVNULL, stdout=self._stdout,
            stderr=writer, env={**os.environ, **dict(environment)})
        os.close(writer)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        """Collects what it says; knows when it is gone."""
        while select.select([self._pipe], [], []):
            with self._said:
                more = self._drain()
                self._said.notify_all()
            self._world.agent.poke()
            self._world.client.poke()
            if not more:
                break
        code = self._process.wait()
        # The injector's way to tell of a signal.
        self.code = 128 - code if self._control and code > 128 else code
        self.ended = True
        with self._said:
            self._said.notify_all()
        self._world.client.poke()
        self._world.agent.poke()

    def _drain(self):
        """Takes what has been said so far; False if that was all."""
        while not self._silent:
            try:
                data = os.read(self._pipe, 65536)
            except BlockingIOError:
                return True
            self._stderr += data
            self._silent = not data
        return False

    @property
    def pid(self):
        return (self._control.pid if self._control and self._control.pid
                else self._process.pid)

    def text(self, since=0):
        """All that it has said so far, or `since` then."""
        with self._said:
            self._drain()
            return self._stderr[since:].decode("utf-8",
                                               errors="backslashreplace")

    def lines(self):
        return self.text().splitlines()

    def wait_for_name(self):
        """Waits until it owns its name; False if it ended instead."""
        world = self._world
        world.client.wait(lambda: self.ended or world.client.owner(
            daemon_process.NAME), "the daemon to own its name")
        return not self.ended

    def wait_for_words(self, *words, needed=True, deadline_s=LIMIT_S):
        """Waits until it has said one of that; False if it ended instead."""
        def said():
            return any(w.encode() in self._stderr for w in words)
        with self._said:
            if needed:
                found = self._said.wait_for(
                    lambda: self.ended or said(), deadline_s)
                assert found, "waited %s s for %s: %s" % (
                    deadline_s, words, self._stderr.decode())
            return said()

    def wait_for_call(self, member, path=None, count=1):
        """Waits for a call to the agent; False if it ended instead."""
        agent = self._world.agent
        agent.wait_until(
            lambda: self.ended or agent.seen(member, path) >= count,
            "call %d of %s; the daemon said: %s" % (count, member,
                                                    self._stderr.decode()))
        return agent.seen(member, path) >= count

    def said_so_far(self):
        """How many bytes it has said so far."""
        with self._said:
            self._drain()
            return len(self._stderr)

    def wait_for_end_of_command(self, path, *words, since=0):
        """Waits until a command is over, as the agent or `words` tell.

        What was said `since` then counts. False if the run ended instead.
        """
        agent = self._world.agent

        def over():
            return (agent.seen("Complete", path) or agent.seen("Abort", path)
                    or any(w.encode() in self._stderr[since:] for w in words))
        agent.wait_until(lambda: self.ended or over(),
                         "the end of %s; the daemon said: %s" % (
                             path, self._stderr.decode()))
        return not self.ended

    def wait_for_exit(self, deadline_s=LIMIT_S):
        """Waits for its end; checks that it kept its secrets."""
        world = self._world
        with self._said:
            gone = self._said.wait_for(lambda: self.ended, deadline_s)
        if not gone:
            self.kill()
        assert gone, "waited %s s for the daemon to end: %s" % (
            deadline_s, self.text())
        self._thread.join()
        os.close(self._pipe)
        world.client.wait(lambda: not world.client.owner(daemon_process.NAME),
                          "the bus to see the daemon go")
        stdout = os.pread(self._stdout, 1 << 20, 0)
        os.close(self._stdout)
        assert stdout == b""
        assert MARK not in self.text(), self.text()
        return self.code

    def kill(self):
        """Ends it without giving it a chance to say goodbye."""
        try:
            os.kill(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def stop(self):
        """Asks it to end and returns the exit code."""
        try:
            os.kill(self.pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        return self.wait_for_exit()


class World:
    """The daemon's peers and files."""

    def __init__(self, program, client, agent, provider, identity, cloud):
        self.program = program
        self.client = client
        self.agent = agent
        self.provider = provider
        self.identity = identity
        self.cloud = cloud
        self._number = 0
        self._run = None

    def secret(self, kind):
        self._number += 1
        return "%s-%s-%d" % (MARK, kind, self._number)

    # Files.

    def put_state(self, stored=True):
        """Puts a fresh credential in place, or none; returns its token."""
        for name in os.listdir(STATE):
            os.unlink(os.path.join(STATE, name))
        if not stored:
            return None
        token = self.provider.make("refresh")
        daemon_process.Files.write(REFRESH_TOKEN, token)
        daemon_process.Files.write(ENDPOINTS, OLD_ENDPOINT)
        return token

    @staticmethod
    def state():
        """The contents of the two files: (token, endpoints)."""
        def read(path):
            content = daemon_process.Files.read(path)
            return None if content is None else content.decode()
        return read(REFRESH_TOKEN), read(ENDPOINTS)

    # Runs.

    def start(self, line=None, **more):
        self._run = Run(self, line or [self.program], **more)
        return self._run

    def end_run(self):
        """Ends a run that a failed test left going."""
        if self._run and not self._run.ended:
            self._run.kill()
            self._run.wait_for_exit()

    def request(self, endpoint, method="GET", body=""):
        """Calls the daemon: the status, the error, or "lost"."""
        lost = self._run.text().count(LOST)
        pending = self.client.start(
            daemon_process.NAME, daemon_process.PATH,
            daemon_process.INTERFACE, "RedirectRequest", "sss",
            [endpoint, method, body])
        self.client.wait(
            lambda: pending.done() or self._run.text().count(LOST) > lost,
            "the reply; the daemon said: " + self._run.text(), LIMIT_S)
        if not pending.done():
            return "lost"
        try:
            _, (status, _) = pending.result()
            return str(int(status))
        except CallError as error:
            assert MARK not in str(error)
            return "%s: %s" % (error.name.rpartition(".")[2], error.message)

    def sync(self):
        """Returns when the daemon has taken all that was sent, or is gone."""
        try:
            self.client.call(daemon_process.NAME, daemon_process.PATH,
                             "org.freedesktop.DBus.Peer", "Ping",
                             deadline_s=LIMIT_S)
            return True
        except CallError:
            return False

    def published(self):
        """The state that was published last."""
        calls = self.agent.calls(member="UpdateState")
        return '"_provisioned": <b true>' in calls[-1].arguments[0]

    def check_restart(self):
        """A plain start takes up what is there, and serves."""
        token, endpoints = self.state()
        updates = len(self.agent.calls(member="UpdateState"))
        run = self.start()
        assert run.wait_for_name(), run.text()
        left = sorted(os.listdir(STATE))
        assert left == sorted(
            name for name, content in (("allowed_endpoints", endpoints),
                                       ("refresh_token", token))
            if content is not None)
        assert run.wait_for_call("UpdateState", count=updates + 1), run.text()
        assert self.published() == (token is not None)
        wanted = "Endpoint %s not whitelisted" % OLD_ENDPOINT
        asked = OLD_ENDPOINT
        if endpoints is not None:
            asked = endpoints
            wanted = "Authorization code not provisioned"
            if token is not None:
                assert run.wait_for_words(
                    "Successfully fetched access token: 200"), run.text()
                wanted = "200"
        answer = self.request(asked)
        assert answer.endswith(wanted), "%s instead of %s: %s" % (
            answer, wanted, run.text())
        assert run.stop() == 0
        assert run.text().count("[ERROR]") == (endpoints is None), run.text()
