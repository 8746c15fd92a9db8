# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What is measured, and how. All times in microseconds."""

import contextlib
import json
import os
import signal
import subprocess
import sys
import time

import world
from world import Memory

sys.path.insert(0, os.path.join(world.PROJECT, "tests", "support"))
# pylint: disable=wrong-import-position
from daemon_process import NAME
from name_server import SILENCE, NameServer

# (size of the body, requests at a time): how many requests. A second's worth
# for most; --quick takes a tenth.
CASES = {
    ("200 B", 1): 2000, ("200 B", 16): 5000, ("200 B", 256): 5000,
    ("10 kB", 1): 1500, ("10 kB", 16): 4000,
    ("1 MB", 1): 60, ("1 MB", 16): 120,
}
# What is so much slower does as much in a fraction of the requests.
PYTHON_SHARE = 5
SPAWN_SHARE = 50

# Before the measured requests each caller sends so many that are not.
ROUNDS = 2

MANY_REQUESTS = 10_000
SPAWNED = 16

DEAD_REQUESTS = 16
HELD_REQUESTS = 2000


class Measurements:
    """Measures in a world; every result is a dictionary for JSON."""

    def __init__(self, here, program, quick):
        self._world = here
        self._program = program
        self._share = 10 if quick else 1
        self._idle_s = 3 if quick else 12
        self._echo = {size: here.start_echo(size) for size in here.bodies}
        here.start_cloud()
        self._proxy = here.start_proxy()
        self._python = here.start_python()

    def _count(self, count, least=20):
        return max(count // self._share, least)

    def _command(self, name, *arguments):
        return [os.path.join(self._world.programs, "bench", name),
                *map(str, arguments)]

    def _run(self, name, *arguments):
        command = self._command(name, *arguments)
        done = subprocess.run(command, capture_output=True, text=True,
                              timeout=120, check=False)
        if done.returncode != 0:
            raise RuntimeError("%s: %s" % (" ".join(command), done.stderr))
        return json.loads(done.stdout)

    @contextlib.contextmanager
    def _beside(self, name, *arguments):
        """Runs a load as long as the block; yields what it will have found."""
        found = {}
        process = subprocess.Popen(self._command(name, *arguments),
                                   stdout=subprocess.PIPE, text=True)
        try:
            yield found
        finally:
            process.send_signal(signal.SIGTERM)
            output, _ = process.communicate(timeout=60)
        found.update(json.loads(output))

    def _call(self, service, start, size, at_a_time, count):
        """Has a service on the bus redirect requests."""
        compact = len(self._world.bodies[size][1])
        return self._run("load", service, self._world.url(start, size),
                         compact, at_a_time, count, ROUNDS)

    def _get(self, start, size, at_a_time, count):
        """Sends requests without a bus."""
        sent = len(self._world.bodies[size][0])
        return self._run("http_client", self._world.url(start, size), sent,
                         at_a_time, count, ROUNDS)

    def cases(self):
        """Everybody at the same work, in turn."""
        results = {}
        with self._world.daemon(self._program):
            for (size, at_a_time), count in CASES.items():
                work = (size, at_a_time, self._count(count))
                found = {
                    "echo": self._call(self._echo[size], world.HTTP_1, *work),
                    "libcurl, HTTP/1.1": self._get(world.HTTP_1, *work),
                    "daemon, HTTP/1.1": self._call(NAME, world.HTTP_1, *work),
                    "libcurl, HTTP/2": self._get(world.HTTP_2, *work),
                    "daemon, HTTP/2": self._call(NAME, world.HTTP_2, *work),
                    "nginx as a proxy": self._get(world.PROXY, *work),
                }
                # With more its D-Bus library gives up (EAGAIN).
                if at_a_time <= 16:
                    found["Python daemon"] = self._call(
                        world.PYTHON, world.HTTP_1, size, at_a_time,
                        self._count(count // PYTHON_SHARE))
                if size == "200 B" and at_a_time <= 16:
                    found["curl spawned"] = self._run(
                        "spawn_client", self._world.url(world.HTTP_1, size),
                        len(self._world.bodies[size][0]), at_a_time,
                        self._count(count // SPAWN_SHARE, at_a_time))
                results["%s, %d at a time" % (size, at_a_time)] = found
            results["200 B, 1 at a time, on one processor"] = (
                self._on_one_processor())
        return results

    def _on_one_processor(self):
        """The smallest work, with all on one processor as on a small device."""
        work = ("200 B", 1, self._count(CASES["200 B", 1]))
        with world.one_processor():
            return {
                "echo": self._call(self._echo["200 B"], world.HTTP_1, *work),
                "libcurl, HTTP/1.1": self._get(world.HTTP_1, *work),
                "daemon, HTTP/1.1": self._call(NAME, world.HTTP_1, *work),
                "libcurl, HTTP/2": self._get(world.HTTP_2, *work),
                "daemon, HTTP/2": self._call(NAME, world.HTTP_2, *work),
            }

    def alternatives_memory(self):
        """What the others take of the memory after as many requests."""
        work = ("200 B", 16, MANY_REQUESTS)
        self._get(world.PROXY, *work)
        self._call(world.PYTHON, world.HTTP_1, *work)
        return {"nginx as a proxy": Memory(self._proxy.pid).as_dict(),
                "Python daemon": Memory(self._python.pid).as_dict(),
                "curl spawned": self._spawned_memory()}

    def _spawned_memory(self):
        """The most that as many took together of it, each with its request."""
        curls = [subprocess.Popen(
            ["/usr/bin/curl", "-sS", "--fail",
             "-H", "Authorization: Bearer " + world.TOKEN,
             world.HTTP_1 + world.HELD], stdout=subprocess.DEVNULL)
            for _ in range(SPAWNED)]
        most = 0
        # Looks again and again as long as they all wait for their answers.
        while all(curl.poll() is None for curl in curls):
            with contextlib.suppress(OSError, KeyError):
                most = max(most, sum(Memory(curl.pid).private_dirty
                                     for curl in curls))
        assert [curl.wait() for curl in curls] == [0] * SPAWNED
        return {"private_dirty_kib": most}

    def fresh_connections(self):
        """A new TLS connection for each request."""
        count = self._count(200)
        with self._world.daemon(self._program):
            results = {
                "echo": self._call(self._echo["200 B"], world.FRESH, "200 B",
                                   1, count),
                "libcurl": self._get(world.FRESH, "200 B", 1, count),
                "daemon": self._call(NAME, world.FRESH, "200 B", 1, count),
            }
            fresh_url = self._world.url(world.FRESH, "200 B")
            compact = len(self._world.bodies["200 B"][1])
            with self._beside("load", NAME, fresh_url, compact, 1, 0, 0):
                results["another caller"] = self._call(
                    NAME, world.HTTP_1, "200 B", 1, self._count(2000))
        return results

    def dead_name_server(self):
        """Requests to a host whose name server is silent, beside others."""
        server = NameServer(lambda _: SILENCE)
        try:
            with self._world.daemon(self._program) as daemon:
                load = subprocess.Popen(
                    self._command("load", NAME, world.DEAD, 0, DEAD_REQUESTS,
                                  0, 0), stderr=subprocess.DEVNULL)
                try:
                    server.wait_for(1)
                    caller = self._call(NAME, world.HTTP_1, "200 B", 1,
                                        self._count(3000))
                finally:
                    load.kill()
                    load.wait()
                daemon.stop()
                return {"another caller": caller,
                        "stop_us": daemon.seconds_to_end() * 1e6}
        finally:
            server.stop()

    def life(self):
        """Idle, then busy, then very busy: one daemon's use of the machine."""
        with self._world.daemon(self._program) as daemon:
            daemon.wait_until_at_rest()
            results = {"idle": Memory(daemon.pid).as_dict(),
                       "threads": len(daemon.threads())}
            self._call(NAME, world.HTTP_1, "200 B", 1, 20)
            daemon.wait_until_at_rest()
            before = world.switches(daemon.pid)
            time.sleep(self._idle_s)
            results["wakeups_a_minute"] = 60 / self._idle_s * (
                world.switches(daemon.pid) - before)
            self._call(NAME, world.HTTP_1, "200 B", 16, MANY_REQUESTS)
            daemon.wait_until_at_rest()
            results["after 10,000"] = Memory(daemon.pid).as_dict()
            held = world.HTTP_1 + world.HELD
            compact = len(world.HELD_BODY.replace(" ", ""))
            results["held, daemon"] = self._run(
                "load", NAME, held, compact, HELD_REQUESTS, HELD_REQUESTS, 0)
            daemon.wait_until_at_rest()
            results["after 2,000 held"] = Memory(daemon.pid).as_dict()
            results["held, libcurl"] = self._run(
                "http_client", held, len(world.HELD_BODY) + 1, HELD_REQUESTS,
                HELD_REQUESTS, 0)
        return results

    def starts(self):
        """From the start of the process until it owns its name."""
        count = self._count(20, 5)
        name = world.ECHO + "Started"
        body = self._world.body_file("200 B", "compact")
        return {
            "echo": self._run(
                "start_time", name, count,
                os.path.join(self._world.programs, "bench", "echo_service"),
                name, body),
            "daemon": self._run("start_time", NAME, count, self._program),
        }

    def stripped_size(self):
        stripped = os.path.join(world.FOLDER, "stripped")
        subprocess.run(["strip", "-o", stripped, self._program], check=True)
        return os.path.getsize(stripped)
