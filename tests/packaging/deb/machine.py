# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A small Debian system of its own, without a network: in processes, mounts,
users and control groups apart from the machine's."""

import os
import signal
import subprocess
import tempfile
import time

HERE = os.path.dirname(os.path.realpath(__file__))

NAME = "org.vantrel.actions.CloudActions"
CALL = ("call", NAME, "/org/vantrel/actions/CloudActions/Manager",
        NAME + ".Manager", "RedirectRequest", "sss")

# What keeps a system alive that has no init, and buries its dead.
NO_INIT = ("sh", "-c", "while :; do sleep 1; done")
SYSTEMD = ("/lib/systemd/systemd", "--unit=multi-user.target")
SYSVINIT = ("/sbin/init",)


class CannotBoot(Exception):
    """The kernel gives us no control groups."""


def wait_until(what, condition, seconds=30):
    """Waits until condition() is true, and returns what it returned."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError("waited %d s in vain for %s" % (seconds, what))
        time.sleep(0.05)


class ControlGroup:
    """A fresh control group for the init of a system."""

    def __init__(self):
        self._mount = tempfile.mkdtemp(prefix="cgroup-")
        mounted = subprocess.run(
            ["mount", "-t", "cgroup2", "cgroup2", self._mount],
            capture_output=True, text=True, check=False)
        if mounted.returncode != 0:
            os.rmdir(self._mount)
            raise CannotBoot(mounted.stderr.strip())
        try:
            self._folder = tempfile.mkdtemp(prefix="machine-", dir=self._mount)
        except PermissionError as error:
            self._unmount()
            raise CannotBoot(str(error)) from error

    def enter(self):
        """Moves the calling process into it."""
        with open(os.path.join(self._folder, "cgroup.procs"), "w",
                  encoding="ascii") as file:
            file.write("0")

    def remove(self):
        """Requires: nobody is in it."""
        for folder, _, _ in os.walk(self._folder, topdown=False):
            os.rmdir(folder)
        self._unmount()

    def _unmount(self):
        subprocess.run(["umount", self._mount], check=True)
        os.rmdir(self._mount)


class Machine:
    """The system in `folder`, running from start() or boot() to stop()."""

    def __init__(self, folder):
        self.folder = folder
        self.booted = False
        self._log = os.path.join(os.path.dirname(folder),
                                 os.path.basename(folder) + ".log")
        self._cgroup = None
        self._process = None
        self._init = None

    def path(self, path):
        """Where a file of the system is, seen from outside."""
        return os.path.join(self.folder, path.lstrip("/"))

    def start(self):
        """Runs it without an init, as a folder in which an image is built."""
        self._start(NO_INIT, {})

    def boot(self):
        """Runs its own systemd. Raises CannotBoot if there is no way to."""
        self._cgroup = ControlGroup()
        try:
            self._start(SYSTEMD, {"CGROUPS": "yes"}, self._cgroup.enter)
            wait_until("the system to come up", lambda: self.run(
                "systemctl", "is-system-running",
                check=False).stdout.strip() in ("running", "degraded"), 60)
        except BaseException:
            self.stop()
            raise
        self.booted = True

    def boot_sysvinit(self):
        """Runs its own System V init, up to the usual run level."""
        self._start(SYSVINIT, {})
        wait_until("the system to come up", lambda: self.run(
            "runlevel", check=False).stdout.strip() == "N 2")

    def _start(self, command, variables, before=None):
        with open(self._log, "ab") as log:
            self._process = subprocess.Popen(
                ["unshare", "--pid", "--fork", "--kill-child", "--mount",
                 "--uts", "--ipc", "--net", "--cgroup",
                 os.path.join(HERE, "enter"), self.folder, *command],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env=dict(os.environ, **variables), preexec_fn=before)
        self._init = wait_until("the first process", self._find_init)

    def _find_init(self):
        code = self._process.poll()
        if code == 69:
            raise CannotBoot("no control groups can be mounted")
        assert code is None, "see " + self._log
        with open("/proc/%d/task/%d/children" % ((self._process.pid,) * 2),
                  encoding="ascii") as file:
            children = file.read().split()
        # It is there when it has left the old root.
        if children:
            with open("/proc/%s/comm" % children[0], encoding="ascii") as file:
                if file.read().strip() in ("sh", "systemd", "init"):
                    return int(children[0])
        return None

    def stop(self):
        """Ends all of its processes."""
        if self._process is not None:
            if self.booted:
                # Which is how systemd is told to power off.
                os.kill(self._init, signal.SIGRTMIN + 4)
                try:
                    self._process.wait(30)
                except subprocess.TimeoutExpired:
                    pass
            self._process.kill()
            self._process.wait()
            if self._init is not None:
                wait_until("the end of the system", lambda: not os.path.exists(
                    "/proc/%d" % self._init))
        if self._cgroup is not None:
            self._cgroup.remove()
        self._cgroup = self._process = self._init = None
        self.booted = False

    def inside(self, *command):
        """The command line that runs `command` in the running system."""
        return ["nsenter", "--target", str(self._init), "--all", "--root",
                "--wd", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                "LANG=C.UTF-8", "DEBIAN_FRONTEND=noninteractive", *command]

    def in_its_network(self, *command):
        """The same for a command of the machine's, in the system's network."""
        return ["nsenter", "--target", str(self._init), "--net", *command]

    def run(self, *command, user=None, check=True):
        """Runs a command in it; stdout and stderr are one text."""
        if user is not None:
            command = ("setpriv", "--reuid", user, "--regid", user,
                       "--init-groups", *command)
        done = subprocess.run(
            self.inside(*command), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            timeout=180, check=False)
        assert not check or done.returncode == 0, "%s: %d\n%s" % (
            " ".join(command), done.returncode, done.stdout)
        return done

    def output(self, *command):
        """What a command that succeeds has said."""
        return self.run(*command).stdout.strip()

    def call(self, endpoint, user=None, timeout=45):
        """Asks the daemon for `endpoint`; what busctl says."""
        return self.run("busctl", "--timeout=%d" % timeout, *CALL, endpoint,
                        "GET", "", user=user, check=False).stdout.strip()

    def install(self, package):
        """Installs a package file, with what it depends on."""
        target = self.path("/root/" + os.path.basename(package))
        subprocess.run(["cp", package, target], check=True)
        return self.run("apt-get", "install", "-y", "-q",
                        "--no-install-recommends",
                        "/root/" + os.path.basename(package)).stdout

    def property(self, name):
        """A property of the unit."""
        return self.output("systemctl", "show", "--value", "-p", name,
                           "cloud_action_daemon.service")

    def pid(self):
        """The daemon's process, as the machine numbers it."""
        found = self.run("pidof", "cloud_action_daemon", check=False).stdout
        return int(found) if found.strip() else None
