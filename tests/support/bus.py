#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A private message bus: dbus-daemon with a configuration of its own.

As a module: `with PrivateBus() as bus:` and then `bus.address`. As a program
it prints the address, once the bus answers there, and runs until it is ended.
"""

import argparse
import os
import select
import signal
import subprocess
import sys
import tempfile

DEFAULT_ADDRESS = "unix:path=/run/dbus/system_bus_socket"

CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>%s</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="false"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
</busconfig>
"""


class PrivateBus:
    """Owns one dbus-daemon. Clients find it at `address` once started."""

    def __init__(self, address=DEFAULT_ADDRESS):
        self._wanted = address
        self._folder = None
        self._process = None
        self.address = None

    def start(self, deadline_s=10):
        """Starts the bus and returns when it takes connections."""
        self._folder = tempfile.TemporaryDirectory(prefix="bus-")
        config = os.path.join(self._folder.name, "bus.conf")
        with open(config, "w", encoding="ascii") as file:
            file.write(CONFIGURATION % self._wanted)
        path = self._wanted.partition("path=")[2].partition(",")[0]
        if path and os.path.exists(path):
            os.unlink(path)  # Left behind by a bus that was killed.
        reader, writer = os.pipe()
        # Its messages are kept for the case that it does not start: as "root"
        # without capabilities it grumbles about a limit that is of no account.
        messages = os.path.join(self._folder.name, "stderr")
        try:
            with open(messages, "wb") as stderr:
                self._process = subprocess.Popen(
                    ["dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                     "--config-file=" + config,
                     "--print-address=%d" % writer],
                    pass_fds=[writer], stdin=subprocess.DEVNULL,
                    stderr=stderr)
        finally:
            os.close(writer)
        with os.fdopen(reader) as answer:
            # dbus-daemon writes its address when its sockets listen.
            if not select.select([answer], [], [], deadline_s)[0]:
                self.stop()
                raise TimeoutError("the bus did not print its address")
            self.address = answer.readline().strip()
        if not self.address:
            with open(messages, encoding="utf-8", errors="replace") as file:
                said = file.read().strip()
            self.stop()
            raise RuntimeError("the bus ended at once: " + said)
        return self

    def stop(self):
        """Ends the bus: every client loses its connection."""
        if self._process is not None:
            self._process.terminate()
            self._process.wait()
            self._process = None
        if self._folder is not None:
            self._folder.cleanup()
            self._folder = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--address", default=DEFAULT_ADDRESS,
                        help="where to listen (default: %(default)s)")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    try:
        with PrivateBus(options.address) as bus:
            print(bus.address, flush=True)
            signal.pause()
    except KeyboardInterrupt:
        pass
    except (OSError, RuntimeError) as error:
        print("bus: %s" % error, file=sys.stderr)
        return 69
    return 0


if __name__ == "__main__":
    sys.exit(main())
