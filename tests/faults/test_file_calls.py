# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What exactly comes of each failure while the two files are changed."""

import os
import signal

import pytest
from daemon_process import STATE
from injection import COUNT, NEW_ENDPOINT, OLD_ENDPOINT, system_call_names
from scenarios import Refusal, RemoveCommand, SetCommand
from test_kill import step
from test_system_calls import NOTHING, ONE_BYTE, fail

NOT_WRITTEN = "[ERROR] Failed to write allowed endpoints to file: "
REASONS = {"EACCES": "Permission denied", "EIO": "Input/output error",
           "EMFILE": "Too many open files", "EPERM": "Operation not permitted",
           "ENOSPC": "No space left on device", "0": "Input/output error"}

# For each call the position among its kind of those whose failure is one to
# write: first for the endpoints, then for the token. The other calls to sync
# are for the folder, when the new file is in place already.
WRITES = [("create", (1, 2), ["EACCES", "EMFILE", "ENOSPC"]),
          ("fchmod", (1, 2), ["EPERM"]),
          ("write", (1, 2), ["ENOSPC", "EIO"]),
          ("fsync", (1, 3), ["EIO", "ENOSPC"]),
          ("rename", (1, 2), ["EACCES", "EIO"])]


@pytest.fixture(scope="module")
def opened(world, control, stepper):
    """The positions of the calls that create a file, and open a folder."""
    performed, run = step(world, control, stepper, SetCommand, COUNT)
    assert run.stop() == 0
    performed.clean_up()
    calls = [call for call in control.records()
             if system_call_names()[call.number] == "openat"]
    return {kind: [position for position, call in enumerate(calls, 1)
                   if call.arguments[2] & flag]
            for kind, flag in (("create", os.O_CREAT),
                               ("folder", os.O_DIRECTORY))}


@pytest.fixture
def fails(world, control, stepper, opened):
    """Has one call fail in a scenario: (the scenario, the run)."""
    def one(scenario, name, occurrence, fault):
        if name in opened:
            name, occurrence = "openat", opened[name][occurrence - 1]
        (number,) = [n for n, known in system_call_names().items()
                     if known == name]
        _, mode, value, second = fault
        performed, run = step(world, control, stepper, scenario, mode, number,
                              occurrence, value, second, 0)
        assert control.hit
        performed.clean_up()
        assert sorted(os.listdir(STATE)) == [
            name for name, content in zip(
                ("allowed_endpoints", "refresh_token"),
                reversed(world.state())) if content is not None]
        return performed, run
    return one


def ends(world, performed):
    """How the agent was told of the end of the command."""
    return [call.member for call in world.agent.calls(performed.path)]


def serves(world, run, endpoint):
    """It goes on with the new credential, and starts with what is stored."""
    assert world.request(endpoint) == "200"
    assert run.stop() == 0
    world.check_restart()


@pytest.mark.parametrize("name, occurrence, error", [
    (name, places[0], error) for name, places, errors in WRITES
    for error in errors])
def test_endpoints_that_cannot_be_written_are_told_and_serve(
        world, fails, name, occurrence, error):
    performed, run = fails(SetCommand, name, occurrence, fail(error))
    assert run.lines()[-1] == NOT_WRITTEN + REASONS[error]
    assert ends(world, performed) == ["Complete"]
    assert world.state() == (performed.new_token(), OLD_ENDPOINT)
    serves(world, run, NEW_ENDPOINT)


def test_endpoints_of_which_no_byte_is_taken_are_told_and_serve(world, fails):
    performed, run = fails(SetCommand, "write", 1, NOTHING)
    assert run.lines()[-1] == NOT_WRITTEN + REASONS["0"]
    assert ends(world, performed) == ["Complete"]
    assert world.state() == (performed.new_token(), OLD_ENDPOINT)
    serves(world, run, NEW_ENDPOINT)


@pytest.mark.parametrize("name, occurrence, error", [
    (name, places[1], error) for name, places, errors in WRITES
    for error in errors])
def test_intended_a_token_that_cannot_be_written_serves_without_a_word(
        world, fails, name, occurrence, error):
    performed, run = fails(SetCommand, name, occurrence, fail(error))
    assert "[ERROR]" not in run.text()
    assert ends(world, performed) == ["Complete"]
    assert world.state() == (performed.token, NEW_ENDPOINT)
    serves(world, run, NEW_ENDPOINT)


def test_intended_a_token_of_which_no_byte_is_taken_is_fatal(world, fails):
    performed, run = fails(SetCommand, "write", 2, NOTHING)
    assert run.wait_for_exit() == -signal.SIGABRT
    assert run.lines()[-1] == (
        "[FATAL] Check failed: base::WriteFile(refresh_token_file_, "
        "refresh_token_.data(), refresh_token_.length()). "
        "Unable to save refresh token")
    assert ends(world, performed) == ["Complete"]
    assert world.state() == (performed.token, NEW_ENDPOINT)
    world.check_restart()


@pytest.mark.parametrize("occurrence", [1, 2])
@pytest.mark.parametrize("fault", [fail("EINTR"), ONE_BYTE],
                         ids=["EINTR", "1 byte"])
def test_a_write_that_is_cut_short_goes_on(world, fails, fault, occurrence):
    performed, run = fails(SetCommand, "write", occurrence, fault)
    assert "[ERROR]" not in run.text()
    assert world.state() == (performed.new_token(), NEW_ENDPOINT)
    serves(world, run, NEW_ENDPOINT)


@pytest.mark.parametrize("name, occurrence, error", [
    ("folder", 1, "EMFILE"), ("folder", 2, "EMFILE"),
    ("fsync", 2, "EIO"), ("fsync", 4, "EIO")])
def test_a_folder_that_cannot_be_synced_holds_the_new_files(
        world, fails, name, occurrence, error):
    performed, run = fails(SetCommand, name, occurrence, fail(error))
    assert "[ERROR]" not in run.text()
    assert world.state() == (performed.new_token(), NEW_ENDPOINT)
    serves(world, run, NEW_ENDPOINT)


@pytest.mark.parametrize("error", ["EACCES", "EROFS", "EIO"])
def test_intended_a_token_that_cannot_be_deleted_aborts_and_completes(
        world, fails, error):
    performed, run = fails(RemoveCommand, "unlink", 1, fail(error))
    assert run.lines()[1] == "[INFO] Successfully fetched access token: 200"
    assert "[ERROR] Failed to remove refresh token file" in run.lines()
    assert ends(world, performed) == ["Abort", "Complete"]
    assert world.state() == (performed.token, None)
    assert "not whitelisted" in world.request(OLD_ENDPOINT)
    assert run.stop() == 0
    world.check_restart()


@pytest.mark.parametrize("error", ["EACCES", "EROFS", "EIO"])
def test_endpoints_that_cannot_be_deleted_are_no_longer_in_use(
        world, fails, error):
    performed, run = fails(RemoveCommand, "unlink", 2, fail(error))
    assert "[ERROR]" not in run.text()
    assert ends(world, performed) == ["Complete"]
    assert world.state() == (None, OLD_ENDPOINT)
    assert "not whitelisted" in world.request(OLD_ENDPOINT)
    assert run.stop() == 0
    world.check_restart()


@pytest.mark.parametrize("error", ["EACCES", "EROFS", "EIO"])
def test_a_refused_token_that_cannot_be_deleted_is_told(world, fails, error):
    performed, run = fails(Refusal, "unlink", 1, fail(error))
    assert run.lines()[-1] == "[ERROR] Unable to delete saved refresh token"
    assert world.state() == performed.old()
    assert world.request(OLD_ENDPOINT) == "401"
    assert run.stop() == 0
    world.check_restart()
