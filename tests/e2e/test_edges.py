"""Edges a hostile client or a careless setting must not bend: destination rules and this
machine's own services, names that cannot be names, slots held for free, a destination that
never reads, password guessing, UDP associations that name their port, and stops under load."""
import base64
import resource
import socket
import struct
import subprocess
import threading
import time

import pytest

from conftest import (DEST_V4, Daemon, StubDns, read_socks5_reply, recv_exact, recv_until, socks5_address,
                      socks5_request)
from proxyharness import EchoServer, socks5_connect


@pytest.fixture(scope="module")
def echo():
    server = EchoServer()
    yield server
    server.close()


@pytest.fixture(scope="module")
def echo_local():
    """An echo server on 127.0.0.1: a service this machine keeps to itself."""
    server = EchoServer("127.0.0.1")
    yield server
    server.close()


def daemon(*args):
    return Daemon("--listen", "127.0.0.1", *args)


def stopped(proxy):
    assert proxy.stop() == 0
    assert "Sanitizer" not in proxy.errors(), proxy.errors()


def http_status(proxy, request):
    with socket.create_connection(("127.0.0.1", proxy.port), timeout=10) as sock:
        sock.sendall(request.encode() if isinstance(request, str) else request)
        head = recv_until(sock, lambda data: b"\r\n" in data)
    return int(head.split(b" ")[1]) if head.startswith(b"HTTP/") else None


def socks5_code(proxy, host, port, command=1):
    sock, (code, _, _) = socks5_request(proxy, command, host, port, timeout=10)
    sock.close()
    return code


# ---- destinations ----

def test_destination_rules_hold_for_every_protocol(echo):
    proxy = daemon("--deny-destination", f"{DEST_V4}:{echo.port}", "--allow-destination", "127.0.0.0/8:1-65535")
    try:
        assert socks5_code(proxy, DEST_V4, echo.port) == 2
        assert http_status(proxy, f"CONNECT {DEST_V4}:{echo.port} HTTP/1.1\r\n\r\n") == 403
        assert http_status(proxy, f"GET http://{DEST_V4}:{echo.port}/ HTTP/1.1\r\nHost: {DEST_V4}:{echo.port}\r\n\r\n") == 403
        # A BIND that names a refused peer is refused before it listens.
        assert socks5_code(proxy, DEST_V4, echo.port, command=2) == 2
        # Another port of the same address is still allowed (deny wins only where it matches).
        other = EchoServer()
        try:
            with socks5_connect(proxy, DEST_V4, other.port) as sock:
                sock.sendall(b"ok")
                assert recv_exact(sock, 2) == b"ok"
        finally:
            other.close()
    finally:
        stopped(proxy)


def test_only_allowed_destinations_with_allow_rules(echo):
    proxy = daemon("--allow-destination", f"{DEST_V4}/32:{echo.port}")
    try:
        with socks5_connect(proxy, DEST_V4, echo.port) as sock:
            sock.sendall(b"ok")
            assert recv_exact(sock, 2) == b"ok"
        assert socks5_code(proxy, "127.0.0.3", echo.port) == 2
    finally:
        stopped(proxy)


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
        with socks5_connect(proxy, DEST_V4, echo.port) as sock:
            sock.sendall(b"ok")
            assert recv_exact(sock, 2) == b"ok"
        assert socks5_code(proxy, "127.0.0.1", echo_local.port) == 2
    finally:
        stopped(proxy)


def test_the_metrics_listener_is_never_a_destination():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    proxy = daemon("--metrics", f"127.0.0.1:{port}", "--allow-destination", "127.0.0.0/8")
    try:
        # Even named by a rule, on any address of this machine.
        for host in ("127.0.0.1", "127.0.0.7"):
            assert socks5_code(proxy, host, port) == 2, host
    finally:
        stopped(proxy)


@pytest.mark.parametrize("keep_alive, refused", [("0", 404), ("60", 403)])
def test_the_http_side_knows_this_machine_in_every_form(http_servers, keep_alive, refused):
    proxy = daemon("--http-keep-alive", keep_alive)
    try:
        # An HTTP server on 127.0.0.1 would answer 200 to any request that got through.
        port = http_servers["127.0.0.1"]
        for host in ("127.0.0.1", "127.1", "2130706433", "0x7f000001", "0177.0.0.1", "LOCALHOST", "LocalHost.",
                     "[::ffff:127.0.0.1]"):
            assert http_status(proxy, f"GET http://{host}:{port}/ HTTP/1.1\r\nHost: {host}:{port}\r\n\r\n") == refused, host
        # Other loopback addresses are not this machine's to the HTTP side.
        port = http_servers[DEST_V4]
        assert http_status(proxy, f"GET http://{DEST_V4}:{port}/ HTTP/1.1\r\nHost: {DEST_V4}:{port}\r\n\r\n") == 200
    finally:
        stopped(proxy)


def test_names_that_cannot_be_names_are_never_looked_up():
    dns = StubDns()
    proxy = daemon("--dns-server", f"127.0.0.53:{dns.port}")
    try:
        for name in (b"evil\nname", b"nul\x00name", b"with space", b"tab\tname", b"x" * 256):
            with socket.create_connection(("127.0.0.1", proxy.port), timeout=10) as sock:
                sock.sendall(b"\x05\x01\x00")
                assert recv_exact(sock, 2) == b"\x05\x00"
                sock.sendall(b"\x05\x01\x00\x03" + bytes([len(name) % 256]) + name[:255] + struct.pack("!H", 80))
                assert read_socks5_reply(sock)[0] == 8
        for host in (b"a\x01b", b"a\x7fb"):
            assert http_status(proxy, b"GET / HTTP/1.1\r\nHost: " + host + b"\r\n\r\n") == 400
        assert dns.queries == [], dns.queries
    finally:
        stopped(proxy)
        dns.close()


# ---- slots ----

def wait_until(condition, timeout=10.0):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if condition():
            return True
        time.sleep(0.05)
    return False


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
    proxy = daemon("--max-clients", "20", "--max-clients-per-source", "0")
    baseline = None
    try:
        for _ in range(3):
            binds = [bind_served(proxy) for _ in range(20)]
            assert all(binds), "a BIND was refused: slots of earlier clients still held"
            for sock in binds:
                sock.close()
            # Each slot comes back at once, not after the BIND time-out (120 s); the first round
            # sets up what BIND listeners keep for good.
            if baseline is None:
                baseline = settled_fds(proxy)
            assert wait_until(lambda: proxy.fds() <= baseline, timeout=5), (proxy.fds(), baseline)
    finally:
        stopped(proxy)


def test_one_address_cannot_take_every_slot(echo):
    proxy = daemon("--max-clients", "10", "--max-clients-per-source", "3")
    held = []
    try:
        for _ in range(3):
            held.append(socket.create_connection(("127.0.0.1", proxy.port), timeout=10))
        extra = socket.create_connection(("127.0.0.1", proxy.port), timeout=10)
        assert extra.recv(10) == b""  # closed at accept
        extra.close()
        other = socket.socket()
        other.bind(("127.0.0.3", 0))
        other.settimeout(10)
        other.connect(("127.0.0.1", proxy.port))
        other.sendall(b"\x05\x01\x00")
        assert recv_exact(other, 2) == b"\x05\x00"
        other.close()
    finally:
        for sock in held:
            sock.close()
        stopped(proxy)


def test_a_destination_that_never_reads_is_given_up_after_the_linger_time():
    sink = socket.create_server((DEST_V4, 0))
    sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    accepted = []
    threading.Thread(target=lambda: accepted.append(sink.accept()[0]), daemon=True).start()
    proxy = daemon("--linger-timeout", "1")
    try:
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
    finally:
        stopped(proxy)
        sink.close()
        for conn in accepted:
            conn.close()


# ---- guessing ----

def login_attempt(proxy, source, password):
    sock = socket.socket()
    sock.bind((source, 0))
    sock.settimeout(30)
    sock.connect(("127.0.0.1", proxy.port))
    start = time.monotonic()
    with sock:
        sock.sendall(b"\x05\x01\x02")
        assert recv_exact(sock, 2) == b"\x05\x02"
        sock.sendall(b"\x01\x05alice" + bytes([len(password)]) + password)
        reply = recv_exact(sock, 2)
    return reply[1], time.monotonic() - start


def test_guesses_are_slowed_for_the_guesser_only():
    proxy = daemon("--auth", "alice:s3cret")
    try:
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
        for _ in range(6):
            status = http_status_from(proxy, "127.0.0.5", "alice:nope")
        assert status == 407
    finally:
        stopped(proxy)


def http_status_from(proxy, source, credentials):
    sock = socket.socket()
    sock.bind((source, 0))
    sock.settimeout(30)
    sock.connect(("127.0.0.1", proxy.port))
    token = base64.b64encode(credentials.encode()).decode()
    with sock:
        sock.sendall(f"GET http://{DEST_V4}/ HTTP/1.1\r\nProxy-Authorization: Basic {token}\r\n\r\n".encode())
        head = recv_until(sock, lambda data: b"\r\n" in data)
    return int(head.split(b" ")[1])


# ---- UDP ----

def test_udp_association_keeps_to_the_port_its_request_named(udp_echo):
    proxy = daemon()
    client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    client.bind(("127.0.0.1", 0))
    client.settimeout(3)
    other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    other.bind(("127.0.0.1", 0))
    other.settimeout(0.5)
    try:
        tcp, (code, _, relay_port) = socks5_request(proxy, 3, "127.0.0.1", client.getsockname()[1])
        assert code == 0
        header = b"\x00\x00\x00" + socks5_address(DEST_V4, udp_echo[DEST_V4])
        # Another port of the client's own host sends first: it takes nothing.
        other.sendto(header + b"first", ("127.0.0.1", relay_port))
        with pytest.raises(socket.timeout):
            other.recvfrom(100)
        # The named port is served, and a 9,000-byte datagram travels whole, both ways.
        payload = bytes(range(256)) * 35 + b"end"
        client.sendto(header + payload, ("127.0.0.1", relay_port))
        data, _ = client.recvfrom(65536)
        assert data == header + payload
        tcp.close()
    finally:
        client.close()
        other.close()
        stopped(proxy)


# ---- stops ----

class EndlessSource:
    """Writes zeros to every client until it goes."""

    def __init__(self):
        self.sock = socket.create_server((DEST_V4, 0))
        self.port = self.sock.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self._feed, args=(conn,), daemon=True).start()

    @staticmethod
    def _feed(conn):
        chunk = bytes(1 << 16)
        with conn:
            try:
                while True:
                    conn.sendall(chunk)
            except OSError:
                return


def test_a_stop_under_load_takes_under_a_second(echo):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, 8192)), hard))
    source = EndlessSource()
    proxy = Daemon("--listen", "127.0.0.1", "--max-clients", "2000", "--max-clients-per-source", "0", limit_fds=min(hard, 8192))
    idle = []
    readers = []
    running = [True]

    def drain(sock):
        with sock:
            try:
                while running[0] and sock.recv(1 << 20):
                    pass
            except OSError:
                pass
    try:
        for _ in range(1000):
            idle.append(socks5_connect(proxy, DEST_V4, echo.port))
        for _ in range(32):
            thread = threading.Thread(target=drain, args=(socks5_connect(proxy, DEST_V4, source.port),), daemon=True)
            thread.start()
            readers.append(thread)
        time.sleep(1)
        start = time.monotonic()
        assert proxy.stop(timeout=10) == 0
        assert time.monotonic() - start < 1.0
    finally:
        running[0] = False
        for sock in idle:
            sock.close()
        source.sock.close()
