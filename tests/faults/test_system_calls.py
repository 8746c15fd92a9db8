# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Each system call of the daemon's life fails, in its usual ways.

One call in each run: what fails once must not cost more than it must. Every
call on files fails in every way; of the others one of each kind, unless all
are asked for.
"""

import collections
import errno
import itertools
import re

import pytest
from injection import COUNT, FAIL, NO_BREAK, SHORTEN, system_call_names
from scenarios import Life

EPOLL_CTL_ADD = 1


def fail(name, second=-1):
    return "%s" % name, FAIL, -getattr(errno, name), second


# A write to the log.
LOG = "writev"

NOTHING = "0", FAIL, 0, -1
ONE_BYTE = "1 byte", SHORTEN, 1, -1

# What can go wrong with a call. A call that is not here cannot fail, or not
# for a reason that the system or somebody else could bring about.
FILES = {
    "access": [fail("EACCES")],
    "openat": [fail(e) for e in ("EACCES", "EMFILE", "ENOSPC", "EINTR")],
    "newfstatat": [fail("EIO")],
    "read": [fail("EIO"), fail("EINTR"), NOTHING, ONE_BYTE],
    "getdents64": [fail("EIO")],
    "write": [fail("ENOSPC"), fail("EIO"), fail("EINTR"), NOTHING, ONE_BYTE],
    "fchmod": [fail("EPERM")],
    "fsync": [fail("EIO"), fail("ENOSPC")],
    "rename": [fail("EACCES"), fail("EIO")],
    "unlink": [fail("EACCES"), fail("EROFS")],
}
OTHERS = {names: faults for several, faults in {
    "close": [fail("EIO"), fail("EINTR")],
    # The log.
    LOG: [fail("EIO"), fail("EAGAIN"), fail("EINTR"), NOTHING, ONE_BYTE],
    "poll": [fail("EINTR"), fail("ENOMEM"), NOTHING],
    # Sockets.
    "socket": [fail("EMFILE"), fail("ENOBUFS"), fail("EAFNOSUPPORT")],
    "socketpair": [fail("EMFILE")],
    "connect": [fail("ECONNREFUSED"), fail("ENETUNREACH"), fail("EMFILE")],
    "getsockname getpeername setsockopt getsockopt": [fail("ENOBUFS")],
    "sendto sendmsg": [
        fail("EPIPE"), fail("ENOBUFS"), fail("EAGAIN"), fail("EINTR")],
    "recvfrom recvmsg": [
        fail("ECONNRESET"), fail("EAGAIN"), fail("EINTR"), NOTHING],
    # The loop.
    "epoll_create1 timerfd_create signalfd4": [fail("EMFILE")],
    "epoll_ctl": [fail("ENOMEM", EPOLL_CTL_ADD),
                  fail("ENOSPC", EPOLL_CTL_ADD)],
    "epoll_wait": [fail("EINTR")],
    "ppoll": [fail("EINTR"), fail("ENOMEM")],
    # Memory, threads and the rest.
    "mmap mprotect": [fail("ENOMEM")],
    "brk": [("ENOMEM", NO_BREAK, 0, -1)],
    "clone3": [fail("EAGAIN"), fail("ENOMEM")],
    "getrandom": [fail("EAGAIN"), fail("EINTR")],
    "prlimit64 prctl": [fail("EPERM")],
}.items() for names in several.split()}

# Calls that do not fail, or whose failure nobody could bring about: reading
# the state of the process, waiting for a thread, giving memory back.
SAFE = set("""getpid gettid exit exit_group futex rseq set_robust_list
  rt_sigprocmask rt_sigaction munmap madvise timerfd_settime lseek fcntl uname
  sysinfo clock_gettime rt_sigreturn restart_syscall getuid geteuid getgid
  getegid umask ioctl""".split())


def live(world, control, stepper, *order, silent=False):
    control.order(*order)
    control.arm()
    life = Life(world, silent)
    run = world.start([stepper, control.path, world.program], control=control)
    life.perform(run)
    life.go_on(run, control)
    return life, run


@pytest.fixture(scope="module")
def ordinary(world, control, stepper):
    """A life in which nothing goes wrong: (calls of each kind, the log)."""
    names = system_call_names()
    life, run = live(world, control, stepper, COUNT)
    assert run.stop() == 0
    assert life.answers == [
        "200", "200", "Failed: actions/invalid_arguments: Endpoint "
        "https://cloud.vantrel.example/v2/ not whitelisted"]
    assert world.state() == (None, None)
    return collections.Counter(
        names[call.number] for call in control.records()), run.lines()


@pytest.fixture(scope="module")
def counts(ordinary):
    """How often each call occurs in a life in which nothing goes wrong."""
    return ordinary[0]


def test_all_calls_are_known(counts):
    print(dict(counts))
    assert set(counts) - set(FILES) - set(OTHERS) - SAFE == set()
    # What no daemon of this kind can do without.
    least = {"openat": 15, "read": 15, "write": 2, LOG: 6, "poll": 6,
             "fchmod": 2, "fsync": 6, "rename": 2, "unlink": 2,
             "getdents64": 4, "socket": 3, "connect": 2, "sendmsg": 15,
             "recvmsg": 30, "epoll_ctl": 10, "epoll_wait": 20, "sendto": 5,
             "recvfrom": 15, "signalfd4": 3, "getrandom": 1}
    assert {name: count for name, count in least.items()
            if counts[name] < count} == {}


@pytest.mark.parametrize("name, fault", [
    pytest.param(name, fault, id="%s-%s" % (name, fault[0]))
    for name, faults in {**FILES, **OTHERS}.items() for fault in faults])
def test_a_call_that_fails_costs_no_file_no_secret_and_no_later_request(
        world, control, stepper, ordinary, counts, every, name, fault):
    assert counts[name], "never called"
    (number,) = [n for n, known in system_call_names().items()
                 if known == name.partition("-")[0]]
    log = int(name == LOG) if name in (LOG, "write") else -1
    # What is said last is waited for, unless it is the saying that fails.
    log_goes_on = fault in (fail("EINTR"), ONE_BYTE)
    silent = name in (LOG, "poll") and not log_goes_on
    _, mode, value, second = fault
    all_points = every or name in FILES
    # One in the middle, where the most is under way; an earlier one if it was
    # called less often this time.
    middle = 1 + counts[name] // (4 if second >= 0 else 2)
    points = itertools.count(1) if all_points else range(middle, 0, -1)
    done = 0
    for point in points:
        life, run = live(world, control, stepper, mode, number, point, value,
                         second, log, silent=silent)
        code = run.stop()
        if not control.hit:
            assert code == 0
            if all_points:
                break
            continue
        done += 1
        assess(life, run, code, "%s %d" % (name, point))
        if name == LOG and log_goes_on:
            assert run.lines() == ordinary[1]
        assert world.state() in life.states()
        world.check_restart()
        if not all_points:
            break
    print("%s: %d points" % (name, done))
    assert done


def assess(life, run, code, where):
    """It did what it must, or ended with a clear message."""
    said = (where, code, life.answers, run.text())
    if code == 0:
        # Each caller got an answer: a status, or why there is none.
        assert all(re.fullmatch(r"\d{3}|lost|(Failed|InvalidArgs): .+", answer)
                   for answer in life.answers), said
    elif code == -6:
        assert run.lines() and run.lines()[-1].startswith("[FATAL] "), said
    else:
        assert code == 69 and "[ERROR] " in run.text(), said
