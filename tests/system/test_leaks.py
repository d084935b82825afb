"""With the address sanitizer every test fails that ends a proxy which has lost memory. This proves it."""

import pytest

from txproxy.waiting import wait_until

pytestmark = pytest.mark.asan_only


def test_a_proxy_that_lost_a_block_fails_its_test_with_a_report(start_proxy):
    proxy = start_proxy("-a", "127.0.0.2", env={"TX_PROXY_LOSE_A_BLOCK": "1"})
    with pytest.raises(AssertionError, match="(?s)LeakSanitizer: detected memory leaks.*4321 byte"):
        proxy.stop()
    assert proxy.process.returncode == 23


def test_a_proxy_that_lost_nothing_ends_as_the_signal_has_it(start_proxy):
    start_proxy("-a", "127.0.0.2").stop()


def test_a_proxy_that_is_ended_while_it_starts_is_looked_at_too(launch, net):
    for _ in range(10):
        proxy = launch("-I", net.instance, net.input, env={"TX_PROXY_LOSE_A_BLOCK": "1"})
        wait_until(lambda: proxy.stdout.text or proxy.stderr.text, "a first sign of life")
        with pytest.raises(AssertionError, match="LeakSanitizer: detected memory leaks"):
            proxy.stop()
