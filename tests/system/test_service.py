# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The exported D-Bus service, as peers of other makes see it."""

import json
import subprocess
import threading
import xml.etree.ElementTree

import pytest
from bus_client import BusClient, CallError
from cloud import Reply
from conftest import ENDPOINT, Caller
from daemon_process import INTERFACE, NAME, PATH, ROOT

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
STANDARD = {"org.freedesktop.DBus.Introspectable",
            "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"}


def introspect(client, path):
    signature, (text,) = client.call(
        NAME, path, "org.freedesktop.DBus.Introspectable", "Introspect")
    assert signature == "s"
    return xml.etree.ElementTree.fromstring(text)


def test_introspection_names_the_method_and_its_arguments(daemon, client):
    daemon.start()
    root = introspect(client, PATH)
    (interface,) = [i for i in root.findall("interface")
                    if i.get("name") == INTERFACE]
    (method,) = interface.findall("method")
    assert method.get("name") == "RedirectRequest"
    assert [(a.get("name"), a.get("type"), a.get("direction"))
            for a in method.findall("arg")] == [
        ("endpoint", "s", "in"), ("method", "s", "in"), ("body", "s", "in"),
        ("status_code", "i", "out"), ("response_body", "s", "out")]
    assert interface.findall("property") == []
    assert interface.findall("signal") == []


def test_introspection_shows_nothing_but_the_standard_interfaces_beside_it(
        daemon, client):
    daemon.start()
    names = {i.get("name") for i in introspect(client, PATH)
             .findall("interface")}
    assert names - STANDARD == {INTERFACE}


def test_introspection_leads_from_the_root_to_the_object(daemon, client):
    daemon.start()
    path = "/"
    for name in PATH.strip("/").split("/"):
        # A node may name a child by a path of several steps.
        children = {child.get("name").split("/")[0] for child in
                    introspect(client, path).findall("node")}
        assert children == {name}
        path = path.rstrip("/") + "/" + name


def test_the_object_manager_lists_the_one_object(daemon, client):
    daemon.start()
    signature, (objects,) = client.call(
        NAME, ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
    assert signature == "a{oa{sa{sv}}}"
    assert list(objects) == [PATH]
    assert set(objects[PATH]) - STANDARD == {INTERFACE}
    assert objects[PATH][INTERFACE] == {}


def test_the_object_manager_is_introspectable(daemon, client):
    daemon.start()
    names = {i.get("name") for i in introspect(client, ROOT)
             .findall("interface")}
    assert "org.freedesktop.DBus.ObjectManager" in names


def test_busctl_calls_it(provision, cloud):
    provision()
    cloud.replies.append(Reply.json({"on": True}))
    done = subprocess.run(
        ["busctl", "--system", "--json=short", "call", NAME, PATH, INTERFACE,
         "RedirectRequest", "sss", ENDPOINT, "GET", ""],
        capture_output=True, text=True, timeout=30, check=False)
    assert done.stderr == ""
    assert json.loads(done.stdout) == {
        "type": "is", "data": [200, '{"on":true}']}


def test_busctl_shows_the_error(daemon):
    daemon.start()
    done = subprocess.run(
        ["busctl", "--system", "call", NAME, PATH, INTERFACE,
         "RedirectRequest", "sss", ENDPOINT, "GET", ""],
        capture_output=True, text=True, timeout=30, check=False)
    assert done.returncode != 0
    assert done.stderr == ("Call failed: actions/invalid_arguments: Endpoint "
                           "%s not whitelisted\n" % ENDPOINT)


@pytest.mark.parametrize("signature, arguments, message", [
    ("", [], "Too few parameters in a method call"),
    ("s", ["x"], "Too few parameters in a method call"),
    ("ss", [ENDPOINT, "GET"], "Too few parameters in a method call"),
    ("iss", [1, "GET", ""], "Method parameter type mismatch"),
    ("sis", [ENDPOINT, 1, ""], "Method parameter type mismatch"),
    ("ssi", [ENDPOINT, "GET", 1], "Method parameter type mismatch"),
    ("ssv", [ENDPOINT, "GET", ["s", ""]], "Method parameter type mismatch"),
    ("oss", ["/", "GET", ""], "Method parameter type mismatch"),
    ("ssas", [ENDPOINT, "GET", [""]], "Method parameter type mismatch"),
    ("ssay", [ENDPOINT, "GET", [65]], "Method parameter type mismatch"),
    ("si", [ENDPOINT, 1], "Method parameter type mismatch"),
    ("sisss", [ENDPOINT, 1, "", "", ""], "Method parameter type mismatch"),
    ("(sss)", [[ENDPOINT, "GET", ""]], "Method parameter type mismatch"),
    ("ssss", [ENDPOINT, "GET", "", ""], "Too many parameters in a method call"),
    ("sssi", [ENDPOINT, "GET", "", 1], "Too many parameters in a method call"),
])
def test_arguments_of_another_shape_are_refused(
        provision, cloud, caller, signature, arguments, message):
    provision()
    with pytest.raises(CallError) as caught:
        caller.start_raw(signature, arguments).result()
    assert (caught.value.name, caught.value.message) == (INVALID_ARGS, message)
    caller.sync()
    assert cloud.connections == 0


@pytest.mark.parametrize("position", range(3))
def test_an_argument_with_a_noncharacter_is_refused(
        provision, cloud, caller, position):
    provision()
    arguments = [ENDPOINT, "GET", ""]
    arguments[position] += "\uffff"
    with pytest.raises(CallError) as caught:
        caller.request(*arguments)
    assert (caught.value.name, caught.value.message) == (
        INVALID_ARGS, "Method parameter type mismatch")
    assert cloud.connections == 0
    assert caller.request(ENDPOINT)[0] == 200


@pytest.mark.parametrize("path, interface, member, names", [
    (PATH, INTERFACE, "Nonsense", {"UnknownMethod"}),
    (PATH, NAME + ".Nonsense", "RedirectRequest",
     {"UnknownInterface", "UnknownMethod"}),
    (PATH + "/x", INTERFACE, "RedirectRequest", {"UnknownObject"}),
    ("/", INTERFACE, "RedirectRequest",
     {"UnknownInterface", "UnknownMethod", "UnknownObject"}),
    (ROOT, INTERFACE, "RedirectRequest",
     {"UnknownInterface", "UnknownMethod"}),
])
def test_a_call_of_something_unknown_gets_the_standard_error(
        daemon, client, caller, path, interface, member, names):
    daemon.start()
    with pytest.raises(CallError) as caught:
        client.call(NAME, path, interface, member, "sss", [ENDPOINT, "GET", ""])
    assert caught.value.name in {
        "org.freedesktop.DBus.Error." + name for name in names}
    caller.sync()


def test_there_are_no_properties(daemon, client):
    daemon.start()
    signature, (table,) = client.call(
        NAME, PATH, "org.freedesktop.DBus.Properties", "GetAll", "s",
        [INTERFACE])
    assert (signature, table) == ("a{sv}", {})
    with pytest.raises(CallError) as caught:
        client.call(NAME, PATH, "org.freedesktop.DBus.Properties", "Get", "ss",
                    [INTERFACE, "Token"])
    assert caught.value.name == "org.freedesktop.DBus.Error.UnknownProperty"


def test_the_object_leaves_the_object_manager_at_the_end(daemon, client):
    daemon.start()
    removed = client.watch_signal("org.freedesktop.DBus.ObjectManager",
                                  "InterfacesRemoved", path=ROOT)
    assert daemon.stop() == 0
    client.wait(lambda: removed, "the object to be taken back")
    path, interfaces = removed[0]
    assert path == PATH
    assert INTERFACE in interfaces


def test_replies_go_out_in_the_order_of_completion(provision, cloud, caller):
    provision()
    first, second = (Reply.json({"number": n}, gate=threading.Event())
                     for n in (1, 2))
    cloud.replies.append(first)
    one = caller.start(ENDPOINT + "1")
    cloud.wait_for(1)
    cloud.replies.append(second)
    two = caller.start(ENDPOINT + "2")
    cloud.wait_for(2)
    second.gate.set()
    assert caller.result(two) == (200, '{"number":2}')
    caller.sync()
    assert not one.done()
    first.gate.set()
    assert caller.result(one) == (200, '{"number":1}')


def test_many_calls_can_be_pending_at_once(provision, cloud, caller):
    provision()
    gate = threading.Event()
    count = 100
    cloud.replies.extend(Reply.json({"n": i}, gate=gate)
                         for i in range(count))
    pending = [caller.start("%s%d" % (ENDPOINT, i)) for i in range(count)]
    cloud.wait_for(count, 30)
    gate.set()
    answers = {caller.result(one) for one in pending}
    assert answers == {(200, '{"n":%d}' % i) for i in range(count)}


def test_a_caller_that_leaves_before_its_reply_does_no_harm(
        provision, cloud, caller, loop, bus):
    provision()
    reply = Reply(gate=threading.Event())
    cloud.replies.append(reply)
    short_lived = BusClient(loop, bus.address)
    Caller(short_lived).start(ENDPOINT)
    cloud.wait_for(1)
    short_lived.close()
    reply.gate.set()
    cloud.replies.append(Reply.json({"still": "here"}))
    assert caller.request(ENDPOINT) == (200, '{"still":"here"}')


def test_a_call_that_wants_no_reply_is_carried_out(
        provision, cloud, caller, client):
    provision()
    client.start(NAME, PATH, INTERFACE, "RedirectRequest", "sss",
                 [ENDPOINT + "quiet", "GET", ""], no_reply=True)
    assert cloud.wait_for(1).target == "/v1/quiet"
    caller.sync()


def test_a_refused_call_that_wants_no_reply_does_no_harm(
        daemon, caller, client):
    daemon.start()
    client.start(NAME, PATH, INTERFACE, "RedirectRequest", "s", ["x"],
                 no_reply=True)
    client.start(NAME, PATH, INTERFACE, "RedirectRequest", "sss",
                 ["x", "y", "z"], no_reply=True)
    caller.sync()
