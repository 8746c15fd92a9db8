# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Breaks C++ lines at 80 columns as our own code is broken."""

import textwrap

WIDTH = 80


def lay_out(text):
    """`text` with its long lines broken.

    Broken are comments, lists in parentheses and functions of one statement;
    any other line stays as it is.
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
    return _break_list(line, indent)


def _wrap_comment(indent, text):
    # An argument's own text hangs below its name.
    hang = "    " if text.startswith("`in_") or text.startswith("`out_") else ""
    return textwrap.wrap(
        text, WIDTH, initial_indent=indent + "// ",
        subsequent_indent=indent + "// " + hang, break_long_words=False,
        break_on_hyphens=False)


def _break_list(line, indent):
    """Breaks the last list in parentheses that is not inside another one."""
    begin = end = depth = 0
    commas = []
    for index, character in enumerate(line):
        if character in "(<{":
            if not depth and character == "(":
                begin = index + 1
                commas = []
            depth += 1
        elif character in ")}" or (character == ">" and line[index - 1] != "-"):
            depth -= 1
            if not depth and character == ")":
                end = index
        elif character == "," and depth == 1:
            commas.append(index + 1)
    if not end:
        return [line]
    commas = [comma for comma in commas if begin < comma < end]
    cuts = [begin] + commas + [len(line)]
    items = [line[first:last].strip() for first, last in zip(cuts, cuts[1:])]
    aligned = _pack(begin * " ", items)
    broken = [line[:begin]] + _pack(indent + "    ", items)
    # Parameters have a type and a name; the arguments of a call take the form
    # with fewer lines.
    is_call = not any(" " in item for item in items[:-1])
    if max(map(len, aligned)) > WIDTH or (
            is_call and len(broken) < len(aligned)):
        return broken
    return [line[:begin] + aligned[0].lstrip()] + aligned[1:]


def _pack(indent, items):
    """The items in as few lines as hold them."""
    lines = [indent + items[0]]
    for item in items[1:]:
        if len(lines[-1]) + 1 + len(item) <= WIDTH:
            lines[-1] += " " + item
        else:
            lines.append(indent + item)
    return lines
