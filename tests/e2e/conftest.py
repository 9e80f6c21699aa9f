"""Fixtures for the end-to-end tests: the zrt-proxy daemon on a free port, and destination
servers on loopback (HTTP file servers, a UDP echo, a TCP sink) run inside the test process."""
import contextlib
import hashlib
import http.server
import os
import socket
import socketserver
import struct
import sys
import threading
import time

import pytest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from proxyharness import (DEST_V4, DEST_V6, PROXY_BIN, Daemon, EchoServer, read_socks5_reply,  # noqa: E402,F401
                          recv_exact, recv_until, serve_forever, socks5_address, socks5_connect, socks5_request,
                          udp_ask)

BIG_SIZE = 8 * 1024 * 1024


def stopped(proxy):
    assert proxy.stop() == 0
    assert "Sanitizer" not in proxy.errors(), proxy.errors()


@contextlib.contextmanager
def running(*args, **kwargs):
    """A daemon on 127.0.0.1 with these options, stopped cleanly at the end."""
    proxy = Daemon("--listen", "127.0.0.1", *args, **kwargs)
    proxy.socks, proxy.http = f"127.0.0.1:{proxy.port}", f"http://127.0.0.1:{proxy.port}"
    try:
        yield proxy
    finally:
        stopped(proxy)


@pytest.fixture(scope="module")
def daemon():
    with running() as proxy:
        yield proxy


@pytest.fixture(scope="module")
def echo():
    server = EchoServer()
    yield server
    server.close()


@pytest.fixture(scope="module")
def dns():
    server = StubDns()
    yield server
    server.close()


def wait_for(condition, timeout=20):
    deadline = time.time() + timeout
    while not condition():
        if time.time() > deadline:
            return False
        time.sleep(0.05)
    return True


def free_port(host="127.0.0.1"):
    with socket.socket() as sock:
        sock.bind((host, 0))
        return sock.getsockname()[1]


def connect_from(source, proxy, timeout=10):
    """A client connection to the proxy (or an (address, port)) from a loopback address of its own."""
    sock = socket.socket()
    sock.settimeout(timeout)
    sock.bind((source, 0))
    sock.connect(proxy if isinstance(proxy, tuple) else (proxy.host, proxy.port))
    return sock


def socks5_login(proxy, user, password, source="127.0.0.1", timeout=10):
    """Greets offering only username/password and logs in from source; the socket and the status."""
    user, password = (value.encode() if isinstance(value, str) else value for value in (user, password))
    sock = connect_from(source, proxy, timeout)
    sock.sendall(b"\x05\x01\x02")
    assert recv_exact(sock, 2) == b"\x05\x02"
    sock.sendall(bytes([1, len(user)]) + user + bytes([len(password)]) + password)
    return sock, recv_exact(sock, 2)


def closed_without_reply(sock, timeout=5):
    """True when the peer closes (or resets) with nothing to say within the timeout."""
    sock.settimeout(timeout)
    try:
        return sock.recv(100) == b""
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


class QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


class HTTPServerV4(http.server.ThreadingHTTPServer):
    daemon_threads = True


class HTTPServerV6(HTTPServerV4):
    address_family = socket.AF_INET6


@pytest.fixture(scope="session")
def files(tmp_path_factory):
    """A directory with a big random file; returns (directory, name, sha256)."""
    root = tmp_path_factory.mktemp("www")
    data = os.urandom(BIG_SIZE)
    (root / "big.bin").write_bytes(data)
    return root, "big.bin", hashlib.sha256(data).hexdigest()


@pytest.fixture(scope="session")
def http_servers(files):
    """HTTP file servers on 127.0.0.2, 127.0.0.1 and ::1: {address: port}."""
    root = str(files[0])

    def handler(*args, **kwargs):
        return QuietHandler(*args, directory=root, **kwargs)

    servers = {
        DEST_V4: serve_forever(HTTPServerV4((DEST_V4, 0), handler)),
        "127.0.0.1": serve_forever(HTTPServerV4(("127.0.0.1", 0), handler)),
        DEST_V6: serve_forever(HTTPServerV6((DEST_V6, 0), handler)),
    }
    yield {address: server.server_address[1] for address, server in servers.items()}
    for server in servers.values():
        server.shutdown()
        server.server_close()


@pytest.fixture(scope="session")
def udp_echo():
    """UDP echo servers on 127.0.0.2 and ::1: {address: port}."""
    sockets = {}
    for address, family in ((DEST_V4, socket.AF_INET), (DEST_V6, socket.AF_INET6)):
        sock = socket.socket(family, socket.SOCK_DGRAM)
        sock.bind((address, 0))
        sockets[address] = sock

        def echo(sock=sock):
            while True:
                try:
                    data, peer = sock.recvfrom(65536)
                    sock.sendto(data, peer)
                except OSError:
                    return
        threading.Thread(target=echo, daemon=True).start()
    yield {address: sock.getsockname()[1] for address, sock in sockets.items()}
    for sock in sockets.values():
        sock.close()


class SinkHandler(socketserver.BaseRequestHandler):
    """Reads an 8-byte length and that many bytes, optionally after writing a reply of the
    same size first ("host writes first"), then answers with the SHA-256 of what it read.
    Without a length (the peer closes at once), it counts until EOF and records the digest."""

    def handle(self):
        sock = self.request
        try:
            header = recv_exact(sock, 9)
        except ConnectionError:
            return
        mode = header[0:1]
        size = struct.unpack("!Q", header[1:])[0]
        if mode == b"W":
            sock.sendall(bytes(size))
        digest = hashlib.sha256()
        total = 0
        while size == 0 or total < size:
            chunk = sock.recv(min(1 << 16, size - total) if size else 1 << 16)
            if not chunk:
                break
            digest.update(chunk)
            total += len(chunk)
        if size:
            sock.sendall(digest.hexdigest().encode())
        else:
            self.server.records.append((total, digest.hexdigest()))


class SinkServer(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, address, family):
        self.address_family = family
        self.records = []
        super().__init__(address, SinkHandler)


@pytest.fixture(scope="session")
def tcp_sink():
    """TCP sinks on 127.0.0.2 and ::1: {address: server}."""
    servers = {DEST_V4: serve_forever(SinkServer((DEST_V4, 0), socket.AF_INET)),
               DEST_V6: serve_forever(SinkServer((DEST_V6, 0), socket.AF_INET6))}
    yield servers
    for server in servers.values():
        server.shutdown()
        server.server_close()


def http_connect(proxy, host, port, timeout=30):
    """Opens a CONNECT tunnel through the HTTP side of the proxy; returns the socket and the status line."""
    sock = socket.create_connection((proxy.host, proxy.port), timeout=timeout)
    target = f"[{host}]:{port}" if ":" in host else f"{host}:{port}"
    sock.sendall(f"CONNECT {target} HTTP/1.1\r\nHost: {target}\r\n\r\n".encode())
    head = recv_until(sock, lambda data: b"\r\n\r\n" in data, 1)
    return sock, head.split(b"\r\n", 1)[0].decode()


class StubDns:
    """A DNS server on 127.0.0.53 that answers A queries with `addresses` in this order, AAAA
    queries with `v6_addresses` (none by default), never answers names that start with "slow" and
    says names that start with "nx" do not exist. `port` 53 serves resolvers that take no port."""

    def __init__(self, addresses=(DEST_V4,), v6_addresses=(), port=0):
        self.addresses = addresses
        self.v6_addresses = v6_addresses
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.53", port))
        self.port = self.sock.getsockname()[1]
        self.queries = []
        threading.Thread(target=self._serve, daemon=True).start()

    @staticmethod
    def _name(packet):
        labels, pos = [], 12
        while packet[pos]:
            labels.append(packet[pos + 1:pos + 1 + packet[pos]].decode())
            pos += packet[pos] + 1
        qtype = struct.unpack("!H", packet[pos + 1:pos + 3])[0]
        return ".".join(labels), qtype, pos + 5

    def _serve(self):
        while True:
            try:
                packet, peer = self.sock.recvfrom(512)
            except OSError:
                return
            name, qtype, end = self._name(packet)
            self.queries.append(name)
            if name.startswith("slow"):
                continue
            family = {1: socket.AF_INET, 28: socket.AF_INET6}.get(qtype)
            answers = {1: self.addresses, 28: self.v6_addresses}.get(qtype, ())
            flags = b"\x81\x80"
            if name.startswith("nx"):
                answers, flags = (), b"\x81\x83"
            reply = packet[:2] + flags + struct.pack("!HHHH", 1, len(answers), 0, 0) + packet[12:end]
            for address in answers:
                raw = socket.inet_pton(family, address)
                reply += b"\xc0\x0c" + struct.pack("!HHIH", qtype, 1, 60, len(raw)) + raw
            self.sock.sendto(reply, peer)

    def close(self):
        self.sock.close()
