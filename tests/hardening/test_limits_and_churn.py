"""Running out of descriptors, and long runs of short connections."""
import contextlib
import os
import signal
import socket
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from conftest import DEST_HOST, Daemon, EchoServer, echo_round_trip, recv_exact, recv_until, socks5_connect


def settle(daemon, limit=20):
    """Waits until the daemon has taken in what it can: its threads stop changing. A slow build
    (sanitizers) may still be starting connection threads well after the clients connected."""
    deadline = time.time() + limit
    last = None
    while time.time() < deadline:
        now = (daemon.threads(), daemon.fds())
        if now == last:
            return
        last = now
        time.sleep(0.5)


def stays_asleep(daemon, looks=25, timeout=30):
    """Waits until every thread of the daemon is seen blocked in the kernel on `looks` looks in a
    row, 10 ms apart (a paused listener is retried meanwhile); a thread spinning never is."""
    deadline, run = time.time() + timeout, 0
    while run < looks and time.time() < deadline:
        states = []
        for task in os.listdir(f"/proc/{daemon.pid}/task"):
            with contextlib.suppress(FileNotFoundError):  # a thread that just ended
                with open(f"/proc/{daemon.pid}/task/{task}/stat") as f:
                    states.append(f.read().rsplit(")", 1)[1].split()[0])
        run = run + 1 if all(state == "S" for state in states) else 0
        time.sleep(0.01)
    return run >= looks


def test_descriptor_exhaustion_does_not_spin_and_recovers():
    echo = EchoServer()
    # No client limits: the default ones (from the descriptor limit) would turn clients away
    # first, and the handshake limit would close the idle ones.
    daemon = Daemon("--max-clients", "0", "--max-clients-per-source", "0", "--handshake-timeout", "0", limit_fds=256)
    idle = []
    try:
        tunnel = socks5_connect(daemon, DEST_HOST, echo.port)
        tunnel.sendall(b"before")
        assert recv_exact(tunnel, 6) == b"before"

        # Far more idle clients than descriptors: each takes one (or more) in the daemon.
        for _ in range(400):
            try:
                idle.append(socket.create_connection(("127.0.0.1", daemon.port), timeout=2))
            except OSError:
                break
        settle(daemon)
        assert daemon.fds() >= 250, daemon.fds()
        assert stays_asleep(daemon), "the accept loop spins while descriptors are exhausted"

        tunnel.sendall(b"during")
        assert recv_exact(tunnel, 6) == b"during"

        for s in idle:
            s.close()
        deadline = time.time() + 20
        served = False
        while time.time() < deadline and not served:
            try:
                served = echo_round_trip(daemon, echo.port)
            except (OSError, AssertionError):
                time.sleep(0.2)
        assert served
        tunnel.close()
    finally:
        for s in idle:
            s.close()
        assert daemon.stop() == 0
        echo.close()


class EndlessSource(EchoServer):
    """Writes zeros to every client until it goes."""

    @staticmethod
    def _serve(conn):
        with conn, contextlib.suppress(OSError):
            while True:
                conn.sendall(bytes(1 << 16))


def drain(sock):
    with contextlib.suppress(OSError):
        while sock.recv(1 << 20):
            pass


@pytest.mark.parametrize("stop_signal,limit_fds", [(signal.SIGTERM, None), (signal.SIGINT, None),
                                                   (signal.SIGTERM, 256)])
def test_stop_signals_end_the_daemon_at_once_with_many_tunnels(stop_signal, limit_fds):
    """500 open tunnels (or as many as the descriptor limit allows), the first 32 of them
    streaming at full speed, do not hold up a stop."""
    echo, source = EchoServer(), EndlessSource()
    daemon = Daemon(limit_fds=limit_fds)
    clients = []
    try:
        for i in range(500):
            try:
                clients.append(socks5_connect(daemon, DEST_HOST, (source if i < 32 else echo).port, timeout=5))
            except (OSError, AssertionError):
                if limit_fds is None:
                    raise
                break
            if i < 32:
                threading.Thread(target=drain, args=(clients[-1],), daemon=True).start()
        # At the limit, more clients wait in the listen queue or are turned away.
        for _ in range(100 if limit_fds else 0):
            try:
                clients.append(socket.create_connection(("127.0.0.1", daemon.port), timeout=2))
            except OSError:
                break
        settle(daemon)
        started = time.time()
        daemon.proc.send_signal(stop_signal)
        assert daemon.proc.wait(timeout=10) == 0
        took = time.time() - started
        if not os.environ.get("ZRT_SANITIZE"):
            assert took < 1.0, took
    finally:
        for c in clients:
            c.close()
        daemon.stop()
        echo.close()
        source.close()


def http_get(proxy_port, port):
    """Reads the small response and closes first, as a keep-alive client would."""
    with socket.create_connection(("127.0.0.1", proxy_port), timeout=10) as s:
        s.sendall(f"GET http://{DEST_HOST}:{port}/ HTTP/1.1\r\nHost: {DEST_HOST}:{port}\r\n\r\n".encode())
        return recv_until(s, lambda reply: reply.endswith(b"\r\n\r\nok"))


class TinyHttpServer(EchoServer):
    """Answers every request with a small fixed response and closes."""

    @staticmethod
    def _serve(conn):
        with conn:
            try:
                if b"\r\n\r\n" in recv_until(conn, lambda data: b"\r\n\r\n" in data, 4096):
                    conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")
            except OSError:
                return


CHURN_COUNT = int(os.environ.get("ZRT_CHURN_COUNT", "20000"))


@pytest.mark.skipif(CHURN_COUNT == 0, reason="churn disabled for this build")
def test_churn_of_short_connections_returns_to_baseline():
    count = CHURN_COUNT
    echo = EchoServer()
    web = TinyHttpServer()
    daemon = Daemon()
    try:
        for _ in range(50):
            assert echo_round_trip(daemon, echo.port)
        time.sleep(0.5)
        fds, threads, rss = daemon.fds(), daemon.threads(), daemon.rss_kib()

        def one(i):
            if i % 2:
                return echo_round_trip(daemon, echo.port, b"x")
            return http_get(daemon.port, web.port).endswith(b"ok")

        with ThreadPoolExecutor(max_workers=8) as pool:
            results = list(pool.map(one, range(count)))
        assert all(results)
        assert daemon.settle(fds, threads, timeout=30)
        after = daemon.rss_kib()
        print(f"churn {count}: fds {fds}->{daemon.fds()} threads {threads}->{daemon.threads()} rss {rss}->{after} KiB")
        # A sanitizer keeps freed memory in quarantine on purpose; its RSS says nothing here.
        if not os.environ.get("ZRT_SANITIZE"):
            assert after <= rss * 1.10 + 2048, (rss, after)
    finally:
        assert daemon.stop() == 0
        echo.close()
        web.close()
