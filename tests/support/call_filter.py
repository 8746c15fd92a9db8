# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The system call filter of the unit file, for a daemon without systemd.

The lines of the unit are put into a filter program, which filtered.cc loads
into a process. It is stricter than systemd's: whatever a line forbids ends the
process, where systemd lets some calls fail, so that it cannot go unnoticed.
"""

import errno
import functools
import os
import re
import socket
import stat
import subprocess

import seccomp

FOLDER = os.path.dirname(os.path.realpath(__file__))
UNIT = os.path.join(os.path.dirname(os.path.dirname(FOLDER)), "packaging",
                    "systemd", "cloud_action_daemon.service.in")

# The lines that systemd puts into filters. Others that it does so for forbid
# what SystemCallFilter= does not allow to begin with.
LINES = ("SystemCallFilter", "SystemCallArchitectures",
         "RestrictAddressFamilies", "RestrictNamespaces", "RestrictRealtime",
         "RestrictSUIDSGID", "LockPersonality", "MemoryDenyWriteExecute")

NEW_NAMESPACES = 0x7e020080  # CLONE_NEW... of clone(2)
SPECIAL_MODES = stat.S_ISUID | stat.S_ISGID
WRITE, EXECUTE = 2, 4        # PROT_... of mmap(2)
SHM_EXEC = 0o100000
ORDINARY_POLICIES = (0, 3, 5)  # SCHED_OTHER, _BATCH, _IDLE


def read_lines(unit):
    """The values of the unit's lines that make up the filter, by key."""
    lines = {key: [] for key in LINES}
    with open(unit, encoding="utf-8") as file:
        for key, value in re.findall(r"^(\w+)=(.*)$", file.read(),
                                     re.MULTILINE):
            if key in lines:
                lines[key].append(value.strip())
            else:
                assert not key.startswith(("SystemCall", "Restrict")), (
                    key + "= is not known here")
    return lines


@functools.cache
def expand(name):
    """The system calls of a group, or the call of that name."""
    if not name.startswith("@"):
        return frozenset([name])
    printed = subprocess.run(
        ["systemd-analyze", "syscall-filter", "--no-pager", name],
        check=True, capture_output=True, text=True).stdout
    members = [line.strip() for line in printed.splitlines()[1:]]
    return frozenset().union(*(expand(member) for member in members
                               if member and not member.startswith("#")))


def allowed_calls(values):
    """What the SystemCallFilter= lines allow; the first must allow."""
    assert values and not values[0].startswith("~"), values
    # systemd always allows these.
    calls = set(expand("@default"))
    for value in values:
        named = frozenset().union(*(
            expand(name) for name in value.lstrip("~").split()))
        calls = calls - named if value.startswith("~") else calls | named
    return calls


def masked(argument, mask, value=0):
    return seccomp.Arg(argument, seccomp.MASKED_EQ, mask, value)


def conditions(lines):
    """Calls that are allowed only with some arguments: the alternatives."""
    rules = {}
    families = lines["RestrictAddressFamilies"]
    if families:
        assert len(families) == 1 and not families[0].startswith("~")
        rules["socket"] = [
            [seccomp.Arg(0, seccomp.EQ, getattr(socket, name))]
            for name in families[0].split()]
    if lines["RestrictNamespaces"] == ["yes"]:
        rules["clone"] = rules["unshare"] = [[masked(0, NEW_NAMESPACES)]]
        rules["setns"] = []
    if lines["RestrictRealtime"] == ["yes"]:
        rules["sched_setscheduler"] = [
            [seccomp.Arg(1, seccomp.EQ, policy)]
            for policy in ORDINARY_POLICIES]
    if lines["RestrictSUIDSGID"] == ["yes"]:
        for name, mode in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2),
                           ("mkdir", 1), ("mkdirat", 2), ("mknod", 1),
                           ("mknodat", 2), ("creat", 1)):
            rules[name] = [[masked(mode, SPECIAL_MODES)]]
        for name, flags in (("open", 1), ("openat", 2)):
            rules[name] = [[masked(flags, os.O_CREAT)],
                           [masked(flags + 1, SPECIAL_MODES)]]
    if lines["LockPersonality"] == ["yes"]:
        rules["personality"] = [[seccomp.Arg(0, seccomp.EQ, 0)]]
    if lines["MemoryDenyWriteExecute"] == ["yes"]:
        rules["mmap"] = [[masked(2, EXECUTE)],
                         [masked(2, WRITE | EXECUTE, EXECUTE)]]
        rules["mprotect"] = rules["pkey_mprotect"] = [[masked(2, EXECUTE)]]
        rules["shmat"] = [[masked(2, SHM_EXEC)]]
    return rules


def unseen(lines):
    """Calls whose arguments a filter cannot see. systemd says that there are
    none such, and the C library then uses the older ones."""
    calls = set()
    if lines["RestrictNamespaces"] == ["yes"]:
        calls.add("clone3")
    if lines["RestrictSUIDSGID"] == ["yes"]:
        calls.update(("openat2", "fchmodat2"))
    return calls


def build(out, unit=UNIT):
    """Writes the filter program of a unit into the file `out`."""
    lines = read_lines(unit)
    # The library ends what comes from another architecture by itself.
    assert lines["SystemCallArchitectures"] == ["native"]
    rules, absent = conditions(lines), unseen(lines)
    program = seccomp.SyscallFilter(seccomp.KILL_PROCESS)
    program.set_attr(seccomp.Attr.CTL_NNP, 0)
    for name in sorted(allowed_calls(lines["SystemCallFilter"])):
        number = seccomp.resolve_syscall(seccomp.Arch(), name)
        if number < 0:  # not on this machine
            continue
        if name in absent:
            program.add_rule(seccomp.ERRNO(errno.ENOSYS), number)
            continue
        for arguments in rules.get(name, [[]]):
            program.add_rule(seccomp.ALLOW, number, *arguments)
    with open(out, "wb") as file:
        program.export_bpf(file)


def launcher(folder, unit=UNIT):
    """The start of a command line: what follows runs under the filter."""
    tool, program = os.path.join(folder, "filtered"), os.path.join(
        folder, "filter")
    subprocess.run(["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-O1",
                    "-o", tool, os.path.join(FOLDER, "filtered.cc")],
                   check=True)
    build(program, unit)
    return [tool, program]
