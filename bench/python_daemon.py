#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""python_daemon.py NAME TOKEN ALLOWED: the daemon's work, done in Python.

What somebody would write who has python3-dbus-next and python3-aiohttp: checks
the endpoint, adds the token, checks that the answer is a JSON object and hands
it on in compact form.
"""

import asyncio
import json
import sys
import urllib.parse

import aiohttp
from dbus_next import BusType, Message
from dbus_next.aio import MessageBus

MEMBER = "RedirectRequest"


async def redirect(session, token, allowed, endpoint, method, body):
    url = urllib.parse.urlsplit(endpoint)
    if url.hostname != allowed.hostname or not url.path.startswith(
            allowed.path):
        raise ValueError("Endpoint %s not whitelisted" % endpoint)
    headers = {"Authorization": "Bearer " + token,
               "Content-Type": "application/json"}
    data = json.dumps(json.loads(body)) if method == "POST" else None
    async with session.request(method, endpoint, headers=headers,
                               data=data) as response:
        value = json.loads(await response.read())
        if not isinstance(value, dict):
            raise ValueError("Invalid JSON response")
        return [response.status, json.dumps(value, ensure_ascii=False,
                                            separators=(",", ":"))]


async def main(name, token, allowed):
    bus = await MessageBus(bus_type=BusType.SYSTEM).connect()
    session = aiohttp.ClientSession(
        connector=aiohttp.TCPConnector(limit=0),
        timeout=aiohttp.ClientTimeout(total=30))
    allowed = urllib.parse.urlsplit(allowed)

    async def answer(call):
        try:
            result = await redirect(session, token, allowed, *call.body)
            await bus.send(Message.new_method_return(call, "is", result))
        except (aiohttp.ClientError, ValueError, asyncio.TimeoutError) as why:
            await bus.send(Message.new_error(
                call, "org.freedesktop.DBus.Error.Failed", str(why)))

    def on_message(message):
        if message.member != MEMBER or message.signature != "sss":
            return False
        asyncio.ensure_future(answer(message))
        return True

    bus.add_message_handler(on_message)
    await bus.request_name(name)
    await bus.wait_for_disconnect()


if __name__ == "__main__":
    asyncio.run(main(*sys.argv[1:]))
