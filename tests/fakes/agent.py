#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A stand-in for the device cloud agent.

It owns org.vantrel.Dosset on the bus and publishes an object manager with
the Manager object and with Command objects. It takes the signatures of its
methods from the interface descriptions in interfaces/: a call of another
signature is refused. It prints every call that it gets, with the exact types.

To hand a command to the daemon, as the cloud would:

  busctl call org.vantrel.Dosset /org/vantrel/Dosset/Manager \\
    org.vantrel.Dosset.Manager AddCommand s '{
      "name": "_cloudActionConfiguration._setCredential",
      "parameters": {
        "_authorizationCode": "CODE",
        "_allowedEndpoints": ["https://cloud.vantrel.example/v1/"]}}'

AddCommand answers with the command's id; its object is at
/org/vantrel/Dosset/commands/ID. GetState answers with the published state.

With --json the program is driven by a test instead: one JSON object per line
comes in and goes out (see AgentProcess in tests/support/agent_process.py). With
--flat besides, every value that goes out is a string.
"""

import argparse
import glob
import json
import os
import sys
import time
import xml.etree.ElementTree

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

from values import build, describe, plain

NAME = "org.vantrel.Dosset"
ROOT = "/org/vantrel/Dosset"
MANAGER_PATH = ROOT + "/Manager"
COMMANDS = ROOT + "/commands/"
MANAGER = NAME + ".Manager"
COMMAND = NAME + ".Command"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
PEER = "org.freedesktop.DBus.Peer"
FAILED = "org.freedesktop.DBus.Error.Failed"
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
UNKNOWN_OBJECT = "org.freedesktop.DBus.Error.UnknownObject"

INTERFACES = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.realpath(__file__)))), "interfaces")

DEFAULTS = {"s": "", "a{sv}": {}}


class Contract:
    """Signatures of methods and properties, read from the descriptions."""

    def __init__(self, folder):
        self.methods = {}     # (interface, method) -> (in, out)
        self.properties = {}  # interface -> {property: signature}
        self.texts = {}       # interface -> its description
        for path in sorted(glob.glob(os.path.join(folder, "*.xml"))):
            root = xml.etree.ElementTree.parse(path).getroot()
            for interface in root.iter("interface"):
                self._read(interface)
        for needed in (MANAGER, COMMAND):
            if needed not in self.properties:
                raise ValueError("no description of %s in %s" % (
                    needed, folder))

    def _read(self, interface):
        name = interface.get("name")
        for method in interface.findall("method"):
            arguments = method.findall("arg")
            self.methods[name, method.get("name")] = tuple(
                "".join(a.get("type") for a in arguments
                        if a.get("direction", "in") == direction)
                for direction in ("in", "out"))
        self.texts[name] = xml.etree.ElementTree.tostring(
            interface, encoding="unicode").strip()
        self.properties[name] = {p.get("name"): p.get("type")
                                 for p in interface.findall("property")}

    def defaults(self, interface):
        """All properties of `interface`, empty."""
        return {name: [kind, DEFAULTS[kind]]
                for name, kind in self.properties[interface].items()}


class Agent:
    """The agent on the bus. `report` is called with each event, a dict."""

    def __init__(self, address, contract, report):
        self._address = address
        self._contract = contract
        self._report = report
        self._loop = dbus.mainloop.glib.DBusGMainLoop()
        self._bus = None
        self._stranger = None
        self._objects = {}   # path -> {interface: {property: value}}
        self._behaviour = {} # member -> dict
        self._held = []      # (member, connection, reply)
        self._state = "{}"
        self._last_id = 0
        self.publish(MANAGER_PATH, MANAGER,
                     contract.defaults(MANAGER), announce=False)

    # What a test can make it do. Each name is a "do" of the control channel.

    def connect(self):
        """Comes onto the bus with a new connection, without the name."""
        self.disconnect()
        self._bus = self._open()
        self._bus.add_message_filter(self._on_message)
        return self._bus.get_unique_name()

    def disconnect(self):
        """Leaves the bus; calls that are held get no answer from here."""
        if self._bus is not None:
            self._held = []
            self._bus.close()
            self._bus = None

    def own(self):
        """Takes the well-known name."""
        taken = self._bus.request_name(NAME, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
        if taken not in (dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER,
                         dbus.bus.REQUEST_NAME_REPLY_ALREADY_OWNER):
            raise RuntimeError("the name %s is taken" % NAME)

    def disown(self):
        """Gives the name up but stays on the bus."""
        self._bus.release_name(NAME)

    def publish(self, path, interface, properties, announce=True):
        """Adds an interface to an object; replaces one of the same name.

        `properties` holds [signature, value] pairs; nothing checks them.
        """
        self._objects.setdefault(path, {})[interface] = {
            name: build("v", value) for name, value in properties.items()}
        if announce:
            self.announce(path, [interface])

    def announce(self, path, interfaces=None):
        """Sends InterfacesAdded for an object (once more, perhaps)."""
        held = self._objects[path]
        self._signal(self._bus, ROOT, OBJECT_MANAGER, "InterfacesAdded",
                     "oa{sa{sv}}",
                     [dbus.ObjectPath(path),
                      dbus.Dictionary({name: self._table(held[name])
                                       for name in interfaces or held},
                                      signature="sa{sv}")])

    def remove(self, path, interfaces=None, announce=True):
        """Takes interfaces (all) off an object and says so."""
        held = self._objects[path]
        names = list(interfaces or held)
        for name in names:
            del held[name]
        if not held:
            del self._objects[path]
        if announce:
            self._signal(self._bus, ROOT, OBJECT_MANAGER, "InterfacesRemoved",
                         "oas", [dbus.ObjectPath(path),
                                 dbus.Array(names, signature="s")])

    def change(self, path, interface, properties, invalidated=()):
        """Changes properties and emits PropertiesChanged."""
        changed = {name: build("v", value)
                   for name, value in properties.items()}
        self._objects[path][interface].update(changed)
        self._signal(self._bus, path, PROPERTIES, "PropertiesChanged",
                     "sa{sv}as", [interface, self._table(changed),
                                  dbus.Array(invalidated, signature="s")])

    def signal(self, path, interface, member, signature, arguments,
               forged=False, destination=None):
        """Sends any signal; with `forged` from a connection of no name."""
        if forged and self._stranger is None:
            self._stranger = self._open()
        values = [build(kind, value) for kind, value
                  in zip(dbus.Signature(signature), arguments)]
        self._signal(self._stranger if forged else self._bus,
                     path, interface, member, signature, values, destination)

    def behave(self, member, how, count=None, **details):
        """Says how to answer `member`, for `count` calls or from now on.

        `how` is "reply" (as usual), "hold" (until release), "ignore" (never
        answer), "error" (details: name, message) or "lie" (details:
        signature, arguments: a reply of a shape of one's own).
        """
        if how not in ("reply", "hold", "ignore", "error", "lie"):
            raise ValueError("no such behaviour: " + how)
        self._behaviour[member] = {"how": how, "count": count, **details}

    def sync(self):
        """Returns when the bus has taken all that was sent so far."""
        for bus in (self._bus, self._stranger):
            if bus is not None:
                bus.get_name_owner("org.freedesktop.DBus")

    def release(self, member):
        """Sends the replies that were held for `member`."""
        ready = [entry for entry in self._held if entry[0] == member]
        self._held = [entry for entry in self._held if entry[0] != member]
        for _, bus, reply in ready:
            bus.send_message(reply)
        for _, bus, _ in ready:
            bus.flush()
        return len(ready)

    # The bus side.

    def _open(self):
        return dbus.bus.BusConnection(self._address, mainloop=self._loop)

    @staticmethod
    def _table(properties):
        return dbus.Dictionary(properties, signature="sv")

    @staticmethod
    def _signal(bus, path, interface, member, signature, arguments,
                destination=None):
        message = dbus.lowlevel.SignalMessage(path, interface, member)
        if destination:
            message.set_destination(destination)
        message.append(*arguments, signature=signature)
        bus.send_message(message)
        bus.flush()

    def _on_message(self, bus, message):
        if message.get_type() == dbus.lowlevel.MESSAGE_TYPE_SIGNAL:
            if message.is_signal("org.freedesktop.DBus.Local",
                                 "Disconnected"):
                self._report({"event": "disconnected"})
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        if message.get_type() != dbus.lowlevel.MESSAGE_TYPE_METHOD_CALL:
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        self._on_call(bus, message)
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def _on_call(self, bus, message):
        arguments = message.get_args_list()
        call = {"event": "call", "time": time.monotonic(),
                "sender": message.get_sender(), "path": message.get_path(),
                "interface": message.get_interface(),
                "member": message.get_member(),
                "signature": message.get_signature(),
                "arguments": [describe(a) for a in arguments],
                "refused": None}
        afterwards = []
        try:
            reply = self._answer(message, arguments, afterwards)
        except Refusal as refusal:
            call["refused"] = str(refusal)
            reply = dbus.lowlevel.ErrorMessage(message, refusal.name,
                                               str(refusal))
        self._report(call)
        behaviour = self._behaviour_for(call["member"])
        how = behaviour["how"]
        if how == "error":
            reply = dbus.lowlevel.ErrorMessage(message, behaviour["name"],
                                               behaviour["message"])
        elif how == "lie":
            reply = dbus.lowlevel.MethodReturnMessage(message)
            signature = behaviour["signature"]
            reply.append(*[build(kind, value) for kind, value in zip(
                dbus.Signature(signature), behaviour["arguments"])],
                signature=signature)
        if how == "hold":
            self._held.append((call["member"], bus, reply))
        elif how != "ignore" and not message.get_no_reply():
            bus.send_message(reply)
            bus.flush()
        for step in afterwards:
            step()

    def _behaviour_for(self, member):
        behaviour = self._behaviour.get(member, {"how": "reply"})
        if behaviour.get("count") is not None:
            behaviour["count"] -= 1
            if behaviour["count"] == 0:
                del self._behaviour[member]
        return behaviour

    def _answer(self, message, arguments, afterwards):
        """The usual reply to a call; raises Refusal."""
        path, interface = message.get_path(), message.get_interface()
        member, signature = message.get_member(), message.get_signature()
        reply = dbus.lowlevel.MethodReturnMessage(message)
        if (interface, member) == (PEER, "Ping"):
            return reply
        if (interface, member) == (INTROSPECTABLE, "Introspect"):
            reply.append(self._introspect(path), signature="s")
            return reply
        if path == ROOT:
            if (interface, member) != (OBJECT_MANAGER, "GetManagedObjects"):
                raise Refusal(UNKNOWN_METHOD, "no such method here")
            reply.append(dbus.Dictionary(
                {dbus.ObjectPath(p): dbus.Dictionary(
                    {i: self._table(table) for i, table in held.items()},
                    signature="sa{sv}") for p, held in self._objects.items()},
                signature="oa{sa{sv}}"), signature="a{oa{sa{sv}}}")
            return reply
        if path not in self._objects:
            raise Refusal(UNKNOWN_OBJECT, "no such object: " + path)
        held = self._objects[path]
        if interface == PROPERTIES:
            return self._properties(reply, held, member, arguments)
        if interface not in held or (
                interface, member) not in self._contract.methods:
            raise Refusal(UNKNOWN_METHOD, "no such method here")
        wanted, returned = self._contract.methods[interface, member]
        if signature != wanted:
            raise Refusal(INVALID_ARGS, "%s takes %s, not %s" % (
                member, wanted or "nothing", signature or "nothing"))
        if returned:
            reply.append(self._work_out(member, arguments, afterwards),
                         signature=returned)
        else:
            self._take(path, interface, member, arguments, afterwards)
        return reply

    def _properties(self, reply, held, member, arguments):
        if member == "GetAll" and arguments and arguments[0] in held:
            reply.append(self._table(held[arguments[0]]), signature="a{sv}")
            return reply
        if member == "Get" and arguments and arguments[0] in held and (
                arguments[1] in held[arguments[0]]):
            reply.append(held[arguments[0]][arguments[1]], signature="v")
            return reply
        raise Refusal(INVALID_ARGS, "no such property")

    def _work_out(self, member, arguments, afterwards):
        """Methods that return a string."""
        if member == "GetState":
            return self._state
        if member == "AddCommand":
            return self._add_command(arguments[0], afterwards)
        return ""

    def _add_command(self, text, afterwards):
        try:
            command = json.loads(text)
            parameters = {}
            for name, value in command.get("parameters", {}).items():
                kind = "as" if isinstance(value, list) else "s"
                parameters[str(name)] = [kind, value]
                build("v", parameters[str(name)])
            values = self._contract.defaults(COMMAND)
            if not isinstance(command["name"], str):
                raise TypeError("a name is a string")
            values["Name"][1] = command["name"]
        except (ValueError, TypeError, KeyError, AttributeError):
            raise Refusal(INVALID_ARGS, "not a command: an object with a "
                          '"name" and "parameters" is expected') from None
        self._last_id += 1
        identity = str(self._last_id)
        values["Id"][1] = identity
        values["State"][1] = "queued"
        values["Origin"][1] = "cloud"
        values["Parameters"][1] = parameters
        # Announced behind the reply, as if the cloud had sent it.
        afterwards.append(
            lambda: self.publish(COMMANDS + identity, COMMAND, values))
        return identity

    def _take(self, path, interface, member, arguments, afterwards):
        """Methods that return nothing."""
        if interface == MANAGER:
            if member == "UpdateState":
                self._state = json.dumps(plain(arguments[0]))
            return
        changes = {
            "Complete": lambda: {"State": ["s", "done"],
                                 "Results": ["a{sv}", {}]},
            "Abort": lambda: {"State": ["s", "aborted"]},
            "Cancel": lambda: {"State": ["s", "cancelled"]},
            "SetError": lambda: {"State": ["s", "error"]},
        }.get(member)
        if changes:
            afterwards.append(
                lambda: path in self._objects and
                self.change(path, interface, changes()))

    def _introspect(self, path):
        prefix = path.rstrip("/") + "/"
        children = {known[len(prefix):].split("/")[0]
                    for known in [ROOT, *self._objects]
                    if known.startswith(prefix)}
        text = "".join(self._contract.texts.get(
            name, '<interface name="%s"/>' % name) + "\n"
                       for name in self._objects.get(path, {}))
        if path == ROOT:
            text += '<interface name="%s"/>\n' % OBJECT_MANAGER
        return "<node>\n%s%s</node>\n" % (text, "".join(
            '<node name="%s"/>\n' % name for name in sorted(children)))


class Refusal(Exception):
    """A call that gets an error of the name `name`."""

    def __init__(self, name, message):
        super().__init__(message)
        self.name = name


def say(event):
    """Prints an event for a person."""
    if event["event"] == "disconnected":
        print("agent: the bus has gone", flush=True)
    elif event["interface"] in (MANAGER, COMMAND):
        note = " REFUSED: " + event["refused"] if event["refused"] else ""
        print("agent: %s.%s on %s (%s) %s%s" % (
            event["interface"].rpartition(".")[2], event["member"],
            event["path"], event["signature"],
            ", ".join(event["arguments"]), note), flush=True)


def write_line(event):
    """Prints an event for a program."""
    print(json.dumps(event), flush=True)


def write_flat_line(event):
    """Prints an event for a program that reads only strings."""
    def flat(value):
        if isinstance(value, list):
            return ", ".join(value)
        return "" if value is None else str(value)
    write_line({key: flat(value) for key, value in event.items()})


class ControlChannel:
    """Carries out the requests that come in on standard input."""

    ALLOWED = ("connect", "disconnect", "own", "disown", "publish",
               "announce", "remove", "change", "signal", "behave", "release",
               "sync")

    def __init__(self, agent, loop, write):
        self._agent = agent
        self._loop = loop
        self._write = write
        self._rest = b""
        GLib.io_add_watch(0, GLib.PRIORITY_DEFAULT,
                          GLib.IO_IN | GLib.IO_HUP, self._on_input)

    def _on_input(self, *_):
        data = os.read(0, 1 << 20)
        if not data:
            self._loop.quit()
            return False
        *lines, self._rest = (self._rest + data).split(b"\n")
        for line in lines:
            self._carry_out(json.loads(line))
        return True

    def _carry_out(self, request):
        done = {"event": "done", "id": request["id"]}
        try:
            if request["do"] not in self.ALLOWED:
                raise ValueError("no such request: " + request["do"])
            method = getattr(self._agent, request["do"])
            done["result"] = method(**request["with"])
        except Exception as error:  # Whatever it is, the test has to see it.
            done["error"] = "%s: %s" % (type(error).__name__, error)
        self._write(done)


def main():
    parser = argparse.ArgumentParser(
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--json", action="store_true",
                        help="be driven by JSON lines on standard input")
    parser.add_argument("--flat", action="store_true",
                        help="with --json: put out nothing but strings")
    options = parser.parse_args()
    address = os.environ.get("DBUS_SYSTEM_BUS_ADDRESS")
    if not address:
        parser.error("DBUS_SYSTEM_BUS_ADDRESS is not set: this program "
                     "stays off the machine's own bus")
    loop = GLib.MainLoop()
    write = write_flat_line if options.flat else write_line

    def say_and_end_with_the_bus(event):
        say(event)
        if event["event"] == "disconnected":
            loop.quit()
    try:
        agent = Agent(address, Contract(INTERFACES), write
                      if options.json else say_and_end_with_the_bus)
        if options.json:
            ControlChannel(agent, loop, write)
            write({"event": "ready"})
        else:
            agent.connect()
            agent.own()
            print("agent: on the bus as %s" % NAME, flush=True)
        loop.run()
    except KeyboardInterrupt:
        pass
    except (ValueError, OSError, RuntimeError, dbus.DBusException) as error:
        print("agent: %s" % error, file=sys.stderr)
        return 69
    return 0


if __name__ == "__main__":
    sys.exit(main())
