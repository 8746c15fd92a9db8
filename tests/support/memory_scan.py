# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Looks for texts in the memory of a process.

It has to be allowed to: the sandbox keeps CAP_SYS_PTRACE for that.
"""

import re

_LINE = re.compile(r"([0-9a-f]+)-([0-9a-f]+) (\S+) \S+ \S+ \S+ *(.*)")


def find(pid, texts):
    """Where each of `texts` is: (text, mapping, what stands around it).

    UTF-16 or any other notation of them is not looked for.
    """
    found = []
    with open("/proc/%d/maps" % pid, encoding="utf-8") as file:
        lines = file.read().splitlines()
    with open("/proc/%d/mem" % pid, "rb", buffering=0) as memory:
        for line in lines:
            start, end, rights, name = _LINE.fullmatch(line).groups()
            if "r" not in rights or name in ("[vvar]", "[vsyscall]"):
                continue
            start, end = int(start, 16), int(end, 16)
            memory.seek(start)
            data = b""
            while len(data) < end - start:
                try:
                    more = memory.read(end - start - len(data))
                except OSError:  # A page behind the end of its file.
                    break
                if not more:
                    break
                data += more
            for text in texts:
                for match in re.finditer(re.escape(text.encode()), data):
                    begin = max(match.start() - 60, 0)
                    found.append((text, "%s %s" % (name or "anonymous",
                                                   rights),
                                  data[begin:match.end() + 20]))
    return found


def sanitized(program):
    """Whether the program runs with AddressSanitizer.

    Its memory is too large to be read through, and what was given back stays
    as it is for a while.
    """
    with open(program, "rb") as file:
        return b"__asan_init" in file.read()
