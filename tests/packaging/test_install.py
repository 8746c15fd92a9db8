# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What `cmake --install` puts where, and that it fits together."""

import os
import re
import shutil
import stat
import subprocess
import xml.etree.ElementTree

import pytest
from conftest import PROJECT
from daemon_process import NAME, PATH

PROGRAM = "0755 %s/sbin/cloud_action_daemon"
ALWAYS = [
    PROGRAM,
    "0644 %s/share/dbus-1/interfaces/" + NAME + ".xml",
    "0644 %s/share/dbus-1/system.d/" + NAME + ".conf",
    "0644 %s/share/doc/cloud_action_daemon/examples/cloud_action.conf",
    "0644 %s/share/man/man5/cloud_action.conf.5",
    "0644 %s/share/man/man7/" + NAME + ".Manager.7",
    "0644 %s/share/man/man8/cloud_action_daemon.8"]
# What OpenRC supervises must not be started by the bus as well.
ACTIVATION = "0644 %s/share/dbus-1/system-services/" + NAME + ".service"
SYSTEMD = [
    "0644 %s/lib/systemd/system/cloud_action_daemon.service",
    "0644 %s/lib/sysusers.d/cloud_action_daemon.conf",
    "0644 %s/lib/tmpfiles.d/cloud_action_daemon.conf",
    "0644 %s/share/doc/cloud_action_daemon/examples/10-network.conf"]
SCRIPT = ["0755 %s/init.d/cloud_action_daemon"]

# What follows where the program is named.
NAMING = re.compile(
    r"^(?:ExecStart=|Exec=|DAEMON=|command=\"?)(.*?)\"?$", re.MULTILINE)


def files_in(folder):
    """Each file, with its mode."""
    found = []
    for where, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(where, name)
            assert not os.path.islink(path)
            found.append("%04o %s" % (stat.S_IMODE(os.stat(path).st_mode),
                                      path[len(folder):]))
    return sorted(found)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


@pytest.mark.parametrize("prefix, etc", (
    ("/usr", "/etc"), ("/opt/device", "/etc/opt/device"),
    ("/usr/local", "/usr/local/etc")))
@pytest.mark.parametrize("init", ("systemd", "openrc", "sysvinit", "none"))
def test_just_these_files_are_installed(build, tmp_path, init, prefix, etc):
    build.configure(CMAKE_INSTALL_PREFIX=prefix, CLOUD_ACTION_INIT=init)
    old = os.umask(0o077)  # It must not matter.
    try:
        build.install(str(tmp_path))
    finally:
        os.umask(old)
    expected = [line % prefix for line in ALWAYS]
    if init != "openrc":
        expected.append(ACTIVATION % prefix)
    if init == "systemd":
        expected += [line % prefix for line in SYSTEMD]
    elif init != "none":
        expected += [line % etc for line in SCRIPT]
    found = files_in(str(tmp_path))
    assert found == sorted(expected)
    program = (PROGRAM % prefix).partition(" ")[2]
    named = {}
    for line in found:
        path = line.partition(" ")[2]
        if path == program:
            continue
        text = read(str(tmp_path) + path)
        assert not re.search(r"@\w+@|\$\{CMAKE", text), path
        assert str(tmp_path) not in text and PROJECT not in text, path
        for one in NAMING.findall(text):
            named[path] = one.replace("$NAME", "cloud_action_daemon")
    # The bus's file, and the init system's.
    assert len(named) == (1 if init in ("none", "openrc") else 2)
    assert set(named.values()) == {program}


def test_an_unknown_init_system_is_refused(build):
    with pytest.raises(subprocess.CalledProcessError):
        build.configure(CLOUD_ACTION_INIT="other")


def test_the_program_is_the_one_that_was_built(image, program):
    with open(image + "/usr/sbin/cloud_action_daemon", "rb") as file, \
            open(program, "rb") as built:
        assert file.read() == built.read()


def test_the_bus_starts_the_unit_that_is_installed(image):
    lines = read("%s/usr/share/dbus-1/system-services/%s.service"
                 % (image, NAME)).splitlines()
    assert "Name=" + NAME in lines
    assert "User=cloud-action" in lines
    (unit,) = [line.partition("=")[2] for line in lines
               if line.startswith("SystemdService=")]
    assert os.path.exists("%s/usr/lib/systemd/system/%s" % (image, unit))


def members(node):
    """What a description says of each interface, comments aside."""
    return {
        interface.get("name"): {
            (member.tag, member.get("name")): [
                (part.tag, *(part.get(key) for key in (
                    "name", "type", "direction", "access", "value")))
                for part in member]
            for member in interface}
        for interface in node.findall("interface")}


def test_the_installed_interface_is_what_the_daemon_answers(
        image, running_daemon, root_peer):
    text = read("%s/usr/share/dbus-1/interfaces/%s.xml" % (image, NAME))
    # What is meant for our own generator stays at home.
    assert "codegen" not in text
    installed = members(xml.etree.ElementTree.fromstring(text))
    (interface,) = installed
    reply = root_peer.call(
        destination=NAME, path=PATH, member="Introspect",
        interface="org.freedesktop.DBus.Introspectable")
    assert not reply.error, reply.text
    answered = members(xml.etree.ElementTree.fromstring(reply.text))
    assert {name: content for name, content in answered.items()
            if not name.startswith("org.freedesktop.DBus.")} == installed
    assert installed[interface][("method", "RedirectRequest")]


# Users and folders, made for real in the image.

def entries(path):
    return {line.split(":")[0]: line.split(":")
            for line in read(path).splitlines()}


def test_users_and_folders_are_made_as_the_files_say(image, tmp_path):
    image = shutil.copytree(image, str(tmp_path), dirs_exist_ok=True)
    etc = image + "/etc"
    os.makedirs(etc)
    subprocess.run(["systemd-sysusers", "--root=" + image], check=True)
    users, groups = entries(etc + "/passwd"), entries(etc + "/group")
    assert set(users) == {"cloud-action"}
    assert set(groups) == {"cloud-action", "cloud-action-clients"}
    _, _, uid, gid, _, home, shell = users["cloud-action"]
    assert home == "/var/lib/cloud_action"
    assert shell.endswith("/nologin")
    assert gid == groups["cloud-action"][2]
    assert groups["cloud-action-clients"][3] == ""
    # No password lets anybody in.
    assert entries(etc + "/shadow")["cloud-action"][1].startswith("!")

    os.makedirs(etc + "/ap")
    os.chmod(etc + "/ap", 0o755)
    config = etc + "/ap/cloud_action.conf"
    with open(config, "w", encoding="ascii"):
        os.chmod(config, 0o644)
    # Twice: the second run finds all as it should be.
    for _ in range(2):
        subprocess.run(["systemd-tmpfiles", "--root=" + image, "--create"],
                       check=True)
        for path, owner, group, mode in (
                ("/var/lib/cloud_action", uid, gid, 0o700),
                ("/etc/ap", 0, 0, 0o755),
                ("/etc/ap/cloud_action.conf", 0, gid, 0o640)):
            info = os.stat(image + path)
            assert (info.st_uid, info.st_gid, stat.S_IMODE(info.st_mode)) == (
                int(owner), int(group), mode), path


def test_the_example_configuration_has_the_keys_and_no_values(image):
    text = read(image + "/usr/share/doc/cloud_action_daemon/examples/"
                "cloud_action.conf")
    assert re.findall(r"^([^#\s].*)$", text, re.MULTILINE) == [
        "SMARTHOME_CLIENT_ID=", "SMARTHOME_CLIENT_SECRET=",
        "SMARTHOME_SCOPE="]


# How a device's program is built: what a packager must not overlook is said.

WARNING = "a reserved name: this daemon cannot get a credential anywhere"


def configure(folder, *arguments):
    """The exit code of CMake, and what it says, in one line."""
    done = subprocess.run(
        ["cmake", "-S", PROJECT, "-B", str(folder), "-G", "Ninja",
         "-DCLOUD_ACTION_TESTS=OFF", *arguments], stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, " ".join(done.stdout.split())


@pytest.mark.parametrize("kind, warns", (
    ("", True), ("None", True), ("Debug", False)))
def test_a_build_for_a_device_warns_of_the_reserved_host(
        tmp_path, kind, warns):
    code, said = configure(tmp_path, "-DCMAKE_BUILD_TYPE=" + kind)
    assert code == 0
    assert (WARNING in said) == warns


def test_a_build_with_a_host_warns_of_nothing(tmp_path):
    code, said = configure(tmp_path, "-DCMAKE_BUILD_TYPE=Release",
                           "-DCLOUD_ACTION_TOKEN_HOST=id.example.com")
    assert (code, "Warning" in said) == (0, False)


@pytest.mark.parametrize("host", ("", "https://id.example.com"))
def test_what_is_no_host_is_refused(tmp_path, host):
    code, said = configure(tmp_path, "-DCLOUD_ACTION_TOKEN_HOST=" + host)
    assert code != 0
    assert "must be a host name alone" in said
