# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The sample callers, built and run as docs/calling.md says."""

import json
import os
import subprocess

import pytest
from cloud import Reply, hang
from conftest import ENDPOINT, TESTS
from daemon_process import NAME

EXAMPLES = os.path.join(os.path.dirname(TESTS), "examples")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Werror")
COMPILERS = {"redirect_request.c": ("gcc", "-std=c11"),
             "redirect_request.cc": ("g++", "-std=c++20")}
SAMPLES = ("redirect_request.c", "redirect_request.cc",
           "redirect_request.py", "redirect_request.sh")

# Everything that has to be escaped somewhere on the way, and what must not be
# taken for a pattern, a format or an option.
ODD = {"name": "-\"\\\\\" '*' %s \u00e4\U0001f4a1 $HOME \n\t\x01\x7f \\n",
       "is": "\"]}", "a,b": [1.10, None, "],"]}


@pytest.fixture(scope="session")
def programs(tmp_path_factory):
    """Where each sample can be run, by its file name."""
    folder = tmp_path_factory.mktemp("examples")
    made = {}
    for name in SAMPLES:
        source = made[name] = os.path.join(EXAMPLES, name)
        if name in COMPILERS:
            made[name] = str(folder / name.replace(".", "-"))
            subprocess.run(
                [*COMPILERS[name], *WARNINGS, "-o", made[name], source,
                 "-lsystemd"], check=True, timeout=120)
    return made


@pytest.fixture(params=SAMPLES)
def sample(request, programs):
    """Runs one of the samples and returns (exit code, output, errors)."""

    def run(*arguments):
        done = subprocess.run(
            [programs[request.param], *arguments], capture_output=True,
            text=True, errors="surrogateescape", timeout=60, check=False)
        return done.returncode, done.stdout, done.stderr
    run.is_shell = request.param.endswith(".sh")
    return run


def test_a_get_prints_status_and_answer(provision, cloud, sample):
    provision()
    cloud.replies.append(Reply.json({"on": True}))
    assert sample(ENDPOINT + "lamps", "GET") == (0, '200 {"on":true}\n', "")
    assert cloud.requests[0].target == "/v1/lamps"


def test_a_post_sends_the_body_and_any_status_is_an_answer(
        provision, cloud, sample):
    provision()
    cloud.replies.append(Reply.json({"error": "no such lamp"}, 404))
    assert sample(ENDPOINT, "post", ' {"name": "evening"}') == (
        0, '404 {"error":"no such lamp"}\n', "")
    assert cloud.requests[0].method == "POST"
    assert cloud.requests[0].body == b'{"name":"evening"}'


def test_an_odd_body_and_an_odd_answer_come_through_unharmed(
        provision, cloud, sample):
    provision()
    text = json.dumps(ODD, separators=(",", ":"), ensure_ascii=False)
    cloud.replies.append(Reply(body=text.encode()))
    assert sample(ENDPOINT, "POST", text) == (0, "200 %s\n" % text, "")
    assert json.loads(cloud.requests[0].body) == ODD


def test_a_body_that_looks_like_an_option_is_a_body(provision, cloud, sample):
    provision()
    cloud.replies.append(Reply())
    assert sample(ENDPOINT, "POST", "-1") == (0, "200 {}\n", "")
    assert cloud.requests[0].body == b"-1"


def test_an_error_is_shown_and_ends_it_with_1(daemon, sample):
    daemon.start()
    text = ("actions/invalid_arguments: Endpoint %s not whitelisted\n"
            % ENDPOINT)
    form = "Call failed: %s" if sample.is_shell else (
        "org.freedesktop.DBus.Error.Failed: %s")
    assert sample(ENDPOINT, "GET") == (1, "", form % text)


def test_without_the_daemon_the_bus_says_so(bus, sample):
    code, output, errors = sample(ENDPOINT, "GET")
    assert (code, output) == (1, "")
    assert NAME in errors
    assert sample.is_shell or errors.startswith(
        "org.freedesktop.DBus.Error.ServiceUnknown: ")


def test_without_a_bus_it_says_so(sample):
    code, output, errors = sample(ENDPOINT, "GET")
    assert (code, output) == (1, "")
    assert errors


def test_an_endpoint_that_the_bus_cannot_carry_ends_it_with_1(daemon, sample):
    daemon.start()
    code, output, errors = sample("https://cloud.example/\udcff", "GET")
    assert (code, output) == (1, "")
    assert errors
    assert "null" not in errors


@pytest.mark.parametrize("arguments", [(), (ENDPOINT,),
                                       (ENDPOINT, "GET", "", "")])
def test_other_arguments_get_the_usage_and_exit_code_64(sample, arguments):
    code, output, errors = sample(*arguments)
    assert (code, output) == (64, "")
    assert errors.startswith("Usage: redirect_request")


@pytest.mark.duration
def test_every_sample_waits_until_the_daemon_gives_a_request_up(
        provision, cloud, programs):
    provision()
    cloud.replies.extend(hang() for _ in programs)
    running = [subprocess.Popen([program, ENDPOINT, "GET"],
                                stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)
               for program in programs.values()]
    for process in running:
        output, errors = process.communicate(timeout=60)
        assert (process.returncode, output) == (1, "")
        assert "http/timeout: " in errors
