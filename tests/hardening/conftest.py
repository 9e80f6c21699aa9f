"""Shared fixtures for the hardening tests: a running zrt-proxy daemon and a loopback echo
server; the daemon, its readings and the client helpers come from tests/proxyharness.py."""
import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import proxyharness  # noqa: E402
from proxyharness import EchoServer, echo_round_trip, recv_exact, recv_until, socks5_connect  # noqa: E402,F401

DEST_HOST = proxyharness.DEST_V4


def Daemon(*args, limit_fds=None):
    return proxyharness.Daemon("--listen", "127.0.0.1", *args, limit_fds=limit_fds)


@pytest.fixture
def daemon():
    d = Daemon()
    yield d
    assert d.stop() == 0


@pytest.fixture
def echo():
    server = EchoServer()
    yield server
    server.close()
