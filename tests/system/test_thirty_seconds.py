# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""The two rules of thirty seconds, on the real clock."""

import time

import pytest
from bus_client import CallError
from cloud import Reply, hang
from conftest import ENDPOINT


def sleep_until(moment):
    time.sleep(max(0, moment - time.monotonic()))


@pytest.mark.duration
def test_at_most_one_refresh_is_started_in_thirty_seconds(
        daemon, stored, identity, cloud, caller):
    stored()
    identity.handshake = "reset"
    cloud.replies.extend(Reply() for _ in range(5))
    not_before = time.monotonic()
    daemon.start()
    daemon.wait_for_log_like("WARNING", "Error fetching access token: .+")
    not_after = time.monotonic()
    assert daemon.count_log("INFO", "Refreshing access token.") == 1
    identity.handshake = "normal"
    for moment in (0, 10, 28):
        sleep_until(not_before + moment)
        assert caller.request(ENDPOINT) == (200, "{}")
        assert daemon.count_log("INFO", "Refreshing access token.") == 1
    sleep_until(not_after + 30)
    assert caller.request(ENDPOINT) == (200, "{}")
    daemon.wait_for_log("INFO", "Successfully fetched access token: 200")
    assert daemon.count_log("INFO", "Refreshing access token.") == 2
    caller.request(ENDPOINT)
    assert [r.field("Authorization") == "Bearer " for r in cloud.requests] == [
        True, True, True, True, False]


@pytest.mark.duration
def test_every_exchange_is_given_up_after_thirty_seconds(
        daemon, stored, identity, cloud, caller, files):
    token = stored()
    identity.replies.append(hang())
    cloud.replies.append(hang())
    begin = time.monotonic()
    daemon.start()
    identity.wait_for(1)
    pending = caller.start(ENDPOINT)
    cloud.wait_for(1)
    daemon.wait_for_log_like("WARNING", "Error fetching access token: .+", 40)
    assert 29 < time.monotonic() - begin < 35
    with pytest.raises(CallError) as caught:
        pending.result()
    assert 29 < time.monotonic() - begin < 35
    assert caught.value.message.startswith("http/timeout: ")
    assert files.read("/var/lib/cloud_action/refresh_token") == token.encode()
