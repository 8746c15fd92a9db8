# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The scripts for OpenRC and System V init, run as those do.

The bus, the users and the daemon are real; the programs behind the scripts are
the distribution's start-stop-daemon and OpenRC.
"""

import os
import pwd
import select
import shutil
import signal
import stat
import subprocess

import pytest
from bus_peer import Peer
from conftest import PROJECT
from daemon_process import LOG_SOCKET, NAME, STATE, Syslog
from system_bus import SOCKET

SCRIPT = "/etc/init.d/cloud_action_daemon"
# Holds the daemon's number, or that of what looks after it.
PID_FILE = "/run/cloud_action_daemon.pid"
STOPPED = 3

# What its boot leaves in /run/openrc.
OPENRC_FOLDERS = ("daemons", "exclusive", "failed", "hotplugged", "inactive",
                  "init.d", "options", "scheduled", "started", "starting",
                  "stopping", "tmp", "wasinactive")

# What would take too long to wait for, or a whole boot: the bus comes first,
# the daemon gets its time to end, and is started again however often it ends.
RELIED_ON = {
    "openrc": '''\
respawn_max=0
retry="TERM/90/KILL/5"
  need dbus
''',
    "sysvinit": '''\
# Required-Start:    $remote_fs $syslog dbus
# Required-Stop:     $remote_fs $syslog dbus
  start-stop-daemon --stop --quiet --oknodo --retry TERM/90/KILL/5 \\
'''}

DBUS_SCRIPT = """\
#!/sbin/openrc-run
start() { :; }
stop() { :; }
"""


@pytest.fixture(scope="module")
def openrc(request):
    """OpenRC laid over /usr, on a system that it has booted."""
    folder = request.config.getoption("--openrc")
    assert os.path.exists(folder + "/sbin/openrc-run"), (
        "there is no OpenRC in %s: run tests/packaging/fetch-openrc" % folder)
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                    "ro,lowerdir=%s:/usr" % folder, "/usr"], check=True)
    shutil.copy(folder + "/rc.conf", "/etc")
    for name in OPENRC_FOLDERS:
        os.makedirs("/run/openrc/" + name)
    with open("/run/openrc/softlevel", "w", encoding="ascii") as file:
        file.write("default\n")
    # supervise-daemon opens a session for the user.
    os.makedirs("/etc/pam.d")
    with open("/etc/pam.d/other", "w", encoding="ascii") as file:
        file.write("account required pam_permit.so\n"
                   "session required pam_permit.so\n")
    os.makedirs("/etc/init.d", exist_ok=True)
    with open("/etc/init.d/dbus", "w", encoding="ascii") as file:
        file.write(DBUS_SCRIPT)
    os.chmod("/etc/init.d/dbus", 0o755)
    yield
    os.unlink("/etc/init.d/dbus")
    shutil.rmtree("/etc/pam.d")
    shutil.rmtree("/run/openrc")
    # The programs that run keep it busy.
    subprocess.run(["umount", "--lazy", "/usr"], check=True)


@pytest.fixture(scope="module", params=("sysvinit", "openrc"))
def installed(request, bus, build, device):
    """The daemon and its script; the init system's name."""
    if request.param == "openrc":
        request.getfixturevalue("openrc")
    prefix = os.path.join(device, request.param)
    build.configure(CMAKE_INSTALL_PREFIX=prefix,
                    CLOUD_ACTION_INIT=request.param)
    build.install("/")
    os.makedirs(os.path.dirname(SCRIPT), exist_ok=True)
    shutil.copy(prefix + "/etc/init.d/cloud_action_daemon", SCRIPT)
    yield request.param
    os.unlink(SCRIPT)


class Service:
    """The service, through its script."""

    def __init__(self, init, peer):
        self.init = init
        self._peer = peer

    def do(self, action):
        """Its exit code; nothing of it may hang on to our pipes."""
        done = subprocess.run([SCRIPT, action], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=60,
                              check=False)
        # For the report of a failure.
        print(action, done.returncode, done.stdout, done.stderr)
        return done.returncode

    def wait_until_up(self):
        self._peer.wait_for_owner(NAME)

    def wait_until_down(self):
        self._peer.wait_for_owner(NAME, wanted=False)

    def start(self):
        assert self.do("start") == 0
        self.wait_until_up()
        return self.pid()

    def pid(self):
        """The process that owns the name, which the pid file must know."""
        reply = self._peer.call_bus("GetConnectionUnixProcessID", "s", (NAME,))
        pid = int(reply.text)
        with open(PID_FILE, encoding="ascii") as file:
            assert file.read().strip() == (
                status_of(pid)["PPid"][0] if self.init == "openrc"
                else str(pid))
        return pid


@pytest.fixture
def service(installed):
    peer = Peer(SOCKET)
    shutil.rmtree(STATE, ignore_errors=True)
    one = Service(installed, peer)
    yield one
    assert one.do("stop") == 0
    one.wait_until_down()
    assert not os.path.exists(PID_FILE)
    peer.close()


@pytest.fixture
def stranger():
    """A process that is not ours, whose number a pid file may hold."""
    with subprocess.Popen(["sleep", "600"]) as process:
        yield process
        assert process.poll() is None, "it was ended"
        process.kill()


def status_of(pid):
    with open("/proc/%d/status" % pid, encoding="ascii") as file:
        return {name: value.split() for name, value in
                (line.split(":", 1) for line in file)}


def leave_pid_file(pid):
    """As a crash would."""
    with open(PID_FILE, "w", encoding="ascii") as file:
        file.write("%d\n" % pid)


def test_the_daemon_runs_as_its_user_with_nothing_more(service):
    user = pwd.getpwnam("cloud-action")
    status = status_of(service.start())
    assert status["Uid"] == [str(user.pw_uid)] * 4
    assert status["Gid"] == [str(user.pw_gid)] * 4
    assert set(status["Groups"]) <= {str(user.pw_gid)}
    assert status["CapEff"] == ["0000000000000000"]
    assert status["Umask"] == ["0077"]


def test_the_state_folder_is_made(service):
    user = pwd.getpwnam("cloud-action")
    assert not os.path.exists(STATE)
    service.start()
    info = os.stat(STATE)
    assert (info.st_uid, info.st_gid, stat.S_IMODE(info.st_mode)) == (
        user.pw_uid, user.pw_gid, 0o700)


def test_the_state_folder_is_mended_and_kept(service):
    user = pwd.getpwnam("cloud-action")
    os.mkdir(STATE)
    os.chmod(STATE, 0o755)
    with open(STATE + "/refresh_token", "w", encoding="ascii") as file:
        file.write("S3CR3T")
    os.chown(STATE + "/refresh_token", user.pw_uid, user.pw_gid)
    service.start()
    info = os.stat(STATE)
    assert (info.st_uid, info.st_gid, stat.S_IMODE(info.st_mode)) == (
        user.pw_uid, user.pw_gid, 0o700)
    with open(STATE + "/refresh_token", encoding="ascii") as file:
        assert file.read() == "S3CR3T"


def test_the_log_goes_to_syslog_and_holds_nothing_up(service):
    syslog = Syslog()
    os.chmod(LOG_SOCKET, 0o666)
    try:
        pid = service.start()
        # There is no configuration, which is the first that it says. OpenRC
        # has something to say as well.
        seen = 0
        while "cloud_action_daemon" not in [
                identity for _, identity, _ in syslog.wait_for(seen)]:
            seen += 1
            assert len(syslog.wait_for(seen)) >= seen
        first = [text for _, identity, text in syslog.wait_for(seen)
                 if identity == "cloud_action_daemon"][0]
        assert "Failed to load config file" in first
        for descriptor in range(3):
            assert os.readlink("/proc/%d/fd/%d" % (pid, descriptor)) == (
                "/dev/null")
    finally:
        syslog.close()


def test_status_tells_whether_it_runs(service):
    assert service.do("status") == STOPPED
    service.start()
    assert service.do("status") == 0
    assert service.do("stop") == 0
    assert service.do("status") == STOPPED


def test_a_second_start_changes_nothing(service):
    pid = service.start()
    assert service.do("start") == 0
    assert service.pid() == pid


def test_stop_ends_it_and_a_second_stop_is_no_error(service):
    service.start()
    assert service.do("stop") == 0
    service.wait_until_down()
    assert not os.path.exists(PID_FILE)
    assert service.do("stop") == 0


def test_restart_makes_another_process(service):
    pid = service.start()
    assert service.do("restart") == 0
    service.wait_until_up()
    assert service.pid() != pid


def test_restart_starts_what_was_stopped(service):
    assert service.do("restart") == 0
    service.wait_until_up()
    assert service.do("status") == 0


@pytest.mark.parametrize("number", (signal.SIGKILL, signal.SIGHUP),
                         ids=("crash", "reload"))
def test_when_it_ends_by_itself_it_can_be_started(service, number):
    pid = service.start()
    # Its name goes before it has ended.
    process = os.pidfd_open(pid)
    signal.pidfd_send_signal(process, number)
    assert select.select([process], [], [], 20)[0]
    os.close(process)
    if service.init == "sysvinit":
        assert service.do("status") not in (0, STOPPED)
        assert service.do("start") == 0
    # OpenRC starts it by itself.
    service.wait_until_up()
    assert service.do("status") == 0
    assert service.pid() != pid


@pytest.fixture
def started_by_the_bus(service, device):
    """The daemon as the bus starts it, for a call that it gets."""
    if service.init == "openrc":
        pytest.skip("the bus starts nothing there")
    program = os.path.join(device, service.init, "sbin/cloud_action_daemon")
    with subprocess.Popen([program], user="cloud-action", group="cloud-action",
                          extra_groups=[], stdin=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL) as process:
        service.wait_until_up()
        yield process
        try:
            # The script has ended it.
            assert process.wait(20) == 0
        finally:
            process.kill()


def test_what_the_bus_has_started_is_looked_after(service, started_by_the_bus):
    assert service.do("start") == 0
    assert service.do("status") == 0
    assert service.do("stop") == 0
    service.wait_until_down()


def test_what_the_bus_has_started_is_stopped(service, started_by_the_bus):
    assert service.do("stop") == 0
    service.wait_until_down()


def test_a_pid_file_of_a_process_long_gone_does_no_harm(service):
    with subprocess.Popen(["true"]) as process:
        pass
    leave_pid_file(process.pid)
    assert service.do("status") != 0
    service.start()


def test_a_pid_file_that_names_a_stranger_does_him_no_harm(
        service, stranger):
    leave_pid_file(stranger.pid)
    assert service.do("status") != 0
    assert service.do("stop") == 0
    leave_pid_file(stranger.pid)
    assert service.start() != stranger.pid


def test_what_cannot_be_waited_for_is_said(installed):
    with open(SCRIPT, encoding="utf-8") as file:
        lines = file.read().splitlines()
    assert [line for line in RELIED_ON[installed].splitlines()
            if line not in lines] == []


def test_the_script_is_in_the_form_of_its_shell(installed):
    subprocess.run(["sh", "-n", SCRIPT], check=True)
    done = subprocess.run([SCRIPT, "nonsense"], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, check=False)
    assert done.returncode != 0
    assert done.stderr
