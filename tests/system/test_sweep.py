# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Comes last: no secret of any test showed up in what the daemon said."""

import pytest
from conftest import MARK


@pytest.mark.parametrize("kind", ["stderr", "syslog", "error"])
def test_nothing_that_was_said_in_this_run_holds_a_secret(output, kind):
    texts = output.texts[kind]
    assert texts, "nothing was collected: run this with the other tests"
    assert [text for text in texts if MARK.lower() in text.lower()] == []
