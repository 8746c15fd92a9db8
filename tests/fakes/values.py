# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""D-Bus values from and to plain data.

Plain data is what JSON can carry. A variant is a pair [signature, value]; a
dictionary is a JSON object if its keys are strings, else a list of pairs.
"""

import json

import dbus

_BASIC = {
    "y": dbus.Byte, "b": dbus.Boolean, "n": dbus.Int16, "q": dbus.UInt16,
    "i": dbus.Int32, "u": dbus.UInt32, "x": dbus.Int64, "t": dbus.UInt64,
    "d": dbus.Double, "s": dbus.String, "o": dbus.ObjectPath,
    "g": dbus.Signature,
}


def build(signature, plain, variant_level=0):
    """Builds the D-Bus value of the single complete type `signature`."""
    level = {"variant_level": variant_level}
    if signature == "v":
        inner, value = plain
        return build(inner, value, variant_level + 1)
    if signature in _BASIC:
        return _BASIC[signature](plain, **level)
    if signature.startswith("a{"):
        key, value = dbus.Signature(signature[2:-1])
        pairs = plain.items() if isinstance(plain, dict) else plain
        return dbus.Dictionary({build(key, k): build(value, v)
                                for k, v in pairs},
                               signature=signature[2:-1], **level)
    if signature.startswith("a"):
        return dbus.Array([build(signature[1:], item) for item in plain],
                          signature=signature[1:], **level)
    if signature.startswith("("):
        types = list(dbus.Signature(signature[1:-1]))
        return dbus.Struct([build(t, item) for t, item in zip(types, plain)],
                           signature=signature[1:-1], **level)
    raise ValueError("no such type: " + signature)


def signature_of(value):
    """The signature of one value, not looking at its variant level."""
    for signature, kind in _BASIC.items():
        if type(value) is kind:  # Boolean and Byte derive from others.
            return signature
    if isinstance(value, dbus.Dictionary):
        return "a{%s}" % value.signature
    if isinstance(value, dbus.Array):
        return "a%s" % value.signature
    if isinstance(value, dbus.Struct):
        return "(%s)" % "".join(
            "v" if item.variant_level else signature_of(item)
            for item in value)
    raise ValueError("not a D-Bus value: %r" % (value,))


def describe(value, level=None):
    """One value as text that shows each variant with the type inside it.

    A state dictionary, for example: {"_on": <b true>}.
    """
    if level is None:
        level = value.variant_level
    if level > 0:
        inner = "v" if level > 1 else signature_of(value)
        return "<%s %s>" % (inner, describe(value, level - 1))
    if isinstance(value, dbus.Dictionary):
        return "{%s}" % ", ".join("%s: %s" % (describe(k), describe(v))
                                  for k, v in value.items())
    if isinstance(value, dbus.Array):
        return "[%s]" % ", ".join(describe(item) for item in value)
    if isinstance(value, dbus.Struct):
        return "(%s)" % ", ".join(describe(item) for item in value)
    if isinstance(value, dbus.Boolean):
        return "true" if value else "false"
    if isinstance(value, str):
        return json.dumps(str(value), ensure_ascii=False)
    return str(value)


def plain(value):
    """One value as plain Python data, without its types."""
    if isinstance(value, dbus.Dictionary):
        return {plain(k): plain(v) for k, v in value.items()}
    if isinstance(value, (dbus.Array, dbus.Struct)):
        return [plain(item) for item in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, str):
        return str(value)
    if isinstance(value, float):
        return float(value)
    return int(value)
