"""Requests for the oldest numbers of a small ring, whose packets are just being replaced (UDP input mode)."""

import re
import subprocess

import pytest

from txproxy import programs
from txproxy.model_receiver import wait_bound
from txproxy.waiting import DEFAULT_TIMEOUT, scaled

RECEIVER = "127.0.0.5"
SECONDS = 5
LEAST_SENT = 2000
LEAST_AGAIN = 20


def figures(text):
    return {name: int(value) for name, value in re.findall(r"^([A-Z_]+)=(\d+)$", text, re.MULTILINE)}


@pytest.mark.parametrize("ring_size", [16, 64])
def test_no_first_sending_is_marked_as_an_answer_and_no_number_goes_with_the_payload_of_another(
    start_proxy, net, tmp_path, ring_size
):
    race = programs.build(tmp_path, "arq_race")
    wait_bound(start_proxy("-u", "-q", ring_size, "-a", RECEIVER), net.destination, net.request)
    ports = map(str, (net.input, net.destination, net.request))
    run = subprocess.run(
        [race, *ports, str(ring_size), str(SECONDS), RECEIVER],
        capture_output=True,
        text=True,
        check=True,
        timeout=scaled(DEFAULT_TIMEOUT) + 10 * SECONDS,
    )
    found = figures(run.stdout)
    assert found["NEVER_UNMARKED"] == 0 and found["FAULTS"] == 0, run.stdout
    assert found["ARRIVED"] == found["SENT"] > LEAST_SENT, run.stdout
    # Answers there were, so requests met the ring.
    assert found["AGAIN"] > LEAST_AGAIN, run.stdout
