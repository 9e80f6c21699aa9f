"""Edges a hostile client or a careless setting must not bend: destination rules and this
machine's own services, names that cannot be names, slots held for free, a destination that
never reads and password guessing."""
import base64
import os
import socket
import struct
import threading
import time

import pytest

from conftest import (DEST_V4, Daemon, EchoServer, connect_from, free_port, read_socks5_reply, recv_exact,
                      recv_until, running, socks5_connect, socks5_login, socks5_request, stopped, wait_for)
from proxyharness import echo_round_trip


@pytest.fixture(scope="module")
def echo_local():
    """An echo server on 127.0.0.1: a service this machine keeps to itself."""
    server = EchoServer("127.0.0.1")
    yield server
    server.close()


def http_status(proxy, request, source="127.0.0.1"):
    with connect_from(source, ("127.0.0.1", proxy.port), timeout=30) as sock:
        sock.sendall(request.encode() if isinstance(request, str) else request)
        head = recv_until(sock, lambda data: b"\r\n" in data)
    return int(head.split(b" ")[1]) if head.startswith(b"HTTP/") else None


def socks5_code(proxy, host, port, command=1):
    sock, (code, _, _) = socks5_request(proxy, command, host, port, timeout=10)
    sock.close()
    return code


# ---- destinations ----

def get(host, port):
    return f"GET http://{host}:{port}/ HTTP/1.1\r\nHost: {host}:{port}\r\n\r\n"


def test_destination_rules_hold_for_every_protocol(echo):
    other = EchoServer()
    rules = ("--deny-destination", f"{DEST_V4}:{echo.port}", "--allow-destination", f"{DEST_V4}/32:1-65535")
    with running(*rules) as proxy:
        assert socks5_code(proxy, DEST_V4, echo.port) == 2
        assert http_status(proxy, f"CONNECT {DEST_V4}:{echo.port} HTTP/1.1\r\n\r\n") == 403
        assert http_status(proxy, get(DEST_V4, echo.port)) == 403
        # A BIND that names a refused peer is refused before it listens.
        assert socks5_code(proxy, DEST_V4, echo.port, command=2) == 2
        # Another port of the same address is allowed (deny wins only where it matches); nothing
        # outside the allow rules is.
        assert echo_round_trip(proxy, other.port)
        assert socks5_code(proxy, "127.0.0.3", echo.port) == 2
    other.close()


def test_a_proxy_on_a_network_keeps_this_machine_to_itself(echo, echo_local):
    proxy = Daemon("--listen", "0.0.0.0", "--metrics", "127.0.0.1:0")
    try:
        for host, port in ((DEST_V4, echo.port), ("127.0.0.1", echo_local.port), ("::1", echo.port)):
            assert socks5_code(proxy, host, port) == 2, host
        assert http_status(proxy, f"CONNECT {DEST_V4}:{echo.port} HTTP/1.1\r\n\r\n") == 403
    finally:
        stopped(proxy)
    # Named by a rule, this machine is a destination again.
    proxy = Daemon("--listen", "0.0.0.0", "--allow-destination", f"{DEST_V4}")
    try:
        assert echo_round_trip(proxy, echo.port)
        assert socks5_code(proxy, "127.0.0.1", echo_local.port) == 2
    finally:
        stopped(proxy)


def test_the_metrics_listener_is_never_a_destination():
    port = free_port()
    with running("--metrics", f"127.0.0.1:{port}", "--allow-destination", "127.0.0.0/8") as proxy:
        # Even named by a rule, on any address of this machine.
        for host in ("127.0.0.1", "127.0.0.7"):
            assert socks5_code(proxy, host, port) == 2, host


@pytest.mark.parametrize("keep_alive, refused", [("0", 404), ("60", 403)])
def test_the_http_side_knows_this_machine_in_every_form(http_servers, keep_alive, refused):
    with running("--http-keep-alive", keep_alive) as proxy:
        # An HTTP server on 127.0.0.1 would answer 200 to any request that got through.
        port = http_servers["127.0.0.1"]
        for host in ("127.0.0.1", "127.1", "2130706433", "0x7f000001", "0177.0.0.1", "LOCALHOST", "LocalHost.",
                     "[::ffff:127.0.0.1]"):
            assert http_status(proxy, get(host, port)) == refused, host
        # Other loopback addresses are not this machine's to the HTTP side.
        assert http_status(proxy, get(DEST_V4, http_servers[DEST_V4])) == 200


def test_names_that_cannot_be_names_are_never_looked_up(dns):
    with running("--dns-server", f"127.0.0.53:{dns.port}") as proxy:
        queries = len(dns.queries)
        for name in (b"evil\nname", b"nul\x00name", b"with space", b"tab\tname", b"x" * 256):
            with socket.create_connection(("127.0.0.1", proxy.port), timeout=10) as sock:
                sock.sendall(b"\x05\x01\x00")
                assert recv_exact(sock, 2) == b"\x05\x00"
                sock.sendall(b"\x05\x01\x00\x03" + bytes([len(name) % 256]) + name[:255] + struct.pack("!H", 80))
                assert read_socks5_reply(sock)[0] == 8
        for host in (b"a\x01b", b"a\x7fb"):
            assert http_status(proxy, b"GET / HTTP/1.1\r\nHost: " + host + b"\r\n\r\n") == 400
        assert dns.queries[queries:] == [], dns.queries


# ---- slots ----

def settled_fds(proxy, timeout=5.0):
    """The daemon's descriptor count once it stopped changing for half a second."""
    deadline = time.time() + timeout
    last, since = proxy.fds(), time.time()
    while time.time() < deadline and time.time() - since < 0.5:
        time.sleep(0.05)
        now = proxy.fds()
        if now != last:
            last, since = now, time.time()
    return last


def bind_served(proxy):
    try:
        sock, (code, _, _) = socks5_request(proxy, 2, "0.0.0.0", 0, timeout=5)
    except (ConnectionError, AssertionError, OSError):
        return None
    if code != 0:
        sock.close()
        return None
    return sock


def test_bind_slots_are_freed_when_their_clients_go():
    baseline = None
    with running("--max-clients", "20", "--max-clients-per-source", "0") as proxy:
        for _ in range(3):
            binds = [bind_served(proxy) for _ in range(20)]
            assert all(binds), "a BIND was refused: slots of earlier clients still held"
            for sock in binds:
                sock.close()
            # Each slot comes back at once, not after the BIND time-out (120 s); the first round
            # sets up what BIND listeners keep for good.
            if baseline is None:
                baseline = settled_fds(proxy)
            assert wait_for(lambda: proxy.fds() <= baseline, timeout=5), (proxy.fds(), baseline)


def test_one_address_cannot_take_every_slot():
    with running("--max-clients", "10", "--max-clients-per-source", "3") as proxy:
        held = [connect_from("127.0.0.1", proxy) for _ in range(3)]
        with connect_from("127.0.0.1", proxy) as extra:
            assert extra.recv(10) == b""  # closed at accept
        with connect_from("127.0.0.3", proxy) as other:
            other.sendall(b"\x05\x01\x00")
            assert recv_exact(other, 2) == b"\x05\x00"
        for sock in held:
            sock.close()


def test_a_destination_that_never_reads_is_given_up_after_the_linger_time():
    sink = socket.create_server((DEST_V4, 0))
    sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    accepted = []
    threading.Thread(target=lambda: accepted.append(sink.accept()[0]), daemon=True).start()
    with running("--linger-timeout", "1") as proxy:
        baseline = settled_fds(proxy)
        sock = socks5_connect(proxy, DEST_V4, sink.getsockname()[1])
        # More than the destination takes, less than the proxy holds for it: the client is done.
        sock.sendall(bytes(300 * 1024))
        sock.shutdown(socket.SHUT_WR)
        started = time.monotonic()
        # The destination never reads: after the linger time the proxy ends the exchange.
        sock.settimeout(10)
        with pytest.raises((ConnectionResetError, AssertionError)):
            assert sock.recv(1) != b""
        assert 0.9 < time.monotonic() - started < 8
        sock.close()
        assert proxy.settle(baseline, proxy.threads(), timeout=10), f"{proxy.fds()} > {baseline}: {proxy.fd_targets()}"
    sink.close()
    for conn in accepted:
        conn.close()


# ---- guessing ----

def login_attempt(proxy, source, password):
    start = time.monotonic()
    sock, status = socks5_login(proxy, "alice", password, source, timeout=30)
    sock.close()
    return status[1], time.monotonic() - start


def test_guesses_are_slowed_for_the_guesser_only():
    with running("--auth", "alice:s3cret") as proxy:
        for _ in range(5):
            assert login_attempt(proxy, "127.0.0.3", b"guess")[0] == 1
        durations = [login_attempt(proxy, "127.0.0.3", b"guess")[1] for _ in range(3)]
        assert sorted(durations)[1] >= 0.15, durations
        assert durations[2] > durations[0], durations
        # Another address is not slowed, and the right password still works where it was slowed.
        code, took = login_attempt(proxy, "127.0.0.4", b"s3cret")
        assert code == 0 and took < 0.15, took
        assert login_attempt(proxy, "127.0.0.3", b"s3cret")[0] == 0
        assert login_attempt(proxy, "127.0.0.3", b"guess")[1] < 0.15
        # HTTP guesses count for the same address.
        token = base64.b64encode(b"alice:nope").decode()
        guess = f"GET http://{DEST_V4}/ HTTP/1.1\r\nProxy-Authorization: Basic {token}\r\n\r\n"
        assert [http_status(proxy, guess, "127.0.0.5") for _ in range(6)][-1] == 407


def test_idle_tunnels_wake_nobody_once_their_connects_are_done():
    """A deadline that no longer applies (the connect's, once connected) wakes no thread."""
    def switches(pid):
        total = 0
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/status") as status:
                total += sum(int(line.split()[1]) for line in status if line.startswith("voluntary_ctxt_switches"))
        return total
    echo = EchoServer()
    proxy = Daemon("--listen", "127.0.0.1", "--connect-timeout", "2")
    tunnels = []
    try:
        for _ in range(20):
            tunnels.append(socks5_connect(proxy, DEST_V4, echo.port))
        if proxy.sanitized():
            pytest.skip("a sanitizer's own threads wake up")
        # The reply may reach us before the thread that sent it is back asleep: once it is.
        before = switches(proxy.pid)
        for _ in range(5):
            time.sleep(0.1)
            before, settled = switches(proxy.pid), before
            if before == settled:
                break
        time.sleep(3)  # past every connect's time limit
        assert switches(proxy.pid) - before == 0
    finally:
        for tunnel in tunnels:
            tunnel.close()
        assert proxy.stop() == 0
        echo.close()
