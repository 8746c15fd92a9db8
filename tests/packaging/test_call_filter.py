# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The unit's system call filter ends a process that does what the daemon has
no business to do.

The system tests run the daemon itself under this filter.
"""

import platform
import signal
import subprocess
import sys

import call_filter
import pytest

LIBC = "import ctypes; libc = ctypes.CDLL(None); "

# What stands for each line of the unit, in Python.
FORBIDDEN = {
    "mount": LIBC + "libc.mount(b'x', b'/', b'tmpfs', 0, 0)",
    "ptrace": LIBC + "libc.ptrace(0, 0, 0, 0)",
    "module": LIBC + "libc.syscall(%d, 0, 0, 0)" % {
        "x86_64": 175, "aarch64": 105}.get(platform.machine(), 175),
    "setuid": "import os; os.setuid(os.getuid())",
    "chown": "import os; os.chown('/tmp', -1, -1)",
    "priority": "import os; os.nice(0)",
    "real time": "import os; os.sched_setscheduler(0, os.SCHED_OTHER,"
                 " os.sched_param(0))",
    "packet socket": "import socket; socket.socket(socket.AF_PACKET)",
    "vsock": "import socket; socket.socket(socket.AF_VSOCK)",
    "namespace": LIBC + "libc.unshare(0x10000000)",
    "namespace by clone": LIBC + "libc.syscall(%d, 0x10000011, 0, 0, 0, 0)" % {
        "x86_64": 56, "aarch64": 220}.get(platform.machine(), 56),
    "other namespace": LIBC + "libc.setns(0, 0)",
    "setuid bit": "import os; os.chmod('/tmp/none', 0o4755)",
    "setgid file": "import os; os.open('/tmp/none/x', os.O_CREAT, 0o2755)",
    "personality": LIBC + "libc.personality(8)",
    "writable code": "import mmap; mmap.mmap(-1, 4096, prot=7)",
    "code": LIBC + "libc.mprotect(0, 0, 5)"}

ALLOWED = {
    "nothing": "",
    "a file": "import os, tempfile; tempfile.NamedTemporaryFile().close()",
    "sockets": "import socket; [socket.socket(f, socket.SOCK_RAW if f == 16 "
               "else socket.SOCK_STREAM).close() for f in (1, 2, 10, 16)]",
    "a thread": "import threading; t = threading.Thread(); t.start()",
    "another process": "import subprocess; subprocess.run(['true'])",
    "open files": "import resource as r; r.setrlimit(r.RLIMIT_NOFILE,"
                  " r.getrlimit(r.RLIMIT_NOFILE))"}


@pytest.fixture(scope="module")
def launcher(tmp_path_factory):
    return call_filter.launcher(str(tmp_path_factory.mktemp("filter")))


def run(what, wrapper=()):
    return subprocess.run([*wrapper, sys.executable, "-IS", "-c", what],
                          capture_output=True, check=False).returncode


@pytest.mark.parametrize("what", FORBIDDEN.values(), ids=FORBIDDEN)
def test_what_the_unit_forbids_ends_the_process(launcher, what):
    assert run(what) in (0, 1)
    assert run(what, launcher) == -signal.SIGSYS


@pytest.mark.parametrize("what", ALLOWED.values(), ids=ALLOWED)
def test_what_the_daemon_needs_is_let_through(launcher, what):
    assert run(what, launcher) == 0


@pytest.mark.skipif(platform.machine() != "x86_64",
                    reason="calls of the other architecture are made here as "
                           "x86-64 can make them")
def test_calls_of_another_architecture_end_the_process(launcher):
    # getpid() with the numbers of x32.
    assert run(LIBC + "libc.syscall(0x40000027)",
               launcher) == -signal.SIGSYS


def test_every_line_of_the_unit_is_in_the_filter():
    lines = call_filter.read_lines(call_filter.UNIT)
    assert all(lines.values()), lines
    # Nothing that a line says is passed over because it says it otherwise.
    for key in ("RestrictNamespaces", "RestrictRealtime", "RestrictSUIDSGID",
                "LockPersonality", "MemoryDenyWriteExecute"):
        assert lines[key] == ["yes"]
