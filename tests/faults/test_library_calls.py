# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Each call of the libraries, and of memory, fails.

One call in each run, as for the system calls. Memory runs out once at each
place that asks for some.
"""

import collections
import os
import re
import subprocess

import pytest
from injection import COUNT, FAIL, FOLDER, build
from scenarios import Life
from test_system_calls import assess

with open(os.path.join(FOLDER, "shim.cc"), encoding="ascii") as source:
    NAMES = re.findall(r"^  F\((\w+), ", source.read(), re.MULTILINE)
MEMORY = ["malloc", "calloc", "realloc"]
NUMBERS = {name: number for number, name in enumerate(NAMES + MEMORY)}

# These cannot fail, or only for a wrong argument.
SAFE = re.compile(r"""curl_easy_getinfo|curl_multi_setopt
  |sd_event_source_set_(enabled|time)
  |curl_(easy|multi|url|global)_cleanup|curl_easy_strerror|curl_version_info
  |curl_free|curl_slist_free_all|curl_multi_(info_read|remove_handle)
  |sd_bus_(close_unref|error_(free|is_set|set_errno)|get_fd|is_open
          |message_(ref|unref|sensitive|is_method_call|get_\w+)
          |object_vtable_format|slot_\w+)
  |sd_event_(source_disable_)?unref""", re.VERBOSE)


# So many calls of one function fail, spread over a life, unless all do.
FEW = 8
# Places in the program are below, places in libraries above.
LIBRARIES = 1 << 40
# These crash at some places where they get no memory.
CRASHES = {"libc.so.6": -11, "libcrypto.so.3": -11}


@pytest.fixture(scope="module")
def shim(tools):
    return build("shim.cc", os.path.join(tools, "shim.so"), "-shared",
                 "-fPIC", "-ldl")


@pytest.fixture(scope="module")
def live(world, control, shim):
    """Lives a life in which one call may fail: (the life, the run)."""
    def one(mode, number=-1, occurrence=1, caller=-1):
        control.order(mode, number, occurrence, 0, caller)
        control.arm()
        life = Life(world)
        run = world.start(environment={
            "LD_PRELOAD": shim, "FAULTS_CONTROL": control.path})
        life.perform(run)
        if caller < LIBRARIES:
            life.go_on(run, control)
        return life, run
    return one


@pytest.fixture(scope="module")
def calls(live, world, control):
    """The calls of a life in which nothing goes wrong."""
    life, run = live(COUNT)
    assert run.stop() == 0
    assert life.answers[:2] == ["200", "200"]
    assert world.state() == (None, None)
    return control.records()


@pytest.fixture(scope="module")
def counts(calls):
    """How often each is called."""
    names = {number: name for name, number in NUMBERS.items()}
    return collections.Counter(names[call.number] for call in calls)


@pytest.fixture(scope="module")
def libraries(world, shim):
    """The names of the libraries by their number in a place."""
    listed = subprocess.run(
        [world.program], check=True, capture_output=True, text=True,
        env={"LD_PRELOAD": shim, "LD_TRACE_LOADED_OBJECTS": "1"}).stdout
    names = re.findall(r"^\s*(\S+)", listed, re.MULTILINE)
    return {number: os.path.basename(name)
            for number, name in enumerate(names, 1)}


@pytest.fixture
def one_fails(live, world, control, libraries):
    """Has one call fail and looks what comes of it; False if none did."""
    def one(where, number, occurrence, caller=-1):
        life, run = live(FAIL, number, occurrence, caller)
        code = run.stop()
        if not control.hit:
            assert code == 0
            return False
        # A library that is out of memory may end the process in its own way.
        if caller < LIBRARIES or code in (0, 69):
            assess(life, run, code, where)
        else:
            library = libraries.get(caller >> 40, "loaded later")
            assert code in (-6, CRASHES.get(library)), (
                where, library, code, run.text())
        assert world.state() in life.states(), where
        world.check_restart()
        return True
    return one


def test_all_calls_are_known(world, counts):
    print(dict(counts))
    symbols = subprocess.run(
        ["nm", "-D", "--undefined-only", world.program], check=True,
        capture_output=True, text=True).stdout
    called = set(re.findall(r" U ((?:sd|curl)_\w+)", symbols))
    assert {name for name in called - set(NAMES)
            if not SAFE.fullmatch(name)} == set()
    # Of what is made to fail below, most occurs.
    assert len(set(counts) & set(NAMES)) >= 40


@pytest.mark.parametrize("name", NAMES)
def test_a_library_call_that_fails_costs_no_file_and_no_later_request(
        counts, one_fails, every, name):
    assert counts[name], "never called"
    points = range(1, counts[name] + 1)
    if not every:
        points = points[::1 + len(points) // FEW]
    done = sum(one_fails("%s %d" % (name, point), NUMBERS[name], point)
               for point in points)
    print("%s: %d of %d points" % (name, done, counts[name]))
    # Some calls are made more often in some runs than in others.
    assert done >= 1 + len(points) // 2


@pytest.mark.parametrize("name", MEMORY)
def test_memory_that_runs_out_costs_no_file_and_no_later_start(
        calls, one_fails, every, name):
    places = {call.arguments[0] for call in calls
              if call.number == NUMBERS[name]}
    if not every:
        # The program's own. Some libraries take their time to give up.
        places = {place for place in places if place < LIBRARIES}
        if not places:
            pytest.skip("the program itself does not call it")
    done = sum(one_fails("%s at %x" % (name, place), NUMBERS[name], 1, place)
               for place in sorted(places))
    print("%s: %d of %d places" % (name, done, len(places)))
    assert done >= len(places) * 3 // 4
