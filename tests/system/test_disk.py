# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The state folder when the disk is full, or things there are not files."""

import os
import re
import socket
import stat
import threading

import pytest
from bus_client import CallError
from cloud import Reply
from conftest import ENDPOINT, secret
from daemon_process import CONFIG, ENDPOINTS, REFRESH_TOKEN, STATE

NEW = "https://cloud.vantrel.example/v2/"
NOT_WRITTEN = "ERROR Failed to write allowed endpoints to file: "
NOT_READ = "ERROR Failed to read file: " + ENDPOINTS
NOT_REMOVED = "ERROR Failed to remove refresh token file"
NOT_DELETED = "ERROR Unable to delete saved refresh token"
NOT_PROVISIONED = "Authorization code not provisioned"
FILLER = "/var/lib/filler"
PAGE = os.sysconf("SC_PAGE_SIZE")


def fill_up(pages_left=0):
    """Fills the state folder's disk up to so many pages."""
    with open(FILLER, "wb", buffering=0) as file:
        chunk = bytes(1 << 20)
        while chunk:
            try:
                file.write(chunk)
            except OSError:
                chunk = chunk[:len(chunk) // 2]
        # The last page may hold a part only; it counts as a whole.
        file.truncate((file.tell() // PAGE - pages_left) * PAGE)
    free = os.statvfs(STATE).f_bavail * os.statvfs(STATE).f_frsize
    assert free == pages_left * PAGE


def make_room():
    if os.path.exists(FILLER):
        os.unlink(FILLER)


@pytest.fixture(autouse=True)
def disk(files):
    """The disk as it should be, before and after."""
    yield
    make_room()
    os.umask(0o022)
    for path in (STATE, STATE + ".gone"):
        if os.path.islink(path) or os.path.isfile(path):
            os.unlink(path)
    files.clear()
    if os.path.isdir(STATE + ".gone"):
        for name in os.listdir(STATE + ".gone"):
            os.unlink(os.path.join(STATE + ".gone", name))
        os.rmdir(STATE + ".gone")


@pytest.fixture
def started(daemon, agent, identity):
    """Starts the daemon on whatever is there, with an agent."""
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")


@pytest.fixture
def set_credential(agent, caller, cloud):
    """Hands out a set command; it must end well and serve at once."""
    def give(*endpoints):
        path = agent.set_credential(secret("code"), endpoints or [NEW])
        agent.wait_for_call("Complete", path)
        # The token's file is written after the command is completed.
        caller.sync()
        assert agent.calls(path, "Abort") == []
        assert state_published(agent) == "true"
        assert caller.request((endpoints or [NEW])[0])[0] == 200
        assert cloud.requests
    return give


@pytest.fixture
def remove_credential(agent, caller):
    """Hands out a remove command; it must complete and be in force."""
    def give(aborted=False):
        path = agent.remove_credential()
        agent.wait_for_call("Complete", path)
        assert len(agent.calls(path, "Abort")) == aborted
        assert state_published(agent) == "false"
        for endpoint in (ENDPOINT, NEW):
            assert_refused(caller, endpoint,
                           "Endpoint %s not whitelisted" % endpoint)
    return give


@pytest.fixture
def refuse_credential(daemon, stored, agent, identity, caller):
    """Starts with a credential and has it refused after some damage."""
    def refuse(damage):
        stored()
        reply = Reply.json({"error": "invalid_grant"}, 400,
                           gate=threading.Event())
        identity.replies.append(reply)
        agent.appear()
        daemon.start()
        agent.wait_for_call("UpdateState")
        identity.wait_for(1)
        damage()
        reply.gate.set()
        daemon.wait_for_log("ERROR", "Error parsing oauth2 response: "
                            "invalid_grant - 400")
        caller.sync()
        assert len(identity.requests) == 1
    return refuse


def state_published(agent):
    (state,) = agent.calls(member="UpdateState")[-1].arguments
    return re.search(r'"_provisioned": <b (true|false)>', state).group(1)


def assert_refused(caller, endpoint, message):
    with pytest.raises(CallError) as caught:
        caller.request(endpoint)
    assert caught.value.message == "actions/invalid_arguments: " + message


def assert_new(files, provider, *before):
    """Both files hold the new state, for the owner alone; nothing else."""
    (token,) = provider.refresh_tokens - set(before)
    assert files.read(REFRESH_TOKEN) == token.encode()
    assert files.read(ENDPOINTS) == NEW.encode()
    assert names() == ["allowed_endpoints", "refresh_token"]
    for path in (REFRESH_TOKEN, ENDPOINTS):
        mode = os.lstat(path).st_mode
        assert stat.S_ISREG(mode) and stat.S_IMODE(mode) == 0o600


def names():
    return sorted(os.listdir(STATE))


# A disk without room.

def test_a_full_disk_costs_a_first_credential_at_the_next_start(
        daemon, started, set_credential, caller):
    fill_up()
    set_credential()
    assert daemon.log("ERROR")[-1] == NOT_WRITTEN + "No space left on device"
    assert names() == []
    assert daemon.stop() == 0
    daemon.start()
    assert_refused(caller, NEW, "Endpoint %s not whitelisted" % NEW)


def test_a_full_disk_keeps_the_stored_credential_and_endpoints(
        daemon, stored, started, set_credential, files, caller, identity):
    token = stored()
    assert daemon.stop() == 0
    daemon.start()
    fill_up()
    set_credential()
    assert daemon.log("ERROR") == [NOT_WRITTEN + "No space left on device"]
    assert files.read(REFRESH_TOKEN) == token.encode()
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert names() == ["allowed_endpoints", "refresh_token"]
    assert daemon.stop() == 0
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert identity.requests[-1].form()[0] == ("refresh_token", token)
    assert caller.request(ENDPOINT)[0] == 200


def test_a_disk_with_room_for_the_endpoints_alone_keeps_just_them(
        daemon, started, set_credential, files, caller):
    fill_up(pages_left=1)
    set_credential()
    assert daemon.log("ERROR") == [NOT_READ]  # From the start.
    assert files.read(ENDPOINTS) == NEW.encode()
    assert names() == ["allowed_endpoints"]
    assert daemon.stop() == 0
    daemon.start()
    assert_refused(caller, NEW, NOT_PROVISIONED)


def test_a_list_longer_than_the_room_leaves_no_part_of_it(
        daemon, started, set_credential, files, provider):
    fill_up(pages_left=2)
    set_credential(NEW, *["https://a.vantrel.example/%d/" % i
                          for i in range(1000)])
    assert daemon.log("ERROR")[-1] == NOT_WRITTEN + "No space left on device"
    (token,) = provider.refresh_tokens
    assert files.read(REFRESH_TOKEN) == token.encode()
    assert names() == ["refresh_token"]


def test_after_there_is_room_again_a_set_command_is_stored(
        started, set_credential, files, provider):
    fill_up()
    set_credential()
    before = set(provider.refresh_tokens)
    make_room()
    set_credential()
    assert_new(files, provider, *before)


def test_a_full_disk_does_not_keep_a_remove_command_from_deleting(
        daemon, stored, identity, agent, remove_credential):
    stored()
    fill_up()
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    remove_credential()
    assert daemon.log("ERROR") == []
    assert names() == []


def test_a_full_disk_does_not_keep_a_refused_credential(
        daemon, refuse_credential):
    refuse_credential(fill_up)
    assert NOT_DELETED not in daemon.log()
    assert names() == ["allowed_endpoints"]


def test_what_an_unfinished_write_left_behind_gives_its_room_back(
        daemon, agent, set_credential, identity, files, provider):
    for path in (REFRESH_TOKEN, ENDPOINTS):
        files.write(path + ".tmp.Ab1Cd2", bytes(PAGE))
    fill_up()
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    assert names() == []
    set_credential()
    assert daemon.log("ERROR") == [NOT_READ]
    assert_new(files, provider)


# A folder that cannot be written to, or is none.

def test_a_folder_that_is_read_only_keeps_what_is_stored(
        daemon, provision, agent, set_credential, files, caller, identity):
    agent.appear()
    token = provision().refresh_token
    os.chmod(STATE, 0o500)
    set_credential()
    assert daemon.log("ERROR") == [NOT_WRITTEN + "Permission denied"]
    assert files.read(REFRESH_TOKEN) == token.encode()
    assert files.read(ENDPOINTS) == ENDPOINT.encode()
    assert daemon.stop() == 0
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert identity.requests[-1].form()[0] == ("refresh_token", token)
    assert caller.request(ENDPOINT)[0] == 200


def test_a_read_only_folder_with_something_left_behind_is_survived(
        daemon, stored, identity, cloud, caller):
    stored()
    left = REFRESH_TOKEN + ".tmp.Ab1Cd2"
    os.close(os.open(left, os.O_CREAT))
    os.chmod(STATE, 0o500)
    daemon.start()
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert caller.request(ENDPOINT)[0] == 200
    assert daemon.log("ERROR") == []
    assert os.path.exists(left)


def hide():
    os.rename(STATE, STATE + ".gone")


def replace_by_file():
    hide()
    with open(STATE, "wb"):
        pass


def replace_by_dangling_link():
    hide()
    os.symlink("nowhere", STATE)


NO_FOLDER = pytest.mark.parametrize("damage, reason", [
    (hide, "No such file or directory"),
    (replace_by_file, "Not a directory"),
    (replace_by_dangling_link, "No such file or directory"),
], ids=["missing", "file", "dangling link"])


@NO_FOLDER
def test_without_its_folder_it_starts_and_serves_until_it_ends(
        daemon, files, started, set_credential, remove_credential, damage,
        reason):
    assert daemon.stop() == 0
    damage()
    daemon.start()
    assert daemon.log() == [NOT_READ]
    set_credential()
    assert daemon.log("ERROR")[-1] == NOT_WRITTEN + reason
    remove_credential()
    assert daemon.log("ERROR") == [NOT_READ, NOT_WRITTEN + reason]
    # It does not make the folder, nor write behind the link.
    assert not os.path.isdir(STATE)
    assert set(os.listdir("/var/lib")) <= {
        "cloud_action", "cloud_action.gone"}


@NO_FOLDER
def test_a_credential_refused_without_its_folder_is_gone_anyway(
        daemon, refuse_credential, cloud, caller, damage, reason):
    refuse_credential(damage)
    assert NOT_DELETED not in daemon.log()
    assert reason not in " ".join(daemon.log())
    assert caller.request(ENDPOINT)[0] == 401
    assert cloud.requests[0].field("Authorization") == "Bearer "


def test_a_folder_that_comes_back_is_written_to(
        daemon, started, set_credential, files, provider):
    hide()
    set_credential()
    assert daemon.log("ERROR")[-1] == NOT_WRITTEN + "No such file or directory"
    before = set(provider.refresh_tokens)
    os.rename(STATE + ".gone", STATE)
    set_credential()
    assert_new(files, provider, *before)


def test_a_link_to_a_folder_is_as_good_as_the_folder(
        daemon, agent, identity, set_credential, remove_credential, files,
        provider):
    hide()
    os.symlink("cloud_action.gone", STATE)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    set_credential()
    assert_new(files, provider)
    remove_credential()
    assert os.listdir(STATE + ".gone") == []
    assert os.path.islink(STATE)


# Things in place of the two files.

TARGET = "/tmp/target"
# An endpoint as well as a token, so no secret: read as endpoints, what is none
# is told.
TARGET_CONTENT = "https://a.vantrel.example/elsewhere"


@pytest.fixture
def target(files):
    """A file elsewhere; nothing but its name may ever be touched."""
    files.write(TARGET, TARGET_CONTENT)
    os.chmod(TARGET, 0o640)
    yield
    assert files.read(TARGET) == TARGET_CONTENT.encode()
    assert stat.S_IMODE(os.stat(TARGET).st_mode) == 0o640
    os.unlink(TARGET)


def put_dangling_link(path):
    os.symlink("nowhere", path)


def put_link_to_itself(path):
    os.symlink(os.path.basename(path), path)


def put_link_to_file(path):
    os.symlink(TARGET, path)


def put_link_to_device(path):
    os.symlink("/dev/full", path)


def put_pipe(path):
    os.mkfifo(path)


def put_unreadable_file(path):
    with open(path, "wb") as file:
        file.write(b"S3CR3T-unreadable")
    os.chmod(path, 0)


def put_socket(path):
    with socket.socket(socket.AF_UNIX) as sock:
        sock.bind(path)


PUT = [put_dangling_link, put_link_to_itself, put_link_to_file,
       put_link_to_device, put_pipe, put_unreadable_file, put_socket]
ODD = pytest.mark.parametrize("put", PUT, ids=lambda put: put.__name__[4:])


@pytest.mark.parametrize("path", [REFRESH_TOKEN, ENDPOINTS],
                         ids=os.path.basename)
@ODD
def test_a_set_command_replaces_whatever_is_in_place_of_a_file(
        target, daemon, agent, identity, set_credential, files, provider,
        path, put):
    put(path)
    provider.refresh_tokens.add(TARGET_CONTENT)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    if (path, put) == (REFRESH_TOKEN, put_link_to_file):
        # It is a token like any other; its refresh must not outlast the set.
        daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    provider.refresh_tokens.discard(TARGET_CONTENT)
    set_credential()
    assert_new(files, provider)
    assert sorted(os.listdir("/var/lib")) == ["cloud_action"]


@pytest.mark.parametrize("path", [REFRESH_TOKEN, ENDPOINTS],
                         ids=os.path.basename)
@ODD
def test_a_remove_command_deletes_whatever_is_in_place_of_a_file(
        target, daemon, agent, identity, remove_credential, path, put):
    put(path)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    unread = path != ENDPOINTS or put != put_link_to_file
    assert (NOT_READ in daemon.log()) == unread
    remove_credential()
    assert names() == []
    assert NOT_REMOVED not in daemon.log()


@ODD
def test_a_refused_credential_takes_whatever_is_in_place_of_its_file_along(
        target, daemon, refuse_credential, put):
    def damage():
        os.unlink(REFRESH_TOKEN)
        put(REFRESH_TOKEN)
    refuse_credential(damage)
    assert NOT_DELETED not in daemon.log()
    assert names() == ["allowed_endpoints"]


@pytest.mark.parametrize("put, provisioned, refreshes", [
    (put_dangling_link, "false", 0), (put_link_to_itself, "false", 0),
    (put_link_to_file, "true", 1), (put_link_to_device, "true", 0),
    (put_pipe, "true", 0), (put_unreadable_file, "true", 0),
    (put_socket, "true", 0),
], ids=lambda value: getattr(value, "__name__", str(value)))
def test_whatever_is_in_place_of_the_token_is_read_if_it_is_a_file(
        target, daemon, agent, identity, caller, files, put, provisioned,
        refreshes):
    put(REFRESH_TOKEN)
    files.write(ENDPOINTS, ENDPOINT)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    assert state_published(agent) == provisioned
    assert daemon.count_log("INFO", "Refreshing access token.") == refreshes
    assert daemon.log("ERROR") == [] or refreshes
    if refreshes:
        # The provider does not know it: the link goes, the file stays.
        daemon.wait_for_log("ERROR", "Error parsing oauth2 response: "
                            "invalid_grant - 400")
        caller.sync()
        assert names() == ["allowed_endpoints"]


def test_a_link_in_place_of_the_endpoints_is_read_through(
        daemon, files, caller):
    files.write(TARGET, ENDPOINT)
    os.symlink(TARGET, ENDPOINTS)
    daemon.start()
    assert_refused(caller, ENDPOINT, NOT_PROVISIONED)
    os.unlink(TARGET)


def test_another_name_of_the_token_keeps_its_content(
        daemon, provision, agent, set_credential, files, provider):
    agent.appear()
    token = provision().refresh_token
    os.link(REFRESH_TOKEN, "/var/lib/other")
    set_credential()
    assert_new(files, provider, token)
    assert files.read("/var/lib/other") == token.encode()
    os.unlink("/var/lib/other")


def test_who_has_the_old_files_open_goes_on_reading_the_old_content(
        provision, agent, set_credential, files, provider):
    agent.appear()
    token = provision().refresh_token
    with open(REFRESH_TOKEN, "rb") as one, open(ENDPOINTS, "rb") as other:
        set_credential()
        assert one.read() == token.encode()
        assert other.read() == ENDPOINT.encode()
    assert_new(files, provider, token)


@pytest.mark.parametrize("mask", [0, 0o077, 0o777], ids=oct)
def test_both_files_are_for_the_owner_alone_whatever_the_umask_is(
        daemon, agent, identity, set_credential, files, provider, mask):
    for path in (REFRESH_TOKEN, ENDPOINTS):
        files.write(path, "")
        os.chmod(path, 0o666)
    agent.appear()
    os.umask(mask)
    daemon.start()
    os.umask(0o022)
    agent.wait_for_call("UpdateState")
    set_credential()
    assert_new(files, provider)


@pytest.mark.parametrize("full", [False, True], ids=["empty", "full"])
def test_a_folder_in_place_of_the_token_stays_and_is_told(
        daemon, agent, identity, set_credential, remove_credential, files,
        full):
    os.mkdir(REFRESH_TOKEN)
    if full:
        files.write(REFRESH_TOKEN + "/x", "x")
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    set_credential()
    assert files.read(ENDPOINTS) == NEW.encode()
    assert names() == ["allowed_endpoints", "refresh_token"]
    assert os.listdir(REFRESH_TOKEN) == ["x"] * full
    remove_credential(aborted=True)
    assert daemon.log("ERROR") == [NOT_READ, NOT_REMOVED]
    assert names() == ["refresh_token"]
    assert os.listdir(REFRESH_TOKEN) == ["x"] * full


def test_a_folder_in_place_of_the_endpoints_does_not_stop_a_remove_command(
        daemon, agent, identity, set_credential, remove_credential, files,
        provider):
    os.mkdir(ENDPOINTS)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    set_credential()
    (token,) = provider.refresh_tokens
    assert files.read(REFRESH_TOKEN) == token.encode()
    remove_credential()
    assert names() == ["allowed_endpoints"]
    assert daemon.log("ERROR") == [NOT_READ, NOT_WRITTEN + "Is a directory"]


def test_a_folder_in_place_of_a_refused_token_is_told(
        daemon, refuse_credential):
    def damage():
        os.unlink(REFRESH_TOKEN)
        os.mkdir(REFRESH_TOKEN)
    refuse_credential(damage)
    assert daemon.log("ERROR")[-1] == NOT_DELETED
    assert names() == ["allowed_endpoints", "refresh_token"]


# What was left behind.

def test_a_link_left_behind_goes_and_what_it_leads_to_stays(
        target, daemon, caller):
    for path in (REFRESH_TOKEN, ENDPOINTS):
        put_link_to_file(path + ".tmp.Ab1Cd2")
        put_dangling_link(path + ".tmp.Ab1Cd3")
        put_pipe(path + ".tmp.Ab1Cd4")
    daemon.start()
    caller.sync()
    assert names() == []


def test_a_folder_named_like_something_left_behind_is_survived(
        daemon, agent, identity, set_credential, files):
    left = ENDPOINTS + ".tmp.Ab1Cd2"
    os.mkdir(left)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    set_credential()
    assert names() == ["allowed_endpoints", os.path.basename(left),
                       "refresh_token"]


def test_a_thousand_files_left_behind_are_all_removed(
        daemon, caller, files):
    for i in range(500):
        for path in (REFRESH_TOKEN, ENDPOINTS):
            files.write("%s.tmp.%06d" % (path, i), "")
    daemon.start()
    caller.sync()
    assert names() == []


# Files too large to be true.

GIGABYTE = 1 << 30


def put_huge_file(path):
    """Takes no room: it is one hole."""
    with open(path, "wb") as file:
        file.truncate(GIGABYTE)


def peak_kb(daemon):
    return int(daemon.status()["VmHWM"].split()[0])


@pytest.mark.parametrize("path, told", [
    (CONFIG, "ERROR Failed to load config file " + CONFIG),
    (ENDPOINTS, NOT_READ), (REFRESH_TOKEN, NOT_READ),
], ids=lambda value: os.path.basename(value))
def test_a_huge_file_is_not_read_and_costs_no_memory(
        daemon, agent, identity, set_credential, files, path, told):
    put_huge_file(path)
    agent.appear()
    daemon.start()
    agent.wait_for_call("UpdateState")
    assert daemon.log("ERROR")[0] == told
    assert daemon.count_log("INFO", "Refreshing access token.") == 0
    set_credential()
    assert peak_kb(daemon) < 100 << 10
    assert files.read(ENDPOINTS) == NEW.encode()
