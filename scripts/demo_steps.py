#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The part of scripts/demo that runs inside the sandbox.

Each step shows a command as a person would type it, what it printed, and what
the programs concerned said meanwhile; all of that is compared with what it
must be, word for word.
"""

import argparse
import os
import re
import select
import signal
import socket
import subprocess
import sys
import textwrap
import threading
import urllib.parse

PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, os.path.join(PROJECT, "tests", "support"))
from bus import PrivateBus  # pylint: disable=wrong-import-position

DAEMON = "build/release/bin/cloud_action_daemon"
CLIENT_ID = "access-point"
CLIENT_SECRET = "client-secret-of-the-demo"
SCOPE = "cloud.actions"
CODE = "one-time-code-of-the-owner"
NOTIFY_SOCKET = "/run/demo-notify"
DEADLINE_S = 20
WIDTH = 98

API = "https://cloud.vantrel.example/v1/"
ELSEWHERE = "https://other.vantrel.example/v1/lamps"
PYTHON_CALLER = "examples/redirect_request.py"


def request(endpoint, method, body="''"):
    """A call of the daemon, as typed."""
    return ("busctl --timeout=45 call org.vantrel.actions.CloudActions \\\n"
            "  /org/vantrel/actions/CloudActions/Manager \\\n"
            "  org.vantrel.actions.CloudActions.Manager RedirectRequest sss \\\n"
            "  %s %s %s" % (endpoint, method, body))


def agent_call(method, more=""):
    """A call of the agent, as typed."""
    return ("busctl call org.vantrel.Dosset /org/vantrel/Dosset/Manager \\\n"
            "  org.vantrel.Dosset.Manager %s%s" % (method, more))


SET = agent_call("AddCommand", """ s '{
    "name": "_cloudActionConfiguration._setCredential",
    "parameters": {"_authorizationCode": "%s",
                   "_allowedEndpoints": ["%s"]}}'""" % (CODE, API))
REMOVE = agent_call("AddCommand", """ s '{
    "name": "_cloudActionConfiguration._removeCredential"}'""")
GET_STATE = agent_call("GetState")
GET = request(API + "lamps", "GET")
REVOKE = "curl -sS -d token=all https://identity.vantrel.example/o/oauth2/revoke"

HINT = """
Everything is up, and the device holds no credential. Lines to paste:

# Give the device a credential, as the owner would through the cloud:
%s

# Send requests:
%s
%s %sscene POST '{"name": "evening"}'

# Make every access token invalid: the next request gets 401, and the daemon a new
# token (but it asks for one at most every 30 seconds):
%s

# Ask the agent for the published state; take the credential away:
%s
%s

What the programs say comes in between. End the shell (Ctrl-D) to end it all.
""" % (SET, GET, PYTHON_CALLER, API, REVOKE, GET_STATE, REMOVE)


class Failure(Exception):
    """Something went otherwise than it must."""


class Screen:
    """What the person at the terminal reads."""

    def __init__(self):
        self._is_terminal = sys.stdout.isatty()
        self.step = "bringing up the sandbox"
        self._steps = 0

    def _styled(self, text, code):
        return "\033[%sm%s\033[0m" % (code, text) if self._is_terminal else text

    def heading(self, title):
        self._steps += 1
        self.step = "step %d, %s" % (self._steps, title)
        print("\n" + self._styled("== %d. %s" % (self._steps, title), "1"))

    def command(self, text):
        print("\n" + self._styled(textwrap.indent("$ " + text, "  "), "36"))

    def output(self, text):
        self._wrapped(text, "  ")

    def said(self, who, text):
        self._wrapped(text, "  %-8s | " % who, "  %-8s | " % "")

    def _wrapped(self, text, first, more="  "):
        """One line, or several if it is too long."""
        pieces = textwrap.wrap(text, WIDTH - len(more), break_long_words=False,
                               break_on_hyphens=False,
                               subsequent_indent="    ") or [""]
        print(self._styled(first, "2") + pieces[0])
        for piece in pieces[1:]:
            print(self._styled(more, "2") + piece)

    def meaning(self, text):
        print()
        for line in textwrap.wrap(text, WIDTH, initial_indent="  => ",
                                  subsequent_indent="     ",
                                  break_on_hyphens=False):
            print(self._styled(line, "32"))
        sys.stdout.flush()

    def plain(self, text):
        print(text, flush=True)


class Chorus:
    """Collects what the programs print, by who says it."""

    # Calls that the commands of the demo itself make.
    _OUR_OWN = re.compile(r"Manager\.(AddCommand|GetState) on .*")

    def __init__(self):
        self._changed = threading.Condition()
        self._lines = {}
        self._live = None
        self._threads = []

    def listen(self, stream, default):
        """Reads `stream`; lines "name: text" are `name`'s, if it is known."""
        with self._changed:
            self._lines.setdefault(default, [])
        thread = threading.Thread(target=self._read, args=(stream, default),
                                  daemon=True)
        thread.start()
        self._threads.append(thread)

    def _read(self, stream, default):
        for line in stream:
            name, _, text = line.rstrip("\n").partition(": ")
            if name not in ("agent", "identity", "cloud"):
                name, text = default, line.rstrip("\n")
            if name == "agent" and self._OUR_OWN.fullmatch(text):
                continue
            with self._changed:
                if self._live:
                    self._live(name, text)
                else:
                    self._lines.setdefault(name, []).append(text)
                    self._changed.notify_all()

    def take(self, name, count):
        """The next `count` lines of `name`; fewer if no more came in time."""
        with self._changed:
            self._changed.wait_for(
                lambda: len(self._lines.get(name, [])) >= count, DEADLINE_S)
            lines = self._lines.setdefault(name, [])
            taken, self._lines[name] = lines[:count], lines[count:]
            return taken

    def skip_to(self, name, last):
        """Passes over the lines of `name` up to the first `last`."""
        with self._changed:
            if not self._changed.wait_for(
                    lambda: last in self._lines.get(name, []), DEADLINE_S):
                raise Failure("%s did not say: %s" % (name, last))
            lines = self._lines[name]
            self._lines[name] = lines[lines.index(last) + 1:]

    def said_so_far(self, name):
        """What `name` has said and nobody has taken."""
        with self._changed:
            return list(self._lines.get(name, []))

    def rest(self):
        """[(who, line)] of what nobody has taken."""
        with self._changed:
            return [(name, line) for name, lines in self._lines.items()
                    for line in lines]

    def join(self):
        """Waits until all programs are silent for good."""
        for thread in self._threads:
            thread.join(DEADLINE_S)

    def go_live(self, show):
        """From now on hands each line to `show` at once."""
        with self._changed:
            self._live = show


class World:
    """The programs in the sandbox, and what is expected of them."""

    def __init__(self, screen, program):
        self.screen = screen
        self.chorus = Chorus()
        self._bus = PrivateBus()
        self._peers = []
        self._daemon = None
        self._program = program

    def bring_up(self):
        """Starts everything but the daemon."""
        os.makedirs("/etc/ap", exist_ok=True)
        with open("/etc/ap/cloud_action.conf", "w", encoding="ascii") as file:
            file.write("SMARTHOME_CLIENT_ID=%s\n"
                       "SMARTHOME_CLIENT_SECRET=%s\n"
                       "SMARTHOME_SCOPE=%s\n" % (
                           CLIENT_ID, CLIENT_SECRET, SCOPE))
        self._bus.start()
        self._peers = [self._start("cloud", "tests/fakes/cloud.py"),
                       self._start("agent", "tests/fakes/agent.py")]
        self._compare("identity", ["serving https://identity.vantrel.example"])
        self._compare("cloud", ["serving https://cloud.vantrel.example"])
        self._compare("agent", ["on the bus as org.vantrel.Dosset"])

    def _start(self, name, program, **environment):
        process = subprocess.Popen(
            [program], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, errors="backslashreplace",
            env={**os.environ, **environment})
        self.chorus.listen(process.stdout, name)
        return process

    def start_daemon(self):
        """Starts the daemon and returns when it says that it is ready."""
        self.screen.command(self._program + " &")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
            notify.bind(NOTIFY_SOCKET)
            self._daemon = self._start("daemon", self._program,
                                       NOTIFY_SOCKET=NOTIFY_SOCKET)
            # Readable once the process has ended.
            ended = os.pidfd_open(self._daemon.pid)
            ready = select.select([notify, ended], [], [], DEADLINE_S)[0]
            state = notify.recv(4096) if notify in ready else b""
            os.close(ended)
        os.unlink(NOTIFY_SOCKET)
        if state != b"READY=1":
            raise Failure("the daemon did not become ready; it said\n  %s" %
                          "\n  ".join(self.chorus.said_so_far("daemon")))

    def stop_daemon(self):
        """Ends the daemon as an init system does."""
        self.run("kill -TERM $(pidof cloud_action_daemon)", [])
        code = self._daemon.wait(DEADLINE_S)
        self.screen.output("[exit code %d]" % code)
        if code != 0:
            raise Failure("the daemon ended with %d instead of 0" % code)

    def run(self, command, expected, code=0):
        """Runs and shows a command that must print `expected`, a list."""
        self.screen.command(command)
        done = subprocess.run(
            ["bash", "-c", command], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            timeout=DEADLINE_S, check=False)
        lines = done.stdout.splitlines()
        for line in lines:
            self.screen.output(line)
        if lines != expected or done.returncode != code:
            raise Failure("the command should have ended with %d and printed"
                          "\n  %s\nit ended with %d and printed\n  %s" % (
                              code, "\n  ".join(expected), done.returncode,
                              "\n  ".join(lines)))

    def hear(self, name, expected):
        """Waits for and shows what `name` must say next."""
        for line in self._compare(name, expected):
            self.screen.said(name, line)

    def _compare(self, name, expected):
        lines = self.chorus.take(name, len(expected))
        if lines != expected:
            raise Failure("%s should have said\n  %s\nit said\n  %s" % (
                name, "\n  ".join(expected), "\n  ".join(lines) or "nothing"))
        return lines

    def settle(self):
        """Returns when the daemon is through with what it had begun."""
        subprocess.run(
            ["busctl", "call", "org.vantrel.actions.CloudActions", "/",
             "org.freedesktop.DBus.Peer", "Ping"], timeout=DEADLINE_S,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, check=True)

    def take_down(self):
        """Ends every program that runs; nothing happens the second time."""
        if self._daemon and self._daemon.poll() is None:
            self._daemon.terminate()
        for process in self._peers:
            process.terminate()
            process.wait(DEADLINE_S)
        self._peers = []
        self._bus.stop()

    def expect_silence(self):
        """After the end, nobody may have said more than was shown."""
        self.chorus.join()
        if self.chorus.rest():
            raise Failure("more was said than was shown:\n  %s" % "\n  ".join(
                "%s: %s" % pair for pair in self.chorus.rest()))

    def shell(self):
        """Hands the terminal over until the shell ends."""
        self.screen.plain(HINT)

        def show(name, text):
            sys.stdout.write("\r\033[K")
            self.screen.said(name, text)
            sys.stdout.flush()
        self.chorus.go_live(show)
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        subprocess.run(
            ["bash", "--norc", "-i"], check=False,
            env={**os.environ, "PS1": "demo# "},
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))


# What the peers see of the daemon.

AGENT_MANAGER = "on /org/vantrel/Dosset/Manager"
AGENT_COMMAND = "on /org/vantrel/Dosset/commands/"


def published(provisioned):
    """The agent's line for the daemon's state."""
    return ('Manager.UpdateState %s (a{sv}) '
            '{"_cloudActionConfiguration._credential": '
            '<a{sv} {"_provisioned": <b %s>}>}' % (AGENT_MANAGER, provisioned))


def completed(number):
    """The agent's line for a command that is done."""
    return "Command.Complete %s%d (a{sv}) {}" % (AGENT_COMMAND, number)


def seen_by_cloud(method, path, status, body=None):
    """The cloud's lines for one request of the daemon."""
    lines = ["%s %s HTTP/2" % (method, path),
             "  :authority: cloud.vantrel.example",
             "  authorization: Bearer demo-access-...(16 more)",
             "  content-type: application/json"]
    if body is not None:
        lines += ["  content-length: %d" % len(body), "  " + body]
    return lines + ["-> %d" % status]


def seen_by_identity(**form):
    """The identity provider's lines for one grant with these fields."""
    lines = ["POST /o/oauth2/token HTTP/1.1",
             "  Host: identity.vantrel.example",
             "  Content-Type: application/x-www-form-urlencoded",
             "  Content-Length: %d" % len(urllib.parse.urlencode(form))]
    for name, value in form.items():
        if name in ("code", "client_secret", "refresh_token"):
            value = "%s...(%d more)" % (value[:12], len(value) - 12)
        lines.append("  [%s = %s]" % (name, value))
    return lines + ["-> 200"]


# The steps.

def start(world):
    world.screen.heading("The start without a credential")
    world.start_daemon()
    world.hear("daemon", ["[ERROR] Failed to read file: "
                          "/var/lib/cloud_action/allowed_endpoints"])
    world.hear("agent", [published("false")])
    world.screen.meaning(
        "No endpoint is allowed yet: that is worth a line in the log and is "
        "survived. The agent is told that there is no credential.")


def refuse_without_credential(world):
    refusal = ("actions/invalid_arguments: Endpoint %slamps not whitelisted"
               % API)
    world.screen.heading("A request is refused")
    world.run(GET, ["Call failed: " + refusal], code=1)
    world.run("%s %slamps GET" % (PYTHON_CALLER, API),
              ["org.freedesktop.DBus.Error.Failed: " + refusal], code=1)
    world.screen.meaning(
        "Nothing was sent. The caller gets a D-Bus error; busctl shows its "
        "text, the Python caller also its name.")


def set_credential(world):
    world.screen.heading("The owner gives the device a credential")
    world.run(SET, ['s "1"'])
    world.hear("daemon", ["[INFO] HandleSetCredential",
                          "[INFO] Fetching refresh token",
                          "[INFO] Successfully fetched refresh token: 200"])
    world.hear("identity", seen_by_identity(
        code=CODE, client_id=CLIENT_ID, client_secret=CLIENT_SECRET,
        redirect_uri="oob", scope=SCOPE, grant_type="authorization_code"))
    world.hear("agent", [published("true"), completed(1)])
    # The daemon writes the token after it has told the agent.
    world.settle()
    world.run(GET_STATE,
              ['s "{\\"_cloudActionConfiguration._credential\\": '
               '{\\"_provisioned\\": true}}"'])
    world.run("stat -c '%A %n' /var/lib/cloud_action/*",
              ["-rw------- /var/lib/cloud_action/allowed_endpoints",
               "-rw------- /var/lib/cloud_action/refresh_token"])
    world.screen.meaning(
        "The agent delivered the set command. The daemon exchanged the code "
        "for a refresh token, kept it, published its state and completed the "
        "command. No secret is in the log.")


def get(world):
    world.screen.heading("A GET with the owner's authority")
    world.run(GET, [r'is 200 "{\"method\":\"GET\",\"path\":\"/v1/lamps\"}"'])
    world.hear("cloud", seen_by_cloud("GET", "/v1/lamps", 200))
    world.screen.meaning(
        "The cloud saw the bearer token (cut short here); the caller never "
        "did. It got the status code and the cloud's JSON object, which says "
        "what the cloud saw.")


def post(world):
    world.screen.heading("A POST from a Python program")
    world.run("""%s %sscene POST '{ "name": "evening" }'"""
              % (PYTHON_CALLER, API),
              ['200 {"method":"POST","path":"/v1/scene",'
               '"body":{"name":"evening"}}'])
    world.hear("cloud", seen_by_cloud("POST", "/v1/scene", 200,
                                      '{"name":"evening"}'))
    world.screen.meaning(
        "The body was checked to be JSON and sent in compact form.")


def refuse_elsewhere(world):
    world.screen.heading("An endpoint outside the owner's list is refused")
    for endpoint in (ELSEWHERE, "https://cloud.vantrel.example/v2/lamps"):
        world.run(request(endpoint, "GET"),
                  ["Call failed: actions/invalid_arguments: Endpoint %s not "
                   "whitelisted" % endpoint], code=1)
    world.screen.meaning(
        "Another host and another path: the token goes to neither.")


def recover(world):
    world.screen.heading("The access token becomes invalid, and is replaced")
    world.run(REVOKE, ["{}"])
    # How curl words its request is of no interest here.
    world.chorus.skip_to("identity", "-> 200")
    world.run(GET, [r'is 401 "{\"error\":\"invalid_token\"}"'])
    world.hear("cloud", seen_by_cloud("GET", "/v1/lamps", 401))
    world.hear("daemon", [
        "[INFO] Access token invalidated",
        "[INFO] Refreshing access token.",
        "[INFO:platform/actions/cloud-actions/cloud_action_manager(354)] "
        "Access token invalidated",
        "[INFO] Successfully fetched access token: 200"])
    # Of the refresh token only the beginning and the length are known.
    world.hear("identity", seen_by_identity(
        refresh_token="demo-refresh-%016d" % 0, client_id=CLIENT_ID,
        client_secret=CLIENT_SECRET, grant_type="refresh_token"))
    # The reply was logged before it was taken in.
    world.settle()
    world.run(GET, [r'is 200 "{\"method\":\"GET\",\"path\":\"/v1/lamps\"}"'])
    world.hear("cloud", seen_by_cloud("GET", "/v1/lamps", 200))
    world.screen.meaning(
        "The caller sees the 401 as it came. The daemon drops the token and "
        "gets a new one by itself: the next try works.")


def remove_credential(world):
    world.screen.heading("The owner takes the credential away")
    world.run(REMOVE, ['s "2"'])
    world.hear("daemon", ["[INFO] HandleRemoveCredential"])
    world.hear("agent", [published("false"), completed(2)])
    world.run("ls -A /var/lib/cloud_action", [])
    world.run(GET, ["Call failed: actions/invalid_arguments: Endpoint "
                    "%slamps not whitelisted" % API], code=1)
    world.screen.meaning(
        "Token and list are deleted, the agent knows, and requests are refused "
        "as at the start.")


def stop(world):
    world.screen.heading("A clean stop")
    world.stop_daemon()
    world.take_down()
    world.expect_silence()
    world.screen.meaning("SIGTERM or SIGINT ends the daemon with 0. Nobody has "
                         "said more than was shown.")


def demonstrate(world, stay):
    world.screen.plain(
        "\nIn a sandbox: a private bus, a device cloud agent, an identity "
        "provider and a cloud (HTTPS,\nwith an authority of their own). "
        "\"daemon | ...\" is what the daemon logs, \"cloud | ...\" what\nthe "
        "cloud sees, and so on.")
    world.bring_up()
    for step in (start, refuse_without_credential, set_credential, get, post,
                 refuse_elsewhere, recover, remove_credential):
        step(world)
    if stay:
        world.shell()
        return
    stop(world)
    world.screen.plain("\nEvery step went as shown.")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--stay", action="store_true",
                        help="open a shell before everything ends")
    parser.add_argument("--daemon", metavar="PATH", default=DAEMON,
                        help="the daemon to show (default: %(default)s)")
    options = parser.parse_args()
    os.chdir(PROJECT)
    screen = Screen()
    world = World(screen, options.daemon)
    try:
        demonstrate(world, options.stay)
    except KeyboardInterrupt:
        return 130
    except (Failure, OSError, RuntimeError, subprocess.SubprocessError) as error:
        sys.stdout.flush()
        print("\ndemo: %s, failed: %s" % (screen.step, error), file=sys.stderr)
        return 1
    finally:
        world.take_down()
    return 0


if __name__ == "__main__":
    sys.exit(main())
