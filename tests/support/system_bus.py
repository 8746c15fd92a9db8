# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A system bus with the distribution's configuration: who may do what is left
to the files in /etc/dbus-1/system.d.

There are two programs that can be it: dbus-daemon and dbus-broker. To be run
inside the sandbox with --users; the user messagebus must be there.
"""

import os
import re
import socket
import subprocess
import tempfile
import threading

DISTRIBUTION = "/usr/share/dbus-1/system.conf"
SOCKET = "/run/dbus/system_bus_socket"
ADDRESS = "unix:path=" + SOCKET
JOURNAL = "/run/systemd/journal/socket"

DEADLINE_S = 20

KINDS = ("dbus-daemon", "dbus-broker")

# Where other packages put their policies and services. What those allow is
# not our affair.
OTHERS = r"<includedir>system\.d</includedir>|<standard_system_servicedirs/>"


class SystemBus:
    """Owns one bus of the given kind.

    `more` is policy that comes before that of the files.
    """

    def __init__(self, kind, more=""):
        self._folder = tempfile.TemporaryDirectory(prefix="system-bus-")
        config = os.path.join(self._folder.name, "system.conf")
        os.chmod(self._folder.name, 0o755)
        with open(DISTRIBUTION, encoding="utf-8") as file:
            text, count = re.subn(OTHERS, more, file.read())
        assert count == 2, DISTRIBUTION + " has another form"
        with open(config, "w", encoding="utf-8") as file:
            file.write(text)
        self._journal = None
        with open(os.path.join(self._folder.name, "log"), "wb") as log:
            self._process = (self._start_daemon if kind == "dbus-daemon"
                             else self._start_broker)(config, log)

    @staticmethod
    def _start_daemon(config, log):
        reader, writer = os.pipe()
        process = subprocess.Popen(
            ["dbus-daemon", "--config-file=" + config, "--nofork",
             "--nopidfile", "--nosyslog", "--print-address=%d" % writer],
            pass_fds=[writer], stdin=subprocess.DEVNULL, stdout=log,
            stderr=log)
        os.close(writer)
        with os.fdopen(reader) as answer:
            assert answer.readline(), "dbus-daemon did not start"
        return process

    def _start_broker(self, config, log):
        # It wants its socket from the init system, and to be heard.
        os.makedirs(os.path.dirname(JOURNAL), exist_ok=True)
        for path in (JOURNAL, SOCKET):
            if os.path.exists(path):
                os.unlink(path)
        self._journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._journal.bind(JOURNAL)
        # Nobody can log to a socket that is full.
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        ready = os.path.join(self._folder.name, "ready")
        with socket.socket(socket.AF_UNIX) as listener, \
                socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notified:
            notified.bind(ready)
            notified.settimeout(DEADLINE_S)
            listener.bind(SOCKET)
            os.chmod(SOCKET, 0o666)
            listener.listen(128)
            # The shell keeps its process ID, which must be told, and hands
            # the socket on as descriptor 3.
            process = subprocess.Popen(
                ["bash", "-c", "LISTEN_FDS=1 LISTEN_PID=$$ exec "
                 "dbus-broker-launch --scope system --config-file \"$0\" "
                 "3<&%d" % listener.fileno(), config],
                pass_fds=[listener.fileno()], stdin=subprocess.DEVNULL,
                stdout=log, stderr=log,
                env={**os.environ, "NOTIFY_SOCKET": ready})
            try:
                assert notified.recv(4096) == b"READY=1"
            except TimeoutError:
                process.kill()
                process.wait()
                with open(log.name, encoding="utf-8") as said:
                    raise TimeoutError("dbus-broker did not start: "
                                       + said.read()) from None
            return process

    def _read(self):
        while self._journal.recv(1 << 16):
            pass

    def stop(self):
        self._process.terminate()
        self._process.wait()
        if self._journal:
            # The thread reads nothing then, and takes it for the end.
            self._journal.shutdown(socket.SHUT_RD)
            self._reader.join()
            self._journal.close()
        self._folder.cleanup()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()
