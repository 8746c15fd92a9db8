# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Start, stop and exit codes."""

import os
import signal
import subprocess
import time

import pytest
from bus_client import CallError
from cloud import Reply, hang
from conftest import ENDPOINT, secret
from daemon_process import NAME, STATE

NOWHERE = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/nothing/here"}


def run(program, *arguments):
    return subprocess.run([program, *arguments], env={**os.environ, **NOWHERE},
                          capture_output=True, text=True, timeout=20,
                          check=False)


@pytest.mark.parametrize("flag", ["--help", "-h"])
def test_help_shows_description_and_flags_and_exits_with_0(program, flag):
    done = run(program, flag)
    assert done.returncode == 0
    assert "Cloud Action Daemon" in done.stdout
    assert "--help" in done.stdout
    assert done.stderr == ""


@pytest.mark.parametrize("argument", ["--nonsense", "-x", "--help=yes", "-",
                                      "something", ""])
def test_an_unknown_argument_gets_a_clear_message_and_exit_code_64(
        program, argument):
    done = run(program, argument)
    assert done.returncode == 64
    assert done.stdout == ""
    (line,) = done.stderr.splitlines()
    assert "'%s'" % argument in line
    assert "--help" in line


def test_without_a_bus_it_says_so_and_exits_with_69(daemon):
    daemon.start(environment=NOWHERE, wait=False)
    assert daemon.wait_for_exit() == 69
    (line,) = daemon.log()
    assert line.startswith("ERROR ")
    assert "bus" in line and "No such file or directory" in line


def test_with_its_name_taken_it_says_so_and_exits_with_69(daemon, client):
    client.request_name(NAME)
    daemon.start(wait=False)
    assert daemon.wait_for_exit() == 69
    lines = daemon.log("ERROR")
    assert len([line for line in lines if NAME in line]) == 1


def test_a_bus_that_goes_away_ends_it_with_69(daemon, bus):
    daemon.start()
    bus.stop()
    assert daemon.wait_for_exit(bus_gone=True) == 69
    assert daemon.log()[-1].startswith("ERROR ")
    assert "bus" in daemon.log()[-1]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT,
                                    signal.SIGHUP])
def test_a_termination_signal_ends_it_with_0(daemon, number):
    daemon.start()
    assert daemon.stop(number) == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.duration
def test_requests_in_flight_do_not_hold_up_the_end(
        daemon, provision, cloud, caller, client, number):
    provision()
    owner = client.owner(NAME)
    cloud.replies.extend([hang(), hang(), hang()])
    pending = [caller.start(ENDPOINT + str(i)) for i in range(3)]
    cloud.wait_for(3)
    assert daemon.stop(number) == 0
    assert daemon.seconds_to_end() < 1
    for one in pending:
        with pytest.raises(CallError) as caught:
            one.result()
        assert caught.value.name == "org.freedesktop.DBus.Error.NoReply"
        # Not the bus's own words about a peer that has gone.
        assert one.message.get_sender() == owner


@pytest.mark.duration
def test_a_tls_handshake_in_flight_does_not_hold_up_the_end(
        daemon, provision, cloud, caller):
    provision()
    cloud.handshake = "stall"
    caller.start(ENDPOINT)
    cloud.wait_for_connections(1)
    assert daemon.stop() == 0
    assert daemon.seconds_to_end() < 1


@pytest.mark.duration
def test_an_access_token_refresh_in_flight_does_not_hold_up_the_end(
        daemon, stored, identity):
    stored()
    identity.replies.append(hang())
    daemon.start()
    identity.wait_for(1)
    assert daemon.stop() == 0
    assert daemon.seconds_to_end() < 1


@pytest.mark.duration
def test_a_code_exchange_in_flight_does_not_hold_up_the_end(
        daemon, agent, identity):
    agent.appear()
    identity.replies.append(hang())
    daemon.start()
    path = agent.set_credential(secret("code"), [ENDPOINT])
    identity.wait_for(1)
    assert daemon.stop() == 0
    assert daemon.seconds_to_end() < 1
    assert agent.calls(path) == []


def test_it_starts_and_answers_without_the_agent(daemon, caller):
    daemon.start()
    with pytest.raises(CallError) as caught:
        caller.request(ENDPOINT)
    assert caught.value.message == (
        "actions/invalid_arguments: Endpoint %s not whitelisted" % ENDPOINT)


def test_it_runs_without_a_system_logger(daemon, caller):
    daemon.expect_no_syslog()
    daemon.start()
    caller.sync()
    assert daemon.log("ERROR") == [
        "ERROR Failed to read file: /var/lib/cloud_action/allowed_endpoints"]


def test_stopping_writes_nothing(daemon, provision):
    provision()
    before = {name: os.stat(os.path.join(STATE, name))
              for name in os.listdir(STATE)}
    assert daemon.stop() == 0
    after = {name: os.stat(os.path.join(STATE, name))
             for name in os.listdir(STATE)}
    assert {n: (s.st_ino, s.st_mtime_ns) for n, s in before.items()} == {
        n: (s.st_ino, s.st_mtime_ns) for n, s in after.items()}


def test_it_has_one_thread(daemon, provision, cloud, caller):
    provision()
    assert daemon.threads() == [str(daemon.pid)]
    cloud.replies.append(Reply())
    assert caller.request(ENDPOINT) == (200, "{}")
    assert daemon.threads() == [str(daemon.pid)]


@pytest.mark.duration
def test_an_idle_daemon_never_wakes_up(daemon, provision, agent, cloud, caller):
    agent.appear()
    provision()
    agent.wait_for_call("UpdateState")
    # Kept connections must not cause wake-ups either.
    cloud.replies.append(Reply())
    caller.request(ENDPOINT)
    caller.sync()

    def wakeups():
        status = daemon.status()
        return (int(status["voluntary_ctxt_switches"]),
                int(status["nonvoluntary_ctxt_switches"]))

    # The last reply is out before the daemon has gone back to sleep.
    daemon.wait_until_asleep()
    before = wakeups()
    timers = daemon.timers()
    assert timers  # It has one for its tasks, or this would show nothing.
    assert set(timers) == {(0, 0)}
    time.sleep(6)  # The rule is about a stretch of quiet.
    assert wakeups() == before
