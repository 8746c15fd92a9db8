# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Breaks C++ lines at 80 columns as our own code is broken."""

import textwrap

WIDTH = 80


def lay_out(text):
    """`text` with its long lines broken.

    Comments, lists and functions of one statement are broken; what cannot be
    broken stays as it is.
    """
    lines = []
    for line in text.split("\n"):
        lines += [line] if len(line) <= WIDTH else _break(line)
    return "\n".join(lines)


def _break(line):
    code = line.lstrip()
    indent = line[:len(line) - len(code)]
    if code.startswith("// "):
        return _wrap_comment(indent, code[3:])
    if code.endswith("; }"):
        head, _, statement = code.partition(" { ")
        return [indent + head + " {", indent + "  " + statement[:-2],
                indent + "}"]
    found = _outermost_list(line, "(") or _outermost_list(line, "{")
    commas = [comma for comma in _places(line, ",", 0) if comma < len(line)]
    if found:
        return _break_list(line, indent, *found)
    if commas:
        return _pack(indent, _cut(line, len(indent), commas))
    return _break_words(line, indent)


def _wrap_comment(indent, text):
    # An argument's own text hangs below its name.
    hang = "    " if text.startswith("`in_") or text.startswith("`out_") else ""
    return textwrap.wrap(
        text, WIDTH, initial_indent=indent + "// ",
        subsequent_indent=indent + "// " + hang, break_long_words=False,
        break_on_hyphens=False)


def _break_list(line, indent, begin, commas):
    items = _cut(line, begin, commas)
    aligned = _pack(" " * begin, items)
    broken = [line[:begin]] + lay_out(
        "\n".join(_pack(indent + "    ", items))).split("\n")
    # Parameters have a type and a name; the arguments of a call take the form
    # with fewer lines.
    is_call = not any(" " in item for item in items[:-1])
    if max(map(len, aligned)) > WIDTH or (
            is_call and len(broken) < len(aligned)):
        return broken
    return [line[:begin] + aligned[0].lstrip()] + aligned[1:]


def _break_words(line, indent):
    """What is outside of brackets is continued further in."""
    words = _cut(line, len(indent), _places(line, " ", 0))
    lines = _pack(indent, [word for word in words if word])
    return [lines[0]] + ["    " + one for one in lines[1:]]


def _depths(line):
    """Each character with how many brackets are open right before it."""
    depth = 0
    for index, character in enumerate(line):
        if character in ")}" or (character == ">" and line[index - 1] != "-"):
            depth -= 1
        yield index, character, depth
        if character in "(<{":
            depth += 1


def _places(line, separator, depth):
    """Where the items end that stand inside `depth` brackets."""
    return [index + 1 for index, character, open_brackets in _depths(line)
            if character == separator and open_brackets == depth]


def _outermost_list(line, bracket):
    """Where the last list outside of brackets begins, and where its items end
    but the last."""
    begin = end = None
    for index, character, depth in _depths(line):
        if depth == 0 and character == bracket:
            begin, end = index + 1, None
        elif depth == 0 and character in ")}" and end is None:
            end = index
    if begin is None or end is None or end == begin:
        return None
    return begin, [c for c in _places(line, ",", 1) if begin < c < end]


def _cut(line, begin, ends):
    cuts = [begin] + ends + [len(line)]
    return [line[first:last].strip() for first, last in zip(cuts, cuts[1:])]


def _pack(indent, items):
    """The items in as few lines as hold them."""
    lines = [indent + items[0]]
    for item in items[1:]:
        if len(lines[-1]) + 1 + len(item) <= WIDTH:
            lines[-1] += " " + item
        else:
            lines.append(indent + item)
    return lines
