# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What is in the packages, and how the program in them was made."""

import os
import re
import stat
import subprocess

import pytest

PROGRAM = "usr/sbin/cloud_action_daemon"
DOCUMENTS = "usr/share/doc/cloud-action-daemon/"

# Beside the documents.
FILES = {
    "etc/init.d/cloud_action_daemon": 0o755,
    "lib/systemd/system/cloud_action_daemon.service": 0o644,
    "usr/lib/sysusers.d/cloud_action_daemon.conf": 0o644,
    "usr/lib/tmpfiles.d/cloud_action_daemon.conf": 0o644,
    "usr/sbin/cloud_action_daemon": 0o755,
    "usr/share/dbus-1/interfaces/org.vantrel.actions.CloudActions.xml": 0o644,
    "usr/share/dbus-1/system-services/"
    "org.vantrel.actions.CloudActions.service": 0o644,
    "usr/share/dbus-1/system.d/org.vantrel.actions.CloudActions.conf": 0o644,
    "usr/share/lintian/overrides/cloud-action-daemon": 0o644,
    "usr/share/man/man5/cloud_action.conf.5.gz": 0o644,
    "usr/share/man/man7/"
    "org.vantrel.actions.CloudActions.Manager.7.gz": 0o644,
    "usr/share/man/man8/cloud_action_daemon.8.gz": 0o644,
}


def tool(*command):
    """What a program of the machine says."""
    return subprocess.run(command, capture_output=True, text=True,
                          check=True).stdout


def control(package, field):
    """A field of a package."""
    return tool("dpkg-deb", "--field", package, field).strip()


@pytest.fixture(scope="module")
def program(unpacked):
    """The program out of the package."""
    return os.path.join(unpacked, PROGRAM)


def test_the_package_holds_what_is_installed_and_no_more(package,
                                                         tmp_path):
    subprocess.run(["dpkg-deb", "--extract", package, tmp_path], check=True)
    found = {}
    for folder, _, names in os.walk(tmp_path):
        for name in names:
            path = os.path.join(folder, name)
            mode = stat.S_IMODE(os.lstat(path).st_mode)
            found[os.path.relpath(path, tmp_path)] = mode
    documents = [path for path in found if path.startswith(DOCUMENTS)]
    assert {path: mode for path, mode in found.items()
            if path not in documents} == FILES
    names = {path[len(DOCUMENTS):] for path in documents}
    assert names >= {"copyright", "changelog.gz",
                     "examples/cloud_action.conf",
                     "examples/redirect_request.py"}


def test_everything_belongs_to_root(packages):
    for package in packages.values():
        owners = {line.split()[1] for line in
                  tool("dpkg-deb", "--contents", package).splitlines()}
        assert owners == {"root/root"}


def test_no_secret_place_is_shipped_as_a_configuration_file(package):
    assert tool("dpkg-deb", "--info", package,
                "conffiles").split() == ["/etc/init.d/cloud_action_daemon"]


def test_the_version_is_that_of_the_project(package, pytestconfig):
    project = pytestconfig.rootpath.parents[2] / "CMakeLists.txt"
    version = re.search(r"project\(\S+ VERSION (\S+)", project.read_text())
    assert control(package, "Version") == version.group(1)


def test_the_token_host_is_compiled_in(program, pytestconfig):
    with open(program, "rb") as file:
        urls = re.findall(rb"https://[^\0]*?/o/oauth2/token", file.read())
    host = b"https://" + pytestconfig.getoption("--token-host").encode()
    assert host + b"/o/oauth2/token" in urls
    # The compiler copies long texts in pieces that overlap.
    assert [url for url in urls if not url.startswith(host)] == []


def test_it_can_be_installed_where_systemd_is_not(package):
    depends = [[name.split()[0] for name in choice.split("|")]
               for choice in control(package, "Depends").split(",")]
    assert [c for c in depends if "systemd" in c] == [
        ["systemd", "systemd-standalone-sysusers", "systemd-sysusers"]]
    for needed in ("ca-certificates", "libcurl4", "libssl3", "libsystemd0"):
        assert [needed] in depends
    assert ["default-dbus-system-bus", "dbus-system-bus"] in depends


def test_nothing_tells_where_it_was_built(unpacked):
    # Paths of sources are relative; no other starts as these do.
    for folder, _, names in os.walk(unpacked):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.islink(path):
                continue
            # The sections of the debug symbols are compressed.
            plain = path + ".plain"
            if subprocess.run(["objcopy", "--decompress-debug-sections",
                               path, plain], stderr=subprocess.DEVNULL,
                              check=False).returncode == 0:
                path = plain
            with open(path, "rb") as file:
                content = file.read()
            for trace in (b"build/package", b"/source/platform", b"/tmp/"):
                assert trace not in content, path


# The program's hardening, as the tools that read programs tell it.

def test_the_debug_symbols_are_those_of_the_program(program, unpacked):
    build = re.search(r"Build ID: ([0-9a-f]{2})([0-9a-f]+)",
                      tool("readelf", "--notes", program))
    symbols = os.path.join(unpacked, "usr/lib/debug/.build-id",
                           build.group(1), build.group(2) + ".debug")
    assert ".debug_info" in tool("readelf", "--sections", "--wide", symbols)
    assert ".debug_info" not in tool("readelf", "--sections", "--wide",
                                     program)
    assert ".symtab" not in tool("readelf", "--sections", "--wide", program)


def test_the_program_is_small_and_brings_its_c_plus_plus_library(program):
    assert os.path.getsize(program) <= 300_000
    needed = re.findall(r"NEEDED.*\[(.*)\]", tool("readelf", "--dynamic",
                                                   program))
    # First the one that looks up the most of its own symbols.
    assert needed[0].startswith("libcrypto.so")
    assert [n for n in needed if "stdc++" in n or "gcc" in n] == []


def test_the_program_is_loaded_at_any_address(program):
    assert re.search(r"Type: +DYN \(Position-Independent Executable",
                     tool("readelf", "--file-header", program))


def test_its_tables_are_read_only_once_it_is_loaded(program):
    assert "GNU_RELRO" in tool("readelf", "--segments", "--wide", program)
    dynamic = tool("readelf", "--dynamic", program)
    assert re.search(r"\(FLAGS\).*BIND_NOW", dynamic)
    assert re.search(r"\(FLAGS_1\).*NOW.*PIE", dynamic)
    assert "TEXTREL" not in dynamic
    assert "RPATH" not in dynamic
    assert "RUNPATH" not in dynamic


def test_no_memory_of_it_is_both_writable_and_executable(program):
    flags = re.findall(r"^  (\w+) +0x.* ([R ][W ][E ]) +0x",
                       tool("readelf", "--segments", "--wide", program),
                       re.MULTILINE)
    assert ("GNU_STACK", "RW ") in flags
    assert not [kind for kind, flag in flags if "W" in flag and "E" in flag]


def test_its_calls_are_checked(program):
    symbols = tool("readelf", "--dyn-syms", "--wide", program)
    assert re.search(r" UND __stack_chk_fail@", symbols)
    assert re.search(r" UND __\w+_chk@", symbols)


def code(program):
    """Its machine code, for people."""
    return tool("objdump", "--disassemble", "--no-show-raw-insn", program)


@pytest.mark.skipif(os.uname().machine != "x86_64", reason="of x86-64 only")
def test_its_functions_are_marked_for_indirect_calls(program):
    # Beside main() those whose address is taken, virtual ones among them.
    assert len(re.findall(r"\bendbr64\b", code(program))) > 100


@pytest.mark.skipif(os.uname().machine != "x86_64", reason="of x86-64 only")
def test_large_stack_frames_touch_each_page(program):
    assert re.search(r"\borq +\$0x0,(0x[0-9a-f]+)?\(%rsp\)", code(program))
