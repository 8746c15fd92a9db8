# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Starts and stops the daemon and listens to what it says."""

import contextlib
import dataclasses
import errno
import fcntl
import os
import re
import select
import signal
import socket
import stat
import subprocess
import threading
import time

NAME = "org.vantrel.actions.CloudActions"
ROOT = "/org/vantrel/actions/CloudActions"
PATH = ROOT + "/Manager"
INTERFACE = NAME + ".Manager"

CONFIG = "/etc/ap/cloud_action.conf"
STATE = "/var/lib/cloud_action"
ENDPOINTS = STATE + "/allowed_endpoints"
REFRESH_TOKEN = STATE + "/refresh_token"

LOG_SOCKET = "/dev/log"

SEVERITIES = {"INFO": 6, "WARNING": 4, "ERROR": 3, "FATAL": 2}
FACILITY = 3  # "daemon"

_LINE = re.compile(r"\[(INFO|WARNING|ERROR|FATAL)(?::([^\]]+\(\d+\)))?\] (.*)")
_DATAGRAM = re.compile(
    rb"<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^\s\[:]+)(?:\[\d+\])?: "
    rb"(.*)", re.DOTALL)


def _text(data):
    return data.decode("utf-8", errors="backslashreplace")


@dataclasses.dataclass
class LogLine:
    """One line of the log."""
    severity: str
    source: str  # "file(line)" or None
    text: str

    def __str__(self):
        return "[%s%s] %s" % (self.severity,
                              ":" + self.source if self.source else "",
                              self.text)


class Syslog:
    """Stands where the system logger listens and keeps what it is sent."""

    def __init__(self):
        self._changed = threading.Condition()
        self._records = []  # (priority, identity, text)
        self.strays = []    # datagrams of another form
        if os.path.lexists(LOG_SOCKET):
            os.unlink(LOG_SOCKET)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(LOG_SOCKET)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            data = self._socket.recv(1 << 20)
            if not data:
                return
            found = _DATAGRAM.fullmatch(data.rstrip(b"\0\n"))
            with self._changed:
                if found:
                    priority, identity, text = found.groups()
                    self._records.append(
                        (int(priority), identity.decode(),
                         _text(text)))
                else:
                    self.strays.append(data)
                self._changed.notify_all()

    def wait_for(self, count, deadline_s=10):
        """Waits until `count` records in all are there; returns all."""
        with self._changed:
            self._changed.wait_for(lambda: len(self._records) >= count,
                                   deadline_s)
            return list(self._records)

    def close(self):
        """Stops listening; nothing happens the second time."""
        if not os.path.lexists(LOG_SOCKET):
            return
        os.unlink(LOG_SOCKET)
        # The thread reads nothing then, and takes it for the end.
        self._socket.shutdown(socket.SHUT_RD)
        self._thread.join()
        self._socket.close()


class Daemon:
    """The daemon under test, one run at a time.

    `client` is a connection on which the daemon's name is seen to come;
    `collect(kind, text)` gets all that it says, for the sweep for secrets.
    `call_filter` is the start of a command line under which it runs, as given
    by call_filter.launcher().
    """

    def __init__(self, program, client, syslog, collect, call_filter=()):
        self._program = program
        self._call_filter = call_filter
        self._client = client
        self._syslog = syslog
        self._collect = collect
        self._process = None
        self._pipe = None
        self._rest = b""
        self._stdout = None
        self._pidfd = None
        self._watcher = None
        self._syslog_seen = 0
        self._signalled = None
        self._ended = None
        self.lines = []   # LogLine, of this run
        self.strays = []  # other lines on stderr, of all runs
        self._has_syslog = True

    def start(self, arguments=(), environment=(), wait=True, wrapper=()):
        """Starts a run; with `wait`, returns when it owns its bus name.

        `wrapper` is the start of a command line that becomes the daemon.
        """
        assert self._process is None, "a run is going on"
        reader, writer = os.pipe()
        # Read on demand by the test's own thread, so the pipe must be able to
        # hold all that the daemon says until then.
        fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 1 << 20)
        os.set_blocking(reader, False)
        self.lines, self._rest = [], b""
        self._signalled = self._ended = None
        self._stdout = os.memfd_create("stdout")
        self._process = subprocess.Popen(
            [*wrapper, *self._call_filter, self._program, *arguments],
            stdin=subprocess.DEVNULL,
            stdout=self._stdout, stderr=writer,
            env={**os.environ, **dict(environment)})
        os.close(writer)
        self._pipe = reader
        # Readable once the process has ended, whoever collects its status.
        self._pidfd = os.pidfd_open(self._process.pid)
        self._watcher = threading.Thread(target=self._watch, daemon=True)
        self._watcher.start()
        if wait:
            self.wait_for_name()

    def wait_for_name(self):
        """Waits until the run owns its bus name."""
        self._client.wait(lambda: self._client.owner(NAME) or self._exited(),
                          "the daemon to own its name")
        assert not self._exited(), "the daemon ended: %s" % self._words()
        if self._call_filter:
            assert self.status()["Seccomp"] == "2", "there is no filter"

    def _watch(self):
        select.select([self._pidfd], [], [])
        self._ended = time.monotonic()
        self._client.poke()

    def _exited(self):
        return bool(select.select([self._pidfd], [], [], 0)[0])

    @property
    def pid(self):
        return self._process.pid

    def send_signal(self, number):
        self._signalled = time.monotonic()
        self._process.send_signal(number)

    def seconds_to_end(self):
        """How long the run that has ended went on after its last signal."""
        return self._ended - self._signalled

    def stop(self, number=signal.SIGTERM):
        """Ends the run and returns the exit code."""
        self.send_signal(number)
        return self.wait_for_exit()

    def wait_for_exit(self, deadline_s=20, bus_gone=False):
        """Returns the exit code of a run that ends; negative for a signal.

        It must have said nothing but log lines. The bus has seen it go by
        then, unless there is no bus any more.
        """
        try:
            code = self._process.wait(deadline_s)
        except subprocess.TimeoutExpired:
            raise TimeoutError("waited %s s for the daemon to end: %s" % (
                deadline_s, self._words())) from None
        self._drain()
        if self._rest:
            self.strays.append("(unterminated) " + _text(self._rest))
        self._watcher.join()
        stdout = _text(os.pread(self._stdout, 1 << 20, 0))
        for descriptor in (self._pidfd, self._pipe, self._stdout):
            os.close(descriptor)
        self._process, self._pipe = None, None
        self._collect("stdout", stdout)
        for line in self.lines:
            self._collect("stderr", str(line))
        for stray in self.strays:
            self._collect("stderr", stray)
        assert not self.strays, "no log lines: %s" % self._words()
        assert not stdout, "said on stdout: " + stdout
        if not bus_gone:
            self._client.wait(lambda: self._client.owner(NAME) in (
                "", self._client.unique_name), "the bus to see the daemon go")
        self._compare_with_syslog()
        return code

    def expect_no_syslog(self):
        """Takes the system logger away."""
        self._syslog.close()
        self._has_syslog = False

    def _compare_with_syslog(self):
        """Both logs tell the same, line by line."""
        if not self._has_syslog:
            return
        records = self._syslog.wait_for(self._syslog_seen + len(self.lines))
        records = records[self._syslog_seen:]
        self._syslog_seen += len(records)
        for _, _, text in records:
            self._collect("syslog", text)
        assert not self._syslog.strays
        assert records == [
            (FACILITY << 3 | SEVERITIES[line.severity],
             os.path.basename(self._program), str(line))
            for line in self.lines]

    def running(self):
        return self._process is not None

    def tear_down(self):
        """Ends a run that the test left going: it must end well."""
        if self._process is None:
            return
        died = self._exited()
        if not died:
            self.send_signal(signal.SIGTERM)
        code = self.wait_for_exit()
        said = self._words()
        assert not died, "the daemon ended by itself with %d: %s" % (code, said)
        assert code == 0, "the daemon ended with %d: %s" % (code, said)

    # What it says.

    def _drain(self):
        if self._pipe is None:
            return
        while True:
            try:
                data = os.read(self._pipe, 1 << 16)
            except OSError as error:
                if error.errno == errno.EAGAIN:
                    return
                raise
            if not data:
                return
            *lines, self._rest = (self._rest + data).split(b"\n")
            for line in lines:
                text = _text(line)
                found = _LINE.fullmatch(text)
                if found:
                    self.lines.append(LogLine(*found.groups()))
                else:
                    self.strays.append(text)

    def _words(self):
        self._drain()
        return "\n".join(["", *map(str, self.lines), *self.strays])

    def log(self, severity=None):
        """What it has said so far: "SEVERITY text" of each line."""
        self._drain()
        return ["%s %s" % (line.severity, line.text) for line in self.lines
                if severity in (None, line.severity)]

    def count_log(self, severity, text):
        """How often it has said just that so far."""
        return self.log().count("%s %s" % (severity, text))

    def wait_for_log(self, severity, text, count=1, deadline_s=20):
        """Waits until it has said just that `count` times."""
        def matches():
            return self.count_log(severity, text) >= count
        self._wait_for_words(matches, "%s %s" % (severity, text), deadline_s)

    def wait_for_log_like(self, severity, pattern, deadline_s=20):
        """Waits for a line that `pattern` matches in full; returns it."""
        def found():
            self._drain()
            return [line for line in self.lines if line.severity == severity
                    and re.fullmatch(pattern, line.text)]
        self._wait_for_words(found, "%s like %s" % (severity, pattern),
                             deadline_s)
        return found()[0]

    def _wait_for_words(self, condition, what, deadline_s):
        end = time.monotonic() + deadline_s
        while not condition():
            left = end - time.monotonic()
            ended = self._exited()
            if left <= 0 or ended:
                if condition():
                    return
                raise TimeoutError(
                    "waited %s s for the log line %r; the daemon %s; log: %s"
                    % (deadline_s, what, "has ended" if ended else "is up",
                       self._words()))
            select.select([self._pipe, self._pidfd], [], [], left)

    # What the system says of it.

    def status(self):
        """Its /proc status file as a dictionary."""
        with open("/proc/%d/status" % self.pid, encoding="ascii") as file:
            return {name: value.strip() for name, value in
                    (line.split(":", 1) for line in file)}

    def _sleeps_in_epoll(self):
        """Whether it waits, for as long as it takes, for an event."""
        with open("/proc/%d/syscall" % self.pid, encoding="ascii") as file:
            words = file.read().split()
        if len(words) < 5:  # "running", or between two system calls
            return False
        # The number, then the arguments: descriptor, events, count, timeout.
        descriptor, timeout = int(words[1], 16), int(words[4], 16)
        try:
            kind = os.readlink("/proc/%d/fd/%d" % (self.pid, descriptor))
        except OSError:  # no descriptor, so another system call
            return False
        return (kind == "anon_inode:[eventpoll]"
                and timeout & 0xffffffff == 0xffffffff)

    def wait_until_asleep(self, deadline_s=10):
        """Waits until it sleeps until something happens."""
        self._wait_for_state(self._sleeps_in_epoll, "sleep", deadline_s)

    def wait_until_at_rest(self, deadline_s=10):
        """Waits until it sleeps and no timer will wake it up."""
        self._wait_for_state(self._rests, "be at rest", deadline_s)

    @staticmethod
    def _wait_for_state(condition, what, deadline_s):
        end = time.monotonic() + deadline_s
        while not condition():
            if time.monotonic() > end:
                raise TimeoutError("waited %s s for the daemon to %s" %
                                   (deadline_s, what))

    def _rests(self):
        # A timer that is seen at zero may just have run out: then the daemon is
        # awake now, or has been since.
        sleeps = self.status()["voluntary_ctxt_switches"]
        return (self._sleeps_in_epoll() and not any(map(any, self.timers()))
                and self._sleeps_in_epoll()
                and self.status()["voluntary_ctxt_switches"] == sleeps)

    def timers(self):
        """What is left on each of its timers: (seconds, nanoseconds)."""
        folder = "/proc/%d/fdinfo" % self.pid
        found = []
        for name in os.listdir(folder):
            # It may close one meanwhile.
            with contextlib.suppress(FileNotFoundError), open(
                    os.path.join(folder, name), encoding="ascii") as file:
                found += re.findall(r"^it_value: \((\d+), (\d+)\)$",
                                    file.read(), re.MULTILINE)
        return [(int(seconds), int(rest)) for seconds, rest in found]

    def threads(self):
        return sorted(os.listdir("/proc/%d/task" % self.pid))


class Files:
    """The daemon's configuration and state files."""

    @staticmethod
    def clear():
        """Leaves both folders empty, with their usual modes."""
        for folder, mode in (("/etc/ap", 0o755), (STATE, 0o700)):
            os.makedirs(folder, exist_ok=True)
            os.chmod(folder, mode)
            for name in os.listdir(folder):
                path = os.path.join(folder, name)
                if stat.S_ISDIR(os.lstat(path).st_mode):
                    os.chmod(path, 0o700)
                    for inner in os.listdir(path):
                        os.unlink(os.path.join(path, inner))
                    os.rmdir(path)
                else:
                    os.unlink(path)

    @staticmethod
    def write(path, content):
        with open(path, "wb") as file:
            file.write(content if isinstance(content, bytes)
                       else content.encode())

    @staticmethod
    def read(path):
        """The content as bytes, or None where there is no such file."""
        try:
            with open(path, "rb") as file:
                return file.read()
        except FileNotFoundError:
            return None
