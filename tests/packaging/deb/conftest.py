# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Fixtures of the tests of the Debian package: see README.md beside this."""

import glob
import os
import re
import shutil
import subprocess

import pytest

from machine import CannotBoot, Machine

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.realpath(__file__)))))
SUITE = "bookworm"


def pytest_addoption(parser):
    parser.addoption("--packages", metavar="DIR", default=os.path.join(
        PROJECT, "build", "package"),
        help="where the packages are (default: %(default)s)")
    parser.addoption("--token-host", metavar="HOST",
                     default="identity.vantrel.example",
                     help="what they were built with (default: %(default)s)")


def pytest_ignore_collect(config):
    """Part of another run, which does not know of packages?"""
    return True if config.getoption("packages", None) is None else None


@pytest.fixture(scope="session")
def packages(pytestconfig):
    """Name of a package -> its file."""
    folder = pytestconfig.getoption("--packages")
    found = {os.path.basename(path).split("_")[0]: path
             for path in glob.glob(os.path.join(folder, "*.deb"))}
    if sorted(found) != ["cloud-action-daemon", "cloud-action-daemon-dbgsym"]:
        pytest.exit("there are no packages in %s: run scripts/package"
                    % folder, 64)
    return found


@pytest.fixture(scope="session")
def package(packages):
    """The file of the package itself."""
    return packages["cloud-action-daemon"]


@pytest.fixture(scope="session")
def unpacked(packages, tmp_path_factory):
    """A folder with the content of both packages."""
    folder = tmp_path_factory.mktemp("unpacked")
    for path in packages.values():
        subprocess.run(["dpkg-deb", "--extract", path, folder], check=True)
    return str(folder)


@pytest.fixture(scope="session")
def newer_package(package, tmp_path_factory):
    """The same package with a higher version."""
    folder = tmp_path_factory.mktemp("newer")
    content = folder / "content"
    subprocess.run(["dpkg-deb", "--raw-extract", package, content], check=True)
    control = content / "DEBIAN" / "control"
    text, count = re.subn(r"(?m)^(Version: .*)$", r"\1+newer",
                          control.read_text())
    assert count == 1
    control.write_text(text)
    target = str(folder / "newer.deb")
    subprocess.run(["dpkg-deb", "--root-owner-group", "--build", content,
                    target], check=True, stdout=subprocess.DEVNULL)
    return target


def mirror():
    """Where the machine itself gets Debian from."""
    if os.environ.get("CLOUD_ACTION_MIRROR"):
        return os.environ["CLOUD_ACTION_MIRROR"]
    known = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(REPO_URI)",
         "Created-By: Packages", "Release: " + SUITE],
        capture_output=True, text=True, check=False).stdout.split()
    return known[0] if known else "http://deb.debian.org/debian"


def apt_get(folder, *arguments):
    """apt-get in a folder, with the machine's network. The mirror may have
    moved on since the folder was made."""
    command = ["chroot", folder, "env", "DEBIAN_FRONTEND=noninteractive",
               "apt-get", "-q", "-y"]
    for attempt in (1, 2):
        done = subprocess.run(command + list(arguments), check=False,
                              stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        if done.returncode == 0:
            return
        if attempt == 1:
            subprocess.run(command + ["update"], check=False,
                           stdout=subprocess.DEVNULL)
    raise AssertionError(done.stdout)


def make_base(folder):
    """A minimal Debian with systemd in `folder`."""
    subprocess.run(["debootstrap", "--variant=minbase",
                    "--include=systemd-sysv", SUITE, folder, mirror()],
                   check=True, stdout=subprocess.DEVNULL)
    # What nobody reads there; copies are made often.
    for name in ("doc", "locale", "man"):
        shutil.rmtree(os.path.join(folder, "usr", "share", name))
    subprocess.run(["chroot", folder, "apt-get", "clean"], check=True)
    # Nor does any of it have to survive a power cut.
    with open(os.path.join(folder, "etc/dpkg/dpkg.cfg.d/unsafe-io"), "w",
              encoding="ascii") as file:
        file.write("force-unsafe-io\n")
    with open(os.path.join(folder, "usr/sbin/policy-rc.d"), "w",
              encoding="ascii") as file:
        file.write("#!/bin/sh\nexit 101\n")
        os.fchmod(file.fileno(), 0o755)


def make_sysvinit_base(base, folder):
    """The same with System V init in its place."""
    subprocess.run(["cp", "-a", base + "/.", folder], check=True)
    apt_get(folder, "install", "--no-install-recommends", "sysvinit-core",
            "systemd-standalone-sysusers", "systemd-sysv-", "systemd-")


def kept(folder, make, *arguments):
    """Has `folder` made unless there is one from an earlier run."""
    if not os.path.exists(folder):
        shutil.rmtree(folder + ".new", ignore_errors=True)
        make(*arguments, folder + ".new")
        os.rename(folder + ".new", folder)
    return folder


@pytest.fixture(scope="session")
def bases(package, pytestconfig):
    """Folders with a minimal Debian: init system -> folder. What the package
    depends on is there as files, not installed, and nothing that is installed
    is started. Kept from run to run."""
    store = pytestconfig.getoption("--packages")
    systemd = kept(os.path.join(store, "base-systemd"), make_base)
    sysvinit = kept(os.path.join(store, "base-sysvinit"), make_sysvinit_base,
                    systemd)
    for folder in (systemd, sysvinit):
        shutil.copyfile(package, os.path.join(folder, "root", "new.deb"))
        shutil.copyfile("/etc/resolv.conf",
                        os.path.join(folder, "etc", "resolv.conf"))
        apt_get(folder, "install", "--download-only",
                "--no-install-recommends", "/root/new.deb")
    return {"systemd": systemd, "sysvinit": sysvinit}


@pytest.fixture(scope="session")
def new_machine(bases, tmp_path_factory):
    """Makes machines, copies of a base."""
    made = []

    def make(init):
        folder = str(tmp_path_factory.mktemp("machine") / "root")
        subprocess.run(["cp", "-a", bases[init] + "/.", folder], check=True)
        made.append(Machine(folder))
        return made[-1]

    yield make
    for machine in made:
        machine.stop()
        shutil.rmtree(machine.folder)


@pytest.fixture(scope="module")
def booted(new_machine, package):
    """A device whose image was built with the package in it, booted."""
    machine = new_machine("systemd")
    machine.start()
    machine.install(package)
    assert machine.pid() is None
    machine.stop()
    boot(machine)
    return machine


@pytest.fixture(scope="module")
def running(new_machine):
    """A Debian that runs, without the package."""
    machine = new_machine("systemd")
    boot(machine)
    return machine


def boot(machine):
    """Boots it, and lets it start what is installed from now on."""
    os.remove(machine.path("/usr/sbin/policy-rc.d"))
    try:
        machine.boot()
    except CannotBoot as reason:
        pytest.skip("NOT BOOTED, only run without systemd: %s" % reason)
