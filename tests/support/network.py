# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What the sandbox's own network has seen."""


def _table(path):
    """The counters of a file of two lines for each protocol."""
    with open(path, encoding="ascii") as file:
        lines = file.read().splitlines()
    found = {}
    for names, values in zip(lines[::2], lines[1::2]):
        protocol = names.split(":")[0]
        for name, value in zip(names.split()[1:], values.split()[1:]):
            found[protocol + name] = int(value)
    return found


def attempts():
    """Counts whatever anybody in the sandbox has tried to reach so far.

    A connection counts whether it came about or not, also one to where there
    is no route.
    """
    found = _table("/proc/net/snmp")
    with open("/proc/net/snmp6", encoding="ascii") as file:
        found.update((name, int(value)) for name, value in
                     (line.split() for line in file))
    return {name: found[name] for name in (
        "TcpActiveOpens", "UdpOutDatagrams", "IpOutNoRoutes",
        "Udp6OutDatagrams", "Ip6OutNoRoutes")}
