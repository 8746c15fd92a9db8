# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The daemon is killed at each system call of each change to its files.

It is killed in place of its N-th call, and so behind the call before that one:
each call is seen both not done and done.
"""

import collections
import os
import re
import stat

import pytest
from daemon_process import STATE
from injection import COUNT, KILL, system_call_names
from scenarios import FirstSetCommand, Refusal, RemoveCommand, SetCommand

# What a change must have come past, how often at least.
SET = {"openat": 4, "write": 2, "fsync": 4, "rename": 2, "sendmsg": 2,
       "recvmsg": 4, "epoll_wait": 2, "sendto": 1, "recvfrom": 1}
SCENARIOS = pytest.mark.parametrize("scenario, least", [
    (SetCommand, SET), (FirstSetCommand, {**SET, "connect": 1}),
    (RemoveCommand, {"unlink": 2, "fsync": 2, "openat": 2, "sendmsg": 2}),
    (Refusal, {"unlink": 1, "fsync": 1, "openat": 1, "recvfrom": 1}),
], ids=lambda value: getattr(value, "__name__", ""))

LEFT_BEHIND = re.compile(r"(refresh_token|allowed_endpoints)\.tmp\.\w{6}")


def step(world, control, stepper, scenario, *order):
    """Performs a scenario under the stepper: (the scenario, the run)."""
    control.order(*order)
    performed = scenario(world)
    run = world.start([stepper, control.path, world.program], control=control)
    assert performed.prepare(run), run.text()
    control.arm()
    performed.perform(run)
    # One more round behind it: then it is not under way any more.
    control.disarm()
    performed.settle(run)
    return performed, run


def changes(control):
    """What was done to files and folders, in short."""
    names = system_call_names()
    descriptors = {}
    done = []
    for call in control.records():
        name = names[call.number]
        fd, flags, mode = (call.arguments[0] & 0xffffffff,
                           call.arguments[2], call.arguments[3])
        if name == "openat" and flags & os.O_CREAT:
            assert flags & os.O_EXCL and flags & os.O_CLOEXEC
            descriptors[call.result] = "file"
            done.append("create %o" % stat.S_IMODE(mode))
        elif name == "openat" and flags & os.O_DIRECTORY:
            descriptors[call.result] = "folder"
        elif name == "openat":
            assert flags & os.O_ACCMODE == os.O_RDONLY
        elif name == "close":
            descriptors.pop(fd, None)
        elif name in ("write", "fsync", "ftruncate", "fchmod", "pwrite64",
                      "fdatasync") and fd in descriptors:
            done.append(name + " " + descriptors[fd])
        elif name in ("rename", "renameat", "renameat2", "unlink", "unlinkat",
                      "link", "linkat", "chmod", "fchmodat", "truncate"):
            done.append(name)
    return done


REPLACE = ["create 600", "write file", "fsync file", "rename", "fsync folder"]


@pytest.mark.parametrize("scenario, wanted", [
    (SetCommand, REPLACE * 2), (FirstSetCommand, REPLACE * 2),
    (RemoveCommand, ["unlink", "fsync folder"] * 2),
    (Refusal, ["unlink", "fsync folder"]),
], ids=lambda value: getattr(value, "__name__", ""))
def test_a_change_is_on_the_disk_in_an_order_that_a_power_cut_cannot_harm(
        world, control, stepper, scenario, wanted):
    performed, run = step(world, control, stepper, scenario, COUNT)
    assert run.stop() == 0
    performed.clean_up()
    assert [change for change in changes(control)
            if not change.startswith("fchmod")] == wanted


@SCENARIOS
def test_killed_at_any_call_it_leaves_old_or_new_files_and_starts_again(
        world, control, stepper, scenario, least):
    names = system_call_names()
    performed, run = step(world, control, stepper, scenario, COUNT)
    assert run.stop() == 0
    performed.clean_up()
    assert world.state() == performed.states()[-1]
    # By name, for the order of calls is not quite the same each time.
    killed_at = collections.Counter()
    seen = set()  # What was found: numbers of states, and names left behind.
    for number in sorted({call.number for call in control.records()}):
        while kill(world, control, stepper, scenario, seen, number,
                   killed_at[names[number]] + 1):
            killed_at[names[number]] += 1
    print("%s: killed at %d calls: %s" % (
        scenario.__name__, killed_at.total(), dict(killed_at)))
    assert {call: count for call, count in least.items()
            if killed_at[call] < count} == {}
    # It was killed before, between and after the changes, and within them.
    assert seen >= set(range(len(performed.states())))
    assert seen & {"refresh_token", "allowed_endpoints"} == (
        {"refresh_token", "allowed_endpoints"} if "rename" in least else set())


def kill(world, control, stepper, scenario, seen, number, occurrence):
    """Kills it there; False if it got to the end without such a call."""
    performed, run = step(world, control, stepper, scenario, KILL, number,
                          occurrence)
    where = "killed at %s %d" % (system_call_names()[number], occurrence)
    if control.hit:
        assert run.wait_for_exit() == -9, where
    else:
        assert run.stop() == 0
    performed.clean_up()
    states = performed.states()
    state = world.state()
    assert state in (states if control.hit else states[-1:]), where
    others = set(os.listdir(STATE)) - {"refresh_token", "allowed_endpoints"}
    assert all(LEFT_BEHIND.fullmatch(name) for name in others), where
    if control.hit:
        seen.update(name.partition(".")[0] for name in others)
        seen.add(states.index(state))
        world.check_restart()
    return control.hit
