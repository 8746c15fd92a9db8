# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A caller on the bus for tests, on python3-dbus.

All connections live on one GLib loop in a thread; the test's own thread only
waits, with deadlines that say what was awaited.
"""

import os
import sys
import threading

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(
    os.path.realpath(__file__))), "fakes"))
from values import build  # pylint: disable=wrong-import-position

BUS = "org.freedesktop.DBus"


class CallError(Exception):
    """An error reply."""

    def __init__(self, name, message):
        super().__init__("%s: %s" % (name, message))
        self.name = name
        self.message = message


class LoopThread:
    """Runs the GLib main loop; run() does a piece of work on it."""

    def __init__(self):
        self.glib = dbus.mainloop.glib.DBusGMainLoop()
        self._loop = GLib.MainLoop()
        self._thread = threading.Thread(target=self._loop.run, daemon=True)
        self._thread.start()

    def run(self, work):
        """Runs `work` on the loop's thread and returns its result."""
        done = threading.Event()
        outcome = []

        def step():
            try:
                outcome.append((work(), None))
            except Exception as error:  # Raised again where it was called.
                outcome.append((None, error))
            done.set()
            return False
        GLib.idle_add(step, priority=GLib.PRIORITY_DEFAULT)
        done.wait()
        result, error = outcome[0]
        if error:
            raise error
        return result

    def stop(self):
        GLib.idle_add(self._loop.quit)
        self._thread.join()


class PendingReply:
    """The reply to one call, when it has come."""

    def __init__(self, client, what):
        self._client = client
        self._what = what
        self.message = None

    def done(self):
        return self.message is not None

    def result(self, deadline_s=20):
        """Waits; returns (signature, arguments), or raises CallError."""
        self._client.wait(self.done, "the reply to " + self._what, deadline_s)
        arguments = self.message.get_args_list()
        if self.message.get_type() == dbus.lowlevel.MESSAGE_TYPE_ERROR:
            text = str(arguments[0]) if arguments else ""
            raise CallError(self.message.get_error_name(), text)
        return self.message.get_signature(), arguments


class BusClient:
    """One connection to the bus.

    `on_error` is called with the text of each error reply.
    """

    def __init__(self, loop, address, on_error=lambda text: None):
        self._loop = loop
        self._on_error = on_error
        self._changed = threading.Condition()
        self._watched = {}  # (interface, member, path) -> list of arguments
        self._owners = {}   # name -> unique name, from NameOwnerChanged
        self._bus = loop.run(lambda: self._open(address))
        self.unique_name = self._bus.get_unique_name()

    def _open(self, address):
        bus = dbus.bus.BusConnection(address, mainloop=self._loop.glib)
        bus.add_message_filter(self._on_message)
        bus.add_match_string("type='signal',sender='%s',interface='%s',"
                             "member='NameOwnerChanged'" % (BUS, BUS))
        return bus

    def _on_message(self, _, message):
        if message.is_signal(BUS, "NameOwnerChanged"):
            name, _, owner = message.get_args_list()
            with self._changed:
                self._owners[str(name)] = str(owner)
                self._changed.notify_all()
        key = (message.get_interface(), message.get_member(),
               message.get_path())
        with self._changed:
            if key in self._watched:
                self._watched[key].append(message.get_args_list())
                self._changed.notify_all()
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED

    def wait(self, condition, what, deadline_s=20):
        """Waits for something that a message brings about."""
        with self._changed:
            if not self._changed.wait_for(condition, deadline_s):
                raise TimeoutError("waited %s s for %s" % (deadline_s, what))

    def watch_signal(self, interface, member, path):
        """Returns a list to which the arguments of such signals are added."""
        seen = []
        key = (interface, member, path)
        with self._changed:
            self._watched[key] = seen
        self._loop.run(lambda: self._bus.add_match_string(
            "type='signal',interface='%s',member='%s',path='%s'" % key))
        return seen

    def poke(self):
        """Has wait() look at its condition again."""
        with self._changed:
            self._changed.notify_all()

    def owner(self, name):
        """Who owns `name` as far as signals told since we are here, or ''."""
        with self._changed:
            return self._owners.get(name, "")

    def start(self, destination, path, interface, member, signature="",
              arguments=(), timeout_s=120, no_reply=False):
        """Sends a call; the reply comes to the PendingReply.

        With `no_reply`, says in the call that none is wanted.
        """
        message = dbus.lowlevel.MethodCallMessage(destination, path,
                                                  interface, member)
        if signature:
            message.append(*[build(kind, value) for kind, value in
                             zip(dbus.Signature(signature), arguments)],
                           signature=signature)
        pending = PendingReply(self, "%s.%s" % (interface, member))
        if no_reply:
            message.set_no_reply(True)
            self._loop.run(lambda: self._bus.send_message(message))
            return pending

        def arrived(reply):
            if reply.get_type() == dbus.lowlevel.MESSAGE_TYPE_ERROR:
                self._on_error("%s: %s" % (reply.get_error_name(), " ".join(
                    str(a) for a in reply.get_args_list())))
            with self._changed:
                pending.message = reply
                self._changed.notify_all()
        self._loop.run(lambda: self._bus.send_message_with_reply(
            message, arrived, timeout_s, require_main_loop=1))
        return pending

    def call(self, *arguments, deadline_s=60, **more):
        """Calls and waits: (signature, arguments), or raises CallError."""
        return self.start(*arguments, **more).result(deadline_s)

    def request_name(self, name):
        self._loop.run(lambda: self._bus.request_name(
            name, dbus.bus.NAME_FLAG_DO_NOT_QUEUE))

    def release_name(self, name):
        self._loop.run(lambda: self._bus.release_name(name))

    def close(self):
        """Leaves the bus."""
        self._loop.run(self._bus.close)
