# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""What the documents state is true of the sources.

Only what can be looked up is checked here: names of tests, samples, links,
texts of errors and of the log, limits, the form of the manual pages.
"""

import glob
import os
import re
import subprocess
import textwrap
import xml.etree.ElementTree

import pytest
from conftest import TESTS

PROJECT = os.path.dirname(TESTS)
MAN = os.path.join(PROJECT, "packaging", "man")
PAGES = {name: os.path.join(MAN, name) for name in (
    "cloud_action_daemon.8", "cloud_action.conf.5",
    "org.vantrel.actions.CloudActions.Manager.7")}
DAEMON_PAGE, CONFIG_PAGE, INTERFACE_PAGE = PAGES
DOCUMENTS = sorted(
    os.path.relpath(path, PROJECT) for pattern in ("*.md", "docs/*.md")
    for path in glob.glob(os.path.join(PROJECT, pattern)))
LAYERS = ("base", "dbus", "kestrix", "gen", "platform")

STRING = r'"((?:\\.|[^"\\])*)"'
# Up to the semicolon that ends a statement.
REST = r'((?:"(?:\\.|[^"\\])*"|[^;"])*);'


def read(*path):
    with open(os.path.join(PROJECT, *path), encoding="utf-8") as file:
        return file.read()


def sources():
    """All product sources, as one text."""
    texts = []
    for layer in LAYERS:
        for folder, _, names in sorted(os.walk(os.path.join(PROJECT, layer))):
            texts += [read(folder, name) for name in sorted(names)
                      if name.endswith((".cc", ".h"))
                      and not name.endswith("_test.cc")
                      and (layer, name) != ("base", "logging.h")]
    return "\n".join(texts)


def unescape(literal):
    return re.sub(r"\\(.)", r"\1", literal)


def pattern_of(statement):
    """What is put together, as a pattern: strings stand for themselves."""
    pattern = ""
    for literal, other in re.findall(STRING + r'|([^"]+)', statement):
        if not other:
            pattern += re.escape(unescape(literal))
        elif re.sub(r"<<|\+|std::string\(|\)", "", other).strip():
            pattern += ".+"
    return pattern


def logged_texts():
    """(severity, pattern of the text) of every line that can be logged."""
    text = sources()
    found = set()
    for macro, severity, rest in re.findall(
            r"\b(LOG|PLOG|LOG_AT)\((INFO|WARNING|ERROR|FATAL)[^)]*\)\s*<<"
            + REST, text):
        pattern = pattern_of(rest) + (": .+" if macro == "PLOG" else "")
        # A text that was handed in is found where it is handed in.
        if pattern != ".+":
            found.add((severity, pattern))
    for rest in re.findall(r"\bCHECK\(" + REST, text):
        message = re.search(r"\)\s*<<(.*)", rest, re.DOTALL)
        assert message, "a check without a message: " + rest
        found.add(("FATAL", pattern_of(message[1])))
    for message in re.findall(r"GetHandler\(\s*" + STRING, text):
        found.add(("FATAL", re.escape(message)))
    return found


def rendered(page):
    """A manual page as plain text, its lines unbroken."""
    done = subprocess.run(
        ["mandoc", "-T", "utf8", "-O", "width=1000", PAGES[page]],
        capture_output=True, text=True, timeout=20, check=True)
    return re.sub(".\b", "", done.stdout)


def lines_of_the_daemon_page():
    return re.findall(r"^ +(INFO|WARNING|ERROR|FATAL) (.+)$",
                      rendered(DAEMON_PAGE), re.MULTILINE)


def lines_of_the_integration_guide():
    return re.findall(r"^\| (INFO|WARNING|ERROR|FATAL) \| `([^`]+)` \|",
                      read("docs", "integrating.md"), re.MULTILINE)


# Tests that are named.

def existing_tests():
    """"file::test" of every test there is."""
    found = set()
    for folder, folders, names in os.walk(PROJECT):
        folders[:] = [name for name in folders
                      if name not in ("build", ".git")]
        for name in names:
            path = os.path.relpath(os.path.join(folder, name), PROJECT)
            if name.endswith("_test.cc"):
                found |= {"%s::%s.%s" % (path, *pair) for pair in re.findall(
                    r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", read(path),
                    re.MULTILINE)}
            elif name.startswith("test_") and name.endswith(".py"):
                found |= {"%s::%s" % (path, test) for test in re.findall(
                    r"^def (test_\w+)\(", read(path), re.MULTILINE)}
    return found


def named_tests(document):
    return set(re.findall(r"`([^\s`]+\.(?:cc|py)::[\w.]+)`", read(document)))


def test_every_test_that_a_document_names_exists():
    named = set().union(*map(named_tests, DOCUMENTS))
    assert named
    assert named - existing_tests() == set()


def test_each_deliberate_behaviour_names_its_test():
    rules = re.split(r"^### ", read("docs", "deliberate-behaviour.md"),
                     flags=re.MULTILINE)[1:]
    assert rules
    for rule in rules:
        assert re.search(r"^\*Tests?:\* `[^`]+::", rule, re.MULTILINE), rule
        assert re.search(r"^\*Do:\* ", rule, re.MULTILINE), rule


def test_every_test_of_intended_behaviour_is_told():
    intended = {test for test in existing_tests() if "::test_intended_" in test}
    assert intended
    assert intended - named_tests("docs/deliberate-behaviour.md") == set()


# Links.

def anchor(heading):
    text = re.sub(r"[^\w\- ]", "", heading.lower())
    return text.strip().replace(" ", "-")


@pytest.mark.parametrize("document", DOCUMENTS)
def test_every_link_leads_somewhere(document):
    text = re.sub(r"```.*?```", "", read(document), flags=re.DOTALL)
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        path, _, fragment = target.partition("#")
        path = os.path.normpath(os.path.join(
            PROJECT, os.path.dirname(document), path)) if path else (
            os.path.join(PROJECT, document))
        assert os.path.exists(path), target
        if fragment:
            headings = re.findall(r"^#+ (.*)", read(path), re.MULTILINE)
            assert fragment in map(anchor, headings), target


# Samples.

def test_the_samples_in_the_document_are_those_of_the_files():
    text = read("docs", "calling.md")
    shown = re.findall(
        r"\[[\w.]+\]\(\.\./examples/([\w.]+)\):\n\n```\w+\n(.*?)```\n", text,
        re.DOTALL)
    assert sorted(name for name, _ in shown) == sorted(
        os.listdir(os.path.join(PROJECT, "examples")))
    assert len(shown) == text.count("```") // 2
    for name, sample in shown:
        lines = read("examples", name).splitlines(keepends=True)
        count = sample.count("\n")
        # Lines of the file in one piece, less their common indentation.
        assert sample in [textwrap.dedent("".join(lines[i:i + count]))
                          for i in range(len(lines) - count + 1)], name


# Errors.

# They are of no concern to callers: the parser keeps its reason to itself,
# requests have no fields with other names than ours, and a reply is made so
# that the bus can carry it.
UNSEEN = {"The response body is not a JSON object",
          "The name of a header field is not valid",
          "The result cannot be sent over D-Bus"}


def error_texts():
    """Patterns of the error texts that a caller can get."""
    text = sources()
    found = []
    for name, start in (
            (None, r"\bRefuse\(callback, locations::\w+,"),
            (None, r"errors::kRemoteError,"),
            ("http/", r"\bAddTo\([\w&,\s]*\bkErrorDomain, \"(\w+)\","),
            ("http/", r"\bCreate\([\w&,\s]*\bkErrorDomain, \"(\w+)\","),
            (None, r"\bSendError\(\w+,"),
            (None, r"\btext =(?=\s*\")")):
        matches = list(re.finditer(start + REST, text))
        assert matches, start
        for match in matches:
            code = name + match[1] + ": " if name else ""
            if not UNSEEN.intersection(re.findall(STRING, match.groups()[-1])):
                found.append(".*" + code + pattern_of(match.groups()[-1]))
    dbus_errors = read("kestrix", "dbus_utils", "dbus_errors.h")
    found += [re.escape(message) for message in re.findall(
        r"constexpr char k\w+\[\] =\s*" + STRING, dbus_errors)
              if " " in message]
    return found


def codes():
    """DOMAIN/CODE of all errors that a caller can get."""
    text = sources()
    classified = re.search(r"const char\* ErrorCode\(.*?\n}\n", text,
                           re.DOTALL)[0]
    ours = re.findall(r"errors::k(InvalidArguments|RemoteError)\b", text)
    return ({"actions/" + re.sub(r"(?<=.)(?=[A-Z])", "_", code).lower()
             for code in ours}
            | {"http/" + code for code in
               re.findall(r'kErrorDomain, *"(\w+)"', text)
               + re.findall(r'return "(\w+)";', classified)})


def test_the_table_of_errors_has_every_code_and_no_other():
    assert {"actions/invalid_arguments", "http/tls",
            "http/invalid_url"} <= codes()
    assert set(re.findall(r"^\| `((?:actions|http)/\w+)",
                          read("docs", "calling.md"), re.MULTILINE)) == codes()


def test_the_table_of_errors_has_every_text():
    rows = re.findall(r"^\| (.+?) \|", read("docs", "calling.md"),
                      re.MULTILINE)
    told = [text for row in rows for text in re.findall(r"`([^`]+)`", row)]
    assert [pattern for pattern in error_texts() if not any(
        re.fullmatch(pattern, text) for text in told)] == []


def test_the_page_of_the_interface_has_every_code_and_no_other():
    assert set(re.findall(r"(?<![\w/])(?:actions|http)/\w+",
                          rendered(INTERFACE_PAGE))) == codes()


def test_the_decisions_have_every_code_and_no_other():
    assert set(re.findall(r"^\| `((?:actions|http)/\w+)` \|",
                          read("docs", "decisions.md"), re.MULTILINE)
               ) == codes()


# Limits.

@pytest.mark.parametrize("constant, value, documents", [
    ("kRequestTimeout", "std::chrono::seconds(30)",
     {"calling.md": "| 30 seconds |", "decisions.md": "| 30 s |",
      INTERFACE_PAGE: "30 seconds"}),
    ("kMinRefreshInterval", "std::chrono::seconds(30)",
     {"calling.md": "in the last 30 seconds",
      "deliberate-behaviour.md": "### One refresh in 30 seconds",
      INTERFACE_PAGE: "not within 30 seconds of the last time"}),
    ("kMaxBodySize", "16u << 20",
     {"calling.md": "| 16 MiB |", "decisions.md": "| 16 MiB |",
      INTERFACE_PAGE: "16 MiB"}),
    ("kMaxHeaderSize", "64u << 10",
     {"calling.md": "| 64 KiB |", "decisions.md": "| 64 KiB;",
      INTERFACE_PAGE: "64 KiB"}),
    ("kMaxDepth", "512",
     {"calling.md": "| 512 levels |", "decisions.md": "| 512 levels |",
      INTERFACE_PAGE: "512 levels"}),
    ("kMaxSize", "(32u << 20) - (64u << 10)",
     {"calling.md": "| just under 32 MiB |",
      "decisions.md": "| just under 32 MiB |",
      INTERFACE_PAGE: "just under 32 MiB"}),
    ("kMaxErrorText", "4096",
     {"calling.md": "more than 4 KiB is cut", "decisions.md": "than 4 KiB",
      INTERFACE_PAGE: "4 KiB, then cut"}),
    ("kMaxLogText", "8192",
     {"integrating.md": "more than 8 KiB is cut",
      "decisions.md": "more than 8 KiB is cut"}),
    ("kMaxFileSize", "32u << 20",
     {"decisions.md": "| 32 MiB |", CONFIG_PAGE: "may be 32 MiB long"}),
    ("kMaxRequestHeaderSize", "512u << 10",
     {"calling.md": "| 512 KiB |", "decisions.md": "| 512 KiB |"}),
    ("kPerConnection", "4",
     {"calling.md": "a quarter of", "decisions.md": "a quarter of"}),
    ("kReserved", "64",
     {"calling.md": "less 64;", "decisions.md": "less 64;"}),
], ids=lambda value: value if str(value).startswith("k") else "")
def test_the_limits_are_those_of_the_sources(constant, value, documents):
    # The macros of the log, which sources() leaves out, stand there.
    text = sources() + read("base", "logging.h")
    assert re.findall(r"constexpr [\w:]+ %s = ([^;]+);" % constant, text) == [
        value]
    for document, words in documents.items():
        told = rendered(document) if document in PAGES else (
            read("docs", document))
        assert words in " ".join(told.split()), document


# The log.

@pytest.mark.parametrize("told", [lines_of_the_daemon_page,
                                  lines_of_the_integration_guide])
def test_every_line_of_the_log_is_told_and_no_other(told):
    told, logged = told(), logged_texts()
    assert len(told) == len(set(told))
    untold = [one for one in logged if not any(
        severity == one[0] and re.fullmatch(one[1], text)
        for severity, text in told)]
    assert untold == []
    invented = [one for one in told if not any(
        severity == one[0] and re.fullmatch(pattern, one[1])
        for severity, pattern in logged)]
    assert invented == []


# The manual pages.

@pytest.mark.parametrize("page", PAGES)
def test_a_manual_page_is_well_formed(page):
    done = subprocess.run(
        ["mandoc", "-T", "lint", "-W", "warning", PAGES[page]],
        capture_output=True, text=True, timeout=20, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_the_page_of_the_interface_shows_what_is_exported():
    text = " ".join(rendered(INTERFACE_PAGE).split())
    root = xml.etree.ElementTree.fromstring(
        read("interfaces", "org.vantrel.actions.CloudActions.xml"))
    (interface,) = root.findall("interface")
    (method,) = interface.findall("method")
    arguments = ", ".join(
        "%s %s %s" % (one.get("direction"), one.get("type"), one.get("name"))
        for one in method.findall("arg"))
    assert "%s(%s)" % (method.get("name"), arguments) in text
    for name in (root.get("name"), interface.get("name"),
                 interface.find("annotation").get("value")):
        assert name in text.split()


def test_the_page_of_the_configuration_has_every_key_and_file():
    text = rendered(CONFIG_PAGE)
    manager = read("platform", "actions", "cloud-actions",
                   "cloud_action_manager.cc")
    assert set(re.findall(r"SMARTHOME_\w+", text)) == set(
        re.findall(r'"(SMARTHOME_\w+)"', manager))
    for path in re.findall(r'const char k\w+\[\] = "(/[^"]+)";', manager):
        assert path in text
        assert path in rendered(DAEMON_PAGE)


def test_the_page_of_the_daemon_has_its_flags(program):
    text = rendered(DAEMON_PAGE)
    shown = subprocess.run([program, "--help"], capture_output=True, text=True,
                           timeout=20, check=True).stdout
    flags = set(re.findall(r"(?<![\w-])--?\w+", shown))
    assert flags == {"--help", "-h"}
    for flag in flags:
        assert flag in re.split(r"[\s,\[\]]+", text)


def test_help_that_cannot_be_shown_ends_it_with_74(program):
    with open("/dev/full", "w", encoding="ascii") as full:
        done = subprocess.run([program, "--help"], stdout=full, timeout=20,
                              check=False)
    assert done.returncode == 74
    assert re.search(r"^ +74 ", rendered(DAEMON_PAGE), re.MULTILINE)
