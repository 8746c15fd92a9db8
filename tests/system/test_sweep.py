# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Comes last: no secret of any test showed up in what the daemon said."""

import pytest
from conftest import MARK


# Said by many tests, so it must have been collected.
HARMLESS = {"stderr": "Refreshing access token.",
            "syslog": "Refreshing access token.",
            "error": "not whitelisted",
            "status": "Credential held"}


@pytest.mark.parametrize("kind", list(HARMLESS))
def test_nothing_that_was_said_in_this_run_holds_a_secret(output, kind):
    texts = output.texts[kind]
    assert any(HARMLESS[kind] in text for text in texts), (
        "too little was collected: run this with the other tests")
    assert [text for text in texts if MARK.lower() in text.lower()] == []


def test_nothing_was_said_on_stdout_in_this_run(output):
    texts = output.texts["stdout"]  # one of each run of the daemon
    assert texts, "nothing was collected: run this with the other tests"
    assert set(texts) == {""}
