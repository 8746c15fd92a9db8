# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Name servers that say nothing, dawdle or lie do not hold the daemon up."""

import threading
import time

import dbus.bus
import pytest
from bus_client import BUS, BusClient, CallError
from conftest import ENDPOINT, Caller
from daemon_process import NAME, PATH, REFRESH_TOKEN
from memory_scan import sanitized
from name_server import NXDOMAIN, SILENCE, NameServer

DEAD = "https://dead-%d.vantrel.example/"
FLOOD = 300


@pytest.fixture
def names():
    """Starts a name server that ends with the test."""
    started = []

    def start(answer, options=""):
        started.append(NameServer(answer, options))
        return started[-1]
    yield start
    for one in started:
        one.stop()


@pytest.fixture
def flood(loop, bus):
    """Starts a request for each of many names that nobody knows.

    A bus lets one connection wait for 128 replies, hence several of them.
    """
    clients = [BusClient(loop, bus.address) for _ in range(FLOOD // 100)]

    def start():
        pending = []
        for number in range(FLOOD):
            one = Caller(clients[number % len(clients)])
            pending.append(one.start(DEAD % number))
            if number % 10 == 9:
                one.sync()  # Calls that queue up are another matter.
        return pending
    yield start
    for one in clients:
        one.close()


def refusal(caller, *arguments):
    """Calls, and returns the domain and code of the error."""
    with pytest.raises(CallError) as caught:
        caller.request(*arguments)
    return caught.value.message.partition(":")[0]


# How much longer a call may take than one to another program.
HELD_UP_S = 0.05


class Beat:
    """Calls a program without a break, and remembers the longest call.

    While the program's main thread wants to run and has to wait for a
    processor, the machine holds it up: that does not count.
    """

    def __init__(self, address, name, path):
        self._bus = dbus.bus.BusConnection(address)
        self._pid = self._bus.call_blocking(
            BUS, "/org/freedesktop/DBus", BUS, "GetConnectionUnixProcessID",
            "s", (name,))
        self._target = name, path
        self._stopping = False
        self.count = 0
        self.worst = 0
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stopping:
            begin = self._clock()
            self._bus.call_blocking(*self._target,
                                    "org.freedesktop.DBus.Peer", "Ping",
                                    "", ())
            self.worst = max(self.worst, self._clock() - begin)
            self.count += 1

    def _clock(self):
        with open("/proc/%d/schedstat" % self._pid, encoding="ascii") as file:
            return time.monotonic() - int(file.read().split()[1]) / 1e9

    def stop(self):
        self._stopping = True
        self._thread.join()
        self._bus.close()


@pytest.fixture
def heartbeat(bus, daemon):
    """Runs some work, which must not hold up the daemon's loop.

    Meanwhile it calls the daemon and, for comparison, the bus, which suffers
    as much from whatever else the machine does. If that was a lot, the
    measurement says little, and is taken again, twice at most.
    """
    def check(work):
        seen = []
        for _ in range(3):
            beats = [Beat(bus.address, NAME, PATH),
                     Beat(bus.address, BUS, "/org/freedesktop/DBus")]
            try:
                wait_for(lambda: all(beat.count for beat in beats), "a beat")
                work()
            finally:
                for beat in beats:
                    beat.stop()
            seen.append(tuple(beat.worst for beat in beats))
            print("worst beat of %d %.3f s, of the bus %.3f s" % (
                beats[0].count, *seen[-1]))
            own, others = seen[-1]
            if others < HELD_UP_S:
                break
        assert own <= others + HELD_UP_S, seen
    return check


def wait_for(condition, what, deadline_s=20):
    end = time.monotonic() + deadline_s
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError("waited %s s for %s" % (deadline_s, what))
        time.sleep(0.02)


def kilobytes(daemon, name):
    return int(daemon.status()[name].split()[0])


# The first is for the resolver's own defaults: 5 s, and then once more.
@pytest.mark.parametrize("answer, options", [
    (lambda question: SILENCE, ""),
    (lambda question: question.answer(0x8182), "timeout:2 attempts:5"),
], ids=["dead", "failing"])
def test_a_flood_of_names_that_cannot_be_found_holds_nothing_up(
        provision, cloud, caller, daemon, names, flood, heartbeat, answer,
        options):
    server = names(answer, options)
    provision(ENDPOINT, *(DEAD % n for n in range(FLOOD)))
    caller.request(ENDPOINT)

    def work():
        del server.queries[:]
        pending = flood()
        server.wait_for(FLOOD)
        # A request to a live server is answered meanwhile.
        assert caller.request(ENDPOINT)[0] == 200
        assert options or not any(one.done() for one in pending)
        for one in pending:
            with pytest.raises(CallError) as caught:
                one.result()
            assert caught.value.message.startswith("http/resolve: ")
    heartbeat(work)


def test_the_daemon_stops_at_once_while_many_names_are_looked_up(
        provision, daemon, names, flood, program):
    server = names(lambda question: SILENCE)
    provision(ENDPOINT, *(DEAD % n for n in range(FLOOD)))
    pending = flood()
    server.wait_for(FLOOD)
    assert not any(one.done() for one in pending)
    assert daemon.stop() == 0
    assert daemon.seconds_to_end() < (3 if sanitized(program) else 1)
    for one in pending:
        with pytest.raises(CallError) as caught:
            one.result()
        assert caught.value.name == "org.freedesktop.DBus.Error.NoReply"


def test_threads_and_memory_return_after_a_flood_of_dead_names(
        provision, cloud, caller, daemon, names, flood, program):
    server = names(lambda question: SILENCE, "timeout:1 attempts:1")
    provision(ENDPOINT, *(DEAD % n for n in range(FLOOD)))
    sizes = []
    for number in range(3):
        del server.queries[:]
        pending = flood()
        server.wait_for(FLOOD)
        for one in pending:
            with pytest.raises(CallError) as caught:
                one.result()
            assert caught.value.message.startswith("http/resolve: ")
        wait_for(lambda: len(daemon.threads()) == 1,
                 "the threads that look names up to end")
        assert caller.request(ENDPOINT)[0] == 200
        sizes.append(kilobytes(daemon, "VmRSS"))
    # The first flood may leave the allocator with more than before; those
    # after it must not.
    if not sanitized(program):
        assert sizes[2] < sizes[0] + 4096, sizes


def test_a_slow_name_server_holds_nothing_up(
        provision, cloud, caller, names, serve, heartbeat):
    host = "slow.vantrel.example"
    known = threading.Event()

    def answer(_):
        known.wait(20)
        return "127.0.0.66"
    server = names(answer)
    slow = serve(host, "127.0.0.66")
    provision(ENDPOINT, "https://%s/" % host)
    caller.request(ENDPOINT)

    def work():
        known.clear()
        asked = len(server.queries)
        pending = caller.start("https://%s/" % host)
        wait_for(lambda: len(server.queries) > asked, "the look-up")
        try:
            for _ in range(20):
                assert caller.request(ENDPOINT)[0] == 200
            assert not pending.done()
        finally:
            known.set()
        assert caller.result(pending) == (200, "{}")
    heartbeat(work)
    assert slow.requests


@pytest.mark.duration
def test_a_name_that_is_never_found_is_given_up_after_thirty_seconds(
        provision, cloud, caller, daemon, names):
    """The resolver would try for 50 seconds; what was begun ends with it."""
    server = names(lambda question: SILENCE, "timeout:25 attempts:2")
    provision(ENDPOINT, *(DEAD % n for n in range(20)))
    begin = time.monotonic()
    pending = [caller.start(DEAD % n) for n in range(20)]
    server.wait_for(20)
    for one in pending:
        with pytest.raises(CallError) as caught:
            one.result(60)
        assert caught.value.message.startswith("http/timeout: ")
    assert 29 < time.monotonic() - begin < 36
    assert caller.request(ENDPOINT)[0] == 200
    # Their threads are still there, and do not hold up the end.
    assert len(daemon.threads()) > 1
    assert daemon.stop() == 0
    assert daemon.seconds_to_end() < 1


def garbage(question):
    """All that is wrong in one way or the other."""
    good = question.answer(0x8180, ["127.0.0.66"])
    return {
        "nothing-there": NXDOMAIN,
        "no-address": question.answer(0x8180),
        "refused": question.answer(0x8185),
        "failed": question.answer(0x8182),
        "short": question.data[:7],
        "other-number": bytes([good[0] ^ 1]) + good[1:],
        "other-question": good.replace(b"vantrel", b"stray-x"),
        "no-question": good[:4] + b"\0\0\0\1\0\0\0\0" +
                       good[12 + len(question.question):],
        "many-promised": good[:6] + b"\xff\xff" + good[8:],
        "truncated": question.answer(0x8380, ["127.0.0.66"]),
        "a-loop": good[:12 + len(question.question)] + b"\xc0" + bytes(
            [12 + len(question.question)]) + b"\0\1\0\1\0\0\0\1\0\4\x7f\0\0B",
        "of-4000-bytes": good + b"\xff" * 4000,
        "0-0-0-0": "0.0.0.0", "everybody": "255.255.255.255",
        "a-group": "224.0.0.1", "far-away": "192.0.2.1",
    }[question.name.partition(".")[0]]


# Those that are as good as no answer at all come last; the resolver waits for
# a better one.
@pytest.mark.parametrize("name", [
    "nothing-there", "no-address", "refused", "failed", "many-promised",
    "truncated", "a-loop", "0-0-0-0", "everybody", "a-group", "far-away",
    "short", "other-number", "other-question", "no-question"])
def test_an_answer_that_is_no_use_is_an_error_of_the_http_layer(
        provision, cloud, caller, names, serve, name):
    names(garbage, "timeout:1 attempts:1")
    stranger = serve("stranger.example", "127.0.0.66")
    endpoint = "https://%s.vantrel.example/" % name
    provision(ENDPOINT, endpoint)
    assert refusal(caller, endpoint) in (
        "http/resolve", "http/connect", "http/tls")
    assert stranger.requests == []
    assert caller.request(ENDPOINT)[0] == 200


def test_a_name_that_was_not_found_is_asked_for_again(
        provision, caller, names, serve):
    host = "late.vantrel.example"
    found = []
    names(lambda question: "127.0.0.66" if found else NXDOMAIN)
    serve(host, "127.0.0.66")
    provision("https://%s/" % host)
    assert refusal(caller, "https://%s/" % host) == "http/resolve"
    found.append(True)
    assert caller.request("https://%s/" % host) == (200, "{}")


@pytest.mark.parametrize("answer", [SILENCE, NXDOMAIN],
                         ids=["silent", "without it"])
def test_a_token_endpoint_that_cannot_be_found_costs_no_credential(
        daemon, stored, names, files, caller, answer):
    with open("/etc/hosts", encoding="ascii") as file:
        hosts = file.read()
    try:
        with open("/etc/hosts", "w", encoding="ascii") as file:
            file.write("127.0.0.1 localhost\n")
        names(lambda question: answer, "timeout:1 attempts:1")
        token = stored()
        daemon.start()
        line = daemon.wait_for_log_like(
            "WARNING", "Error fetching access token: .+")
        assert "identity.vantrel.example" in line.text
        assert files.read(REFRESH_TOKEN) == token.encode()
        caller.sync()
    finally:
        with open("/etc/hosts", "w", encoding="ascii") as file:
            file.write(hosts)
