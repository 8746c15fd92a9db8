# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What was a secret leaves no trace in memory, and none in a core dump."""

import json
import os
import resource
import signal
import subprocess
import sys

import pytest
from bus_client import CallError
from cloud import Reply
from conftest import ENDPOINT, secret
from daemon_process import REFRESH_TOKEN
from memory_scan import find, sanitized


def settle(daemon, caller):
    """Nothing of what came before is under way any more."""
    caller.sync()
    daemon.wait_until_asleep()


def places(daemon, secrets):
    """What of some named secrets is where in the daemon's memory."""
    names = {text: name for name, text in secrets.items()}
    return sorted({(names[text], mapping, around)
                   for text, mapping, around in find(daemon.pid, names)})


@pytest.fixture
def readable(program):
    """Leaves out what looks into the memory where that makes no sense."""
    if sanitized(program):
        pytest.skip("the memory is the sanitizer's")


@pytest.fixture
def identity(serve, provider):
    """The identity provider, which would speak HTTP/2 too."""
    return serve("identity.vantrel.example", "127.0.0.1",
                 protocols=("h2", "http/1.1"), answer=provider)


@pytest.fixture
def set_credential(agent, daemon, identity, provider, caller):
    """Gives the daemon a credential; returns its secrets by name."""
    def give(round_name="old"):
        before = provider.access_tokens | provider.refresh_tokens
        code = secret("code")
        path = agent.set_credential(code, [ENDPOINT])
        agent.wait_for_call("Complete", path)
        # Its parameters are known for as long as it is published.
        agent.do("remove", path=path)
        (access,) = provider.access_tokens - before
        (refresh,) = provider.refresh_tokens - before
        return {round_name + " code": code, round_name + " access": access,
                round_name + " refresh": refresh}
    return give


def use(caller, cloud, count=3):
    """Requests of both kinds, with answers of several sizes."""
    for number in range(count):
        cloud.replies.extend([Reply.json({"a": "x" * 10 ** number})] * 2)
        assert caller.request(ENDPOINT + str(number))[0] == 200
        assert caller.request(ENDPOINT, "POST", '{"a":%d}' % number)[0] == 200


@pytest.fixture(params=["cloud", "cloud2"])
def any_cloud(request):
    """The cloud over each version of HTTP."""
    return request.getfixturevalue(request.param)


@pytest.fixture
def erasable(any_cloud, request):
    """Leaves out of some named secrets what HTTP/2 carries in its header.

    Its library copies header fields with an allocator that nobody can replace,
    and does not erase them (docs/decisions.md, "In memory").
    """
    over_http_2 = request.node.callspec.params["any_cloud"] == "cloud2"
    return lambda secrets: {
        name: text for name, text in secrets.items()
        if not over_http_2 or not name.endswith(("access", "query"))}


@pytest.mark.usefixtures("readable")
def test_a_secret_that_is_held_is_found(
        agent, daemon, set_credential, any_cloud, caller, config):
    """The search finds what is there, or the other tests show nothing."""
    agent.appear()
    daemon.start()
    held = set_credential()
    held["client secret"] = config["SMARTHOME_CLIENT_SECRET"]
    use(caller, any_cloud)
    settle(daemon, caller)
    assert {name for name, _, _ in places(daemon, held)} == {
        "old access", "old refresh", "client secret"}


@pytest.mark.usefixtures("readable")
def test_an_authorization_code_is_forgotten_once_it_is_exchanged(
        agent, daemon, set_credential, caller):
    agent.appear()
    daemon.start()
    code = set_credential()["old code"]
    settle(daemon, caller)
    assert places(daemon, {"code": code}) == []


@pytest.mark.usefixtures("readable")
def test_a_removed_credential_is_forgotten(
        agent, daemon, set_credential, any_cloud, erasable, caller):
    agent.appear()
    daemon.start()
    secrets = set_credential()
    use(caller, any_cloud)
    agent.wait_for_call("Complete", agent.remove_credential())
    settle(daemon, caller)
    assert places(daemon, erasable(secrets)) == []


@pytest.mark.usefixtures("readable")
def test_a_stored_credential_that_is_removed_is_forgotten(
        agent, daemon, provision, any_cloud, erasable, caller):
    agent.appear()
    state = provision()
    use(caller, any_cloud)
    agent.wait_for_call("Complete", agent.remove_credential())
    settle(daemon, caller)
    assert places(daemon, erasable({"access": state.access_token,
                                    "refresh": state.refresh_token})) == []


@pytest.mark.usefixtures("readable")
def test_a_replaced_credential_is_forgotten(
        agent, daemon, set_credential, any_cloud, erasable, caller):
    agent.appear()
    daemon.start()
    old = set_credential()
    use(caller, any_cloud)
    new = set_credential("new")
    settle(daemon, caller)
    assert places(daemon, erasable(old)) == []
    use(caller, any_cloud)
    assert {name for name, _, _ in places(daemon, new)} == {
        "new access", "new refresh"}


@pytest.mark.usefixtures("readable")
def test_an_access_token_that_was_refused_is_forgotten(
        agent, daemon, set_credential, any_cloud, erasable, caller):
    agent.appear()
    daemon.start()
    old = erasable(set_credential())
    use(caller, any_cloud)
    any_cloud.replies.append(Reply.json({}, 401))
    assert caller.request(ENDPOINT)[0] == 401
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    settle(daemon, caller)
    # The refresh token is needed still.
    old.pop("old refresh")
    assert places(daemon, old) == []


@pytest.mark.usefixtures("readable")
def test_a_credential_that_the_provider_refuses_is_forgotten(
        daemon, stored, identity, files, caller):
    token = stored()
    identity.replies.append(Reply.json({"error": "invalid_grant"}, 400))
    daemon.start()
    daemon.wait_for_log_like("ERROR", "Error parsing oauth2 response: .+")
    settle(daemon, caller)
    assert files.read(REFRESH_TOKEN) is None
    assert places(daemon, {"refresh": token}) == []


@pytest.mark.usefixtures("readable")
@pytest.mark.parametrize("reply", [
    Reply.json({"access_token": "S3CR3T-access-of-half-a-reply"}, 400),
    Reply.json({"refresh_token": "S3CR3T-access-of-half-a-reply"}),
    Reply(body=b'{"access_token":"S3CR3T-access-of-half-a-reply"'),
    Reply(body=b'{"access_token":"S3CR3T-access-of-half-a-reply"}', cut=47),
    Reply(body=b'["S3CR3T-access-of-half-a-reply", %s 1]' % (b"1," * 90000)),
], ids=["status 400", "one token", "half", "cut", "an array"])
def test_a_token_reply_that_fails_is_forgotten(
        agent, daemon, identity, caller, reply):
    agent.appear()
    daemon.start()
    code = secret("code")
    identity.replies.append(reply)
    path = agent.set_credential(code, [ENDPOINT])
    agent.wait_for_call("Abort", path)
    agent.do("remove", path=path)
    settle(daemon, caller)
    assert places(daemon, {"code": code,
                           "token": "S3CR3T-access-of-half-a-reply"}) == []


@pytest.mark.usefixtures("readable")
def test_what_passes_between_caller_and_cloud_is_forgotten(
        provision, daemon, any_cloud, erasable, caller):
    """It is the owner's, too."""
    provision()
    sent, answered = secret("body"), secret("answer")
    query, lost = secret("query"), secret("lost")
    for size in (1, 3000, 300000):
        fill = "x" * size
        any_cloud.replies.append(Reply.json({"a": [answered, fill]}))
        assert caller.request(ENDPOINT + "?q=" + query, "POST", json.dumps(
            {"b": [sent, fill]}))[0] == 200
        any_cloud.replies.append(Reply(body=b"{%s" % lost.encode()))
        with pytest.raises(CallError):
            caller.request(ENDPOINT)
    # Of a kept connection the HTTP library keeps what it received last.
    any_cloud.replies.append(Reply.json({"a": "x" * 300000}))
    assert caller.request(ENDPOINT)[0] == 200
    settle(daemon, caller)
    assert places(daemon, erasable(
        {"sent": sent, "answered": answered, "query": query,
         "lost": lost})) == []


# Core dumps.

def test_a_core_dump_is_forbidden_and_the_memory_is_closed(daemon, caller):
    daemon.start()
    with open("/proc/%d/limits" % daemon.pid, encoding="ascii") as file:
        (line,) = [line for line in file if "core file" in line]
    assert line.split()[-3:-1] == ["0", "0"]
    # Only one with a capability for it may look into it. What can be done
    # without is seen from a process that has none.
    done = subprocess.run(
        [sys.executable, "-c", "import ctypes, sys\n"
         "header = (ctypes.c_uint32 * 2)(0x20080522, 0)\n"
         "assert ctypes.CDLL(None).capset(header, (ctypes.c_uint32 * 6)())"
         " == 0\n"
         "open('/proc/self/mem', 'rb').close()\n"
         "open('/proc/%s/mem' % sys.argv[1], 'rb')\n", str(daemon.pid)],
        capture_output=True, text=True, check=False)
    assert "PermissionError" in done.stderr
    assert "/proc/%d/mem" % daemon.pid in done.stderr


def dies_with_a_core(folder):
    """Whether programs leave a core dump in `folder` here, as a rule."""
    child = subprocess.Popen(["/usr/bin/sleep", "60"], cwd=folder)
    child.send_signal(signal.SIGSEGV)
    child.wait()
    return bool(os.listdir(folder))


@pytest.fixture
def cores(tmp_path, monkeypatch):
    """A folder that core dumps go to, as large as they like."""
    before = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (before[1], before[1]))
    folder = tmp_path / "cores"
    folder.mkdir()
    try:
        if not dies_with_a_core(folder):
            pytest.skip("no program leaves a core dump in its folder here")
        for name in os.listdir(folder):
            os.unlink(folder / name)
        monkeypatch.chdir(folder)
        yield folder
    finally:
        resource.setrlimit(resource.RLIMIT_CORE, before)


@pytest.mark.parametrize("number", [signal.SIGSEGV, signal.SIGABRT,
                                    signal.SIGQUIT])
def test_a_crash_leaves_no_core_dump(daemon, provision, cores, number, program):
    if sanitized(program) and number == signal.SIGSEGV:
        pytest.skip("the sanitizer takes the signal for itself")
    provision()
    assert daemon.stop(number) == -number
    assert os.listdir(cores) == []
