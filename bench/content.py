# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What the cloud answers: JSON objects of several sizes."""

import json

SIZES = {"200 B": 200, "10 kB": 10_000, "1 MB": 1_000_000}


def _lamp(number):
    return {"id": "lamp-%05d" % number, "name": "K\u00fcche \"%d\"" % number,
            "on": number % 3 == 0, "level": number % 100 / 100,
            "color": None if number % 2 else {"hue": 220.5, "sat": 12},
            "since": 1700000000 + number}


def _text(value):
    """As most servers write it: a blank after comma and colon, no more."""
    return json.dumps(value, ensure_ascii=False).encode()


def make(size):
    """An object of `size` bytes, as it is sent, and its compact form."""
    value = {"status": "ok", "lamps": [], "padding": ""}
    left = size - len(_text(value))
    number = 0
    while left > 0:
        lamp = _lamp(number)
        left -= len(_text(lamp)) + (2 if number else 0)
        if left < 0:
            break
        value["lamps"].append(lamp)
        number += 1
    value["padding"] = "x" * (size - len(_text(value)))
    sent = _text(value)
    assert len(sent) == size
    return sent, json.dumps(value, ensure_ascii=False,
                            separators=(",", ":")).encode()
