# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The pieces together, as on a device: the daemon as its own user, under the
unit's system call filter, on a system bus with the policy that ships.
"""

import grp
import os
import shutil
import subprocess

import call_filter
import pki
import pytest
from agent_process import NAME as AGENT
from agent_process import AgentProcess
from bus_client import BusClient, LoopThread
from bus_peer import DO_NOT_QUEUE, REPLACE_EXISTING, Peer
from cloud import AUTHORITY, CloudApi, IdentityProvider, Server
from conftest import POLICY, PROJECT
from daemon_process import (CONFIG, INTERFACE, LOG_SOCKET, NAME, PATH,
                            REFRESH_TOKEN, Daemon, Files, Syslog)
from system_bus import ADDRESS, KINDS, SOCKET, SystemBus

FOLDER = "/etc/dbus-1/system.d"
# What an agent that runs as root brings for itself.
AGENT_POLICY = """\
<busconfig>
  <policy user="root"><allow own="%s"/></policy>
</busconfig>
""" % AGENT

EXISTS = 3
ENDPOINT = "https://cloud.vantrel.example/v1/"
AS_ITS_USER = ("setpriv", "--reuid=cloud-action", "--regid=cloud-action",
               "--clear-groups", "--")


@pytest.fixture(params=KINDS)
def bus(request):
    os.makedirs(FOLDER, exist_ok=True)
    shutil.copy(os.path.join(PROJECT, POLICY), FOLDER)
    with open(os.path.join(FOLDER, "agent.conf"), "w",
              encoding="ascii") as file:
        file.write(AGENT_POLICY)
    with SystemBus(request.param) as system_bus:
        yield system_bus
    shutil.rmtree(FOLDER)


@pytest.fixture
def provider(tmp_path):
    """The identity provider and the cloud, both up."""
    one = IdentityProvider("S3CR3T")
    servers = [
        Server(address, 443, pki.issue(AUTHORITY, str(tmp_path), name,
                                       [name + ".vantrel.example"]),
               answer=answer)
        for address, name, answer in (
            ("127.0.0.1", "identity", one),
            ("127.0.0.2", "cloud", CloudApi(one)))]
    yield one
    for server in servers:
        server.stop()


@pytest.fixture
def agent(bus):
    process = AgentProcess()
    yield process
    process.stop()


@pytest.fixture
def daemon(bus, program, device):
    """The daemon, not yet started, with its files as they are shipped."""
    folder = os.path.join(device, "under-filter")
    os.mkdir(folder)
    Files.clear()
    Files.write(CONFIG, "SMARTHOME_CLIENT_ID=client\n"
                        "SMARTHOME_CLIENT_SECRET=S3CR3T\n"
                        "SMARTHOME_SCOPE=scope\n")
    subprocess.run(["systemd-tmpfiles", "--create", os.path.join(
        PROJECT, "packaging/tmpfiles.d/cloud_action_daemon.conf")],
        check=True)
    loop = LoopThread()
    client = BusClient(loop, ADDRESS)
    syslog = Syslog()
    os.chmod(LOG_SOCKET, 0o666)
    one = Daemon(shutil.copy(program, folder), client, syslog,
                 lambda *_: None, call_filter.launcher(folder))
    yield one
    one.tear_down()
    syslog.close()
    client.close()
    loop.stop()
    Files.clear()
    shutil.rmtree(folder)


def request(user):
    """What a user gets for a request: the status, or the error's name."""
    peer = Peer(SOCKET, user)
    reply = peer.call("sss", (ENDPOINT + "lamps", "GET", ""),
                      destination=NAME, path=PATH, interface=INTERFACE,
                      member="RedirectRequest")
    peer.close()
    return reply.error or reply.text


def test_all_of_its_work_can_be_done(daemon, agent, provider):
    assert os.stat(CONFIG).st_gid == grp.getgrnam("cloud-action").gr_gid
    agent.appear()
    daemon.start(wrapper=AS_ITS_USER)
    agent.wait_for_call("UpdateState")
    # The agent tells of it by a broadcast signal.
    path = agent.set_credential("S3CR3T-code", [ENDPOINT])
    agent.wait_for_call("Complete", path)
    assert request("member") == "200"
    # It has answered, so it is done with the command.
    assert Files.read(REFRESH_TOKEN)
    assert request("root") == "200"
    assert request("plain") == "org.freedesktop.DBus.Error.AccessDenied"
    assert request("cloud-action") == (
        "org.freedesktop.DBus.Error.AccessDenied")
    path = agent.remove_credential()
    agent.wait_for_call("Complete", path)
    assert request("member") != "200"
    assert Files.read(REFRESH_TOKEN) is None
    path = agent.set_credential("", [ENDPOINT])
    agent.wait_for_call("Abort", path)
    # The agent comes and goes.
    updates = len(agent.calls(member="UpdateState"))
    agent.leave()
    agent.appear()
    agent.wait_for_call("UpdateState", count=updates + 1)
    daemon.tear_down()


def test_nobody_takes_its_name_from_it(daemon):
    daemon.start(wrapper=AS_ITS_USER)
    peer = Peer(SOCKET, "cloud-action")
    assert peer.request_name(
        NAME, REPLACE_EXISTING | DO_NOT_QUEUE) == EXISTS
    peer.close()
    assert request("member") != "org.freedesktop.DBus.Error.AccessDenied"
    daemon.tear_down()
