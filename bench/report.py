#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""report.py RESULTS [DOCUMENT PLOT]: what results.json says, for people.

Prints the table; or writes the tables into DOCUMENT, between its marks, and
draws PLOT.
"""

import json
import statistics
import sys

MARKS = "<!-- %s: %s of what was measured -->"

# In the order in which they are shown.
SUBJECTS = ("echo", "libcurl, HTTP/1.1", "libcurl, HTTP/2", "daemon, HTTP/1.1",
            "daemon, HTTP/2", "nginx as a proxy", "Python daemon",
            "curl spawned")
PROTOCOLS = ("HTTP/1.1", "HTTP/2")


class Row:
    """One line of the table: figures as text, target and whether it is met."""

    def __init__(self, what, figure, floor="", ratios=(), target="",
                 met=None):
        self.what = what
        self.figure = figure
        self.floor = floor
        self.ratio = self.range = ""
        if ratios:
            self.ratio = short(statistics.median(ratios))
            self.range = short(min(ratios)) + " to " + short(max(ratios))
        self.target = target
        self.met = {None: "", True: "yes", False: "no"}[met]

    def cells(self):
        return [self.what, self.figure, self.floor, self.ratio, self.range,
                self.target, self.met]


HEADINGS = ["What", "Daemon", "Floor", "Ratio", "Range", "Target", "Met"]


def short(ratio):
    return "%.2f" % ratio if ratio >= 0.01 else "%.4f" % ratio


def us(value):
    """A time in microseconds, as a person reads it."""
    if value < 1000:
        return "%.0f us" % value
    if value < 1e6:
        return "%.3g ms" % (value / 1e3)
    return "%.3g s" % (value / 1e6)


def rate(value):
    return "%.0f/s" % value


def mib(kib):
    return "%.1f MiB" % (kib / 1024)


class Results:
    """Medians over the repetitions."""

    def __init__(self, results):
        self.all = results
        self._repetitions = results["repetitions"]

    def median(self, figure):
        """The median of figure(repetition)."""
        return statistics.median(map(figure, self._repetitions))

    def worst(self, figure):
        return max(map(figure, self._repetitions))

    def against(self, what, figure, floor, show, target, at_most=True):
        """A row with the median of the ratios within each repetition."""
        ratios = [figure(one) / floor(one) for one in self._repetitions]
        ratio = statistics.median(ratios)
        limit, met = "", None
        if target is not None:
            limit = ("<= %g" if at_most else ">= %g") % target
            met = ratio <= target if at_most else ratio >= target
        return Row(what, show(self.median(figure)), show(self.median(floor)),
                   ratios, limit, met)


def _case(one, case, subject):
    return one["cases"][case][subject]


def _floor_rows(results):
    rows = []
    for protocol in PROTOCOLS:
        daemon, libcurl = "daemon, " + protocol, "libcurl, " + protocol
        for size, target in (("200 B", 1.25), ("10 kB", 1.6), ("1 MB", 2.6)):
            case = size + ", 1 at a time"
            rows.append(results.against(
                "latency, %s, %s: over bus echo + libcurl" % (case, protocol),
                lambda one: _case(one, case, daemon)["p50"],
                lambda one: (_case(one, case, "echo")["p50"] +
                             _case(one, case, libcurl)["p50"]), us, target))
        for at_a_time, target in ((16, 0.8), (256, 0.95)):
            case = "200 B, %d at a time" % at_a_time
            rows.append(results.against(
                "throughput, %s, %s: over 1/(1/echo + 1/libcurl)" % (
                    case, protocol),
                lambda one: _case(one, case, daemon)["throughput"],
                lambda one: 1 / (1 / _case(one, case, "echo")["throughput"] +
                                 1 / _case(one, case, libcurl)["throughput"]),
                rate, target, at_most=False))
        for kind, what, case, target in (
                ("processor_us", "processor time a request",
                 "200 B, 1 at a time", 1.4),
                # Shows what it costs by itself; nothing was aimed at.
                ("p50", "latency", "200 B, 1 at a time, on one processor",
                 None)):
            rows.append(results.against(
                "%s, %s, %s: over bus echo + libcurl" % (what, case, protocol),
                lambda one: _case(one, case, daemon)[kind],
                lambda one: (_case(one, case, "echo")[kind] +
                             _case(one, case, libcurl)[kind]), us, target))
    return rows


def _limit(what, value, show, limit):
    return Row(what, show(value), target="<= " + show(limit),
               met=value <= limit)


def _trouble_rows(results):
    def fresh(one, subject):
        return one["fresh connections"][subject]
    return [
        results.against(
            "latency, a fresh TLS connection each: over bus echo + libcurl",
            lambda one: fresh(one, "daemon")["p50"],
            lambda one: (fresh(one, "echo")["p50"] +
                         fresh(one, "libcurl")["p50"]), us, 1.5),
        _limit("... another caller's p99 meanwhile", results.worst(
            lambda one: fresh(one, "another caller")["p99"]), us, 5000),
        results.against(
            "2,000 at a time, each held for 5 s, until all are answered: over "
            "libcurl", lambda one: one["life"]["held, daemon"]["elapsed_us"],
            lambda one: one["life"]["held, libcurl"]["elapsed_us"], us, None),
        _limit("16 requests to a dead name server: another caller's worst "
               "wait", results.worst(
                   lambda one: one["dead name server"]["another caller"][
                       "max"]), us, 50_000),
        _limit("... time to stop", results.worst(
            lambda one: one["dead name server"]["stop_us"]), us, 1e6),
    ]


def _footprint_rows(results):
    def memory(when, kind="resident_kib"):
        return results.worst(lambda one: one["life"][when][kind])

    def number(value):
        return "%g" % value
    return [
        _limit("idle: wake-ups a minute", results.worst(
            lambda one: one["life"]["wakeups_a_minute"]), number, 0),
        _limit("idle: threads", results.worst(
            lambda one: one["life"]["threads"]), number, 1),
        _limit("idle: private dirty memory",
               memory("idle", "private_dirty_kib"), mib, 3 << 10),
        _limit("idle: resident memory", memory("idle"), mib, 16 << 10),
        _limit("resident memory after 10,000 requests",
               memory("after 10,000"), mib, 21 << 10),
        _limit("resident memory after 2,000 at a time",
               memory("after 2,000 held"), mib, 21 << 10),
        results.against(
            "start until the name is owned: over the echo service",
            lambda one: one["starts"]["daemon"]["p50"],
            lambda one: one["starts"]["echo"]["p50"], us, 3.5),
        _limit("stripped binary", results.all["stripped_size"],
               lambda size: "%.0f kB" % (size / 1e3), 300e3),
    ]


def _alternative_rows(results):
    daemon = "daemon, HTTP/1.1"
    rows = []
    for subject, target in (("nginx as a proxy", 1.8), ("Python daemon", 1),
                            ("curl spawned", 1)):
        for at_a_time, kind, show in ((1, "p50", us), (16, "throughput", rate)):
            case = "200 B, %d at a time" % at_a_time
            is_latency = kind == "p50"
            if subject == "nginx as a proxy" and not is_latency:
                continue
            rows.append(results.against(
                "%s, %s: over %s" % (
                    "latency" if is_latency else "throughput", case, subject),
                lambda one: _case(one, case, daemon)[kind],
                lambda one: _case(one, case, subject)[kind], show, target,
                at_most=is_latency))
    for size in ("10 kB", "1 MB"):
        case = size + ", 1 at a time"
        rows.append(results.against(
            "latency, %s: over nginx as a proxy" % case,
            lambda one: _case(one, case, daemon)["p50"],
            lambda one: _case(one, case, "nginx as a proxy")["p50"], us,
            None))
    for subject, kind, target in (
            ("nginx as a proxy", "resident_kib", None),
            ("Python daemon", "resident_kib", 1),
            # Of resident memory they share most with each other.
            ("curl spawned", "private_dirty_kib", 1)):
        theirs = results.all["memory"][subject][kind]
        what = ("resident" if kind == "resident_kib" else "private dirty")
        rows.append(results.against(
            "%s memory, 16 at a time: over %s" % (what, subject),
            lambda one: one["life"]["after 10,000"][kind],
            lambda one: theirs, mib, target))
    return rows


def _lines(headings, rows, right):
    """A Markdown table, which is also one that a person can read."""
    widths = [max(len(row[n]) for row in [headings, *rows])
              for n in range(len(headings))]

    def line(cells):
        return "| %s |" % " | ".join(
            cell.rjust(width) if n in right else cell.ljust(width)
            for n, (cell, width) in enumerate(zip(cells, widths)))
    rule = ["-" * (width - 1) + (":" if n in right else "-")
            for n, width in enumerate(widths)]
    return "\n".join([line(headings), line(rule), *map(line, rows)])


def table(raw):
    results = Results(raw)
    rows = (_floor_rows(results) + _trouble_rows(results) +
            _footprint_rows(results) + _alternative_rows(results))
    return _lines(HEADINGS, [row.cells() for row in rows], {1, 2, 3, 5})


def machine(raw):
    """What it was measured on."""
    found = raw["machine"]
    return ("Taken on: %s, %d processors, Linux %s;\n"
            "%.1f processes wanted to run when it began." % (
                found["model"], found["processors"],
                found["kernel"].partition("-")[0], found["load"]))


def details(raw):
    """Everybody's figures in every case."""
    results = Results(raw)
    rows = []
    for case, found in raw["repetitions"][0]["cases"].items():
        for subject in SUBJECTS:
            if subject not in found:
                continue
            row = [case, subject] + [
                show(results.median(
                    lambda one: _case(one, case, subject)[kind]))
                for kind, show in (("p50", us), ("p99", us),
                                   ("throughput", rate),
                                   ("processor_us", us))]
            if found[subject]["count"] < 200:
                row[3] = ""
            # What was measured there is the client's processor time.
            if subject == "nginx as a proxy":
                row[5] = ""
            rows.append(row)
    return _lines(["Case", "Who", "Median", "p99", "Throughput",
                   "Processor, each"], rows, {2, 3, 4, 5})


def functions(raw):
    return _lines(["Function", "Time"], [
        [name, "%.0f ns" % time if time < 1e4 else us(time / 1e3)]
        for name, time in raw["functions"].items()], {1})


# The plot.

WIDTH, LEFT, BAR, GAP = 760, 150, 16, 6
SHADES = {"echo": "#9aa5b1", "libcurl": "#9aa5b1", "daemon": "#1f6feb"}


def _bars(title, values, show, top):
    """One panel: bars of `values`, a list of (name, number)."""
    longest = max(number for _, number in values)
    parts = ['<text x="0" y="%d" font-weight="bold">%s</text>' % (top, title)]
    y = top + 12
    for name, number in values:
        width = max((WIDTH - LEFT - 90) * number / longest, 1)
        shade = SHADES.get(name.partition(",")[0], "#d0a060")
        parts.append(
            '<text x="%d" y="%d" text-anchor="end">%s</text>'
            '<rect x="%d" y="%d" width="%.1f" height="%d" fill="%s"/>'
            '<text x="%.1f" y="%d">%s</text>' % (
                LEFT - 8, y + 12, name, LEFT, y, width, BAR, shade,
                LEFT + width + 6, y + 12, show(number)))
        y += BAR + GAP
    return parts, y + 24


def plot(raw):
    results = Results(raw)
    parts, y = [], 20
    for case, kind, show, title, left_out in (
            ("200 B, 1 at a time", "p50", us,
             "Median latency, 200 B, one at a time (shorter is better; "
             "spawned curl: %s)", ("curl spawned",)),
            ("200 B, 16 at a time", "throughput", rate,
             "Throughput, 200 B, 16 at a time (longer is better; "
             "spawned curl: %s)", ("curl spawned",)),
            ("1 MB, 1 at a time", "p50", us,
             "Median latency, 1 MB, one at a time (shorter is better)", ())):
        found = {subject: results.median(
            lambda one: _case(one, case, subject)[kind])
            for subject in SUBJECTS
            if subject in raw["repetitions"][0]["cases"][case]}
        if left_out:
            title %= show(found["curl spawned"])
        panel, y = _bars(title, [
            pair for pair in found.items() if pair[0] not in left_out],
            show, y)
        parts += panel
    return ('<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
            'font-family="sans-serif" font-size="13">\n'
            '<!-- SPDX-License-Identifier: Apache-2.0 -->\n'
            '<!-- SPDX-FileCopyrightText: The cloud_action_daemon authors -->\n'
            '<rect width="100%%" height="100%%" fill="white"/>\n'
            '%s\n</svg>\n' % (WIDTH, y - 10, "\n".join(parts)))


def fill(document, raw):
    """The text of the document with the tables between its marks."""
    for name, make in (("machine", machine), ("table", table),
                       ("details", details),
                       ("functions", functions)):
        begin, end = MARKS % ("Begin", name), MARKS % ("End", name)
        before, _, rest = document.partition(begin)
        _, found, after = rest.partition(end)
        assert found, "the document lacks the marks of: " + name
        document = "%s%s\n%s\n%s%s" % (before, begin, make(raw), end, after)
    return document


def main(results, document=None, picture=None):
    with open(results, encoding="utf-8") as file:
        raw = json.load(file)
    if document is None:
        print(table(raw))
        return
    assert not raw["quick"], "these figures only show that everything runs"
    with open(document, encoding="utf-8") as file:
        text = file.read()
    with open(document, "w", encoding="utf-8") as file:
        file.write(fill(text, raw))
    with open(picture, "w", encoding="utf-8") as file:
        file.write(plot(raw))


if __name__ == "__main__":
    main(*sys.argv[1:])
