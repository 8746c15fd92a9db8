# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What the daemon is at when something goes wrong.

Each scenario has a `prepare`, which brings a run to the point from which
calls count (False if the run ended on the way), and a `perform`, which
returns when all is done or the run has ended. `states` are the contents that
the two files may have afterwards, in the order in which they come about.
"""

import re
import threading

from cloud import Reply
from injection import NEW_ENDPOINT, OLD_ENDPOINT


class Scenario:
    """Common to all: `token` is the stored one, or None."""
    stored = True

    def __init__(self, world):
        self.world = world
        self.token = world.put_state(self.stored)
        self._known = set(world.provider.refresh_tokens)
        self._updates = len(world.agent.calls(member="UpdateState"))
        self.path = None

    def old(self):
        return (self.token, OLD_ENDPOINT if self.stored else None)

    def prepare(self, run):
        """Starts up, and is done with all that comes with it."""
        return (run.wait_for_name() and
                (not self.stored or run.wait_for_words(
                    "Successfully fetched access token: 200")) and
                run.wait_for_call("UpdateState", count=self._updates + 1) and
                self.world.sync())

    def perform(self, run):
        raise NotImplementedError

    def states(self):
        return [self.old()]

    def settle(self, run):
        """Whether it is still there when all that was sent is dealt with."""
        return self.world.sync() and not run.ended

    def clean_up(self):
        if self.path:
            self.world.agent.do("remove", path=self.path)


class SetCommand(Scenario):
    """A set command replaces one credential by another."""

    def perform(self, run):
        self.path = self.world.agent.set_credential(
            self.world.secret("code"), [NEW_ENDPOINT])
        if run.wait_for_end_of_command(self.path):
            self.settle(run)

    def new_token(self):
        given = self.world.provider.refresh_tokens - self._known
        return given.pop() if given else None

    def states(self):
        # The endpoints are written first.
        return [self.old(), (self.token, NEW_ENDPOINT),
                (self.new_token(), NEW_ENDPOINT)]


class FirstSetCommand(SetCommand):
    """A set command brings the first credential."""
    stored = False


class RemoveCommand(Scenario):
    """A remove command takes the credential away."""

    def perform(self, run):
        self.path = self.world.agent.remove_credential()
        if run.wait_for_call("Complete", self.path):
            self.settle(run)

    def states(self):
        return [self.old(), (None, OLD_ENDPOINT), (None, None)]


class Refusal(Scenario):
    """The identity provider refuses the credential."""

    def prepare(self, run):
        world = self.world
        self._reply = Reply.json({"error": "invalid_grant"}, 400,
                                 gate=threading.Event())
        world.identity.replies.append(self._reply)
        count = len(world.identity.requests)
        if not run.wait_for_name():
            return False
        world.identity.wait_for(count + 1)
        return (run.wait_for_call("UpdateState", count=self._updates + 1) and
                world.sync())

    def perform(self, run):
        self._reply.gate.set()
        if run.wait_for_words("Error parsing oauth2 response: invalid_grant"):
            self.settle(run)

    def states(self):
        return [self.old(), (None, OLD_ENDPOINT)]


class Life(Scenario):
    """From the start to the stop, with something of everything between.

    Whatever goes wrong on the way, each step gets some answer.
    """

    def __init__(self, world, silent=False):
        super().__init__(world)
        self.silent = silent
        self.answers = []

    def perform(self, run):
        world = self.world
        if not run.wait_for_name():
            return
        # Unless it is the log line that gets lost.
        run.wait_for_words("fetched access token: ",
                           "Error fetching access token: ",
                           needed=self.settle(run) and
                           "Refreshing access token." in run.text() and
                           not self.silent)
        self.ask(run, OLD_ENDPOINT)
        self.command(run, lambda: world.agent.set_credential(
            world.secret("code"), [NEW_ENDPOINT], Unheard=["s", "of"]))
        self.ask(run, NEW_ENDPOINT, "POST", '{"a":[1]}')
        self.command(run, world.agent.remove_credential)
        self.ask(run, NEW_ENDPOINT)

    def ask(self, run, *request):
        if not run.ended:
            self.answers.append(self.world.request(*request))

    def command(self, run, publish):
        """Has a command carried out, or whatever becomes of it."""
        if run.ended:
            return
        since = run.said_so_far()
        path = publish()
        # If nobody took the command there is nothing to wait for.
        if self.settle(run) and re.search("Handle(Set|Remove)Credential",
                                          run.text(since)):
            # A remove command is over as soon as it was taken.
            run.wait_for_end_of_command(
                path, "HandleRemoveCredential", "fetched refresh token: ",
                "Error fetching refresh token: ", since=since)
            self.settle(run)
        self.world.agent.do("remove", path=path)

    def go_on(self, run, control):
        """Whatever failed once, what comes behind it goes well.

        Unless the run has ended, a further credential is set, serves and is
        removed, with nothing going wrong. The stop may go wrong again.
        """
        world = self.world
        control.disarm()
        if not self.settle(run):
            world.client.wait(lambda: run.ended, "the end: " + run.text())
            return
        assert world.state() in self.states()
        path = world.agent.set_credential(world.secret("code"),
                                          [NEW_ENDPOINT])
        self.complete(run, path)
        assert world.request(NEW_ENDPOINT) == "200", run.text()
        self.complete(run, world.agent.remove_credential())
        assert world.sync() and world.state() == (None, None), run.text()
        control.arm()

    def complete(self, run, path):
        """The command must be completed."""
        self.world.agent.wait_until(
            lambda: run.ended or self.world.agent.seen("Complete", path),
            "the end of %s; the daemon said: %s" % (path, run.text()))
        assert not run.ended, run.text()
        self.world.agent.do("remove", path=path)

    def states(self):
        tokens = [None, self.token, *(
            self.world.provider.refresh_tokens - self._known)]
        return [(token, endpoints) for token in tokens
                for endpoints in (None, OLD_ENDPOINT, NEW_ENDPOINT)]
