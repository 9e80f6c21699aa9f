"""Fixtures for the end-to-end tests: the zrt-proxy daemon on a free port, and destination
servers on loopback (HTTP file servers, a UDP echo, a TCP sink) run inside the test process."""
import hashlib
import http.server
import os
import signal
import socket
import socketserver
import struct
import subprocess
import tempfile
import threading

import pytest

PROXY_BIN = os.environ.get("ZRT_PROXY_BIN", "build/zrt-proxy")
# The machine's own name resolves to 127.0.0.1, which the HTTP handler refuses as local.
DEST_V4 = "127.0.0.2"
DEST_V6 = "::1"
BIG_SIZE = 8 * 1024 * 1024


class Daemon:
    def __init__(self, *args):
        # A file, not a pipe: a sanitizer report must neither block the daemon nor get lost.
        self.stderr = tempfile.TemporaryFile(mode="w+")
        self.proc = subprocess.Popen([PROXY_BIN, "--port", "0", *args], stdout=subprocess.PIPE,
                                     stderr=self.stderr, text=True)
        line = self.proc.stdout.readline()
        assert "listening on" in line, line + self.errors()
        self.host, port = line.split("listening on", 1)[1].strip().rsplit(":", 1)
        self.host = self.host.strip("[]")
        self.port = int(port)

    def errors(self):
        self.stderr.seek(0)
        return self.stderr.read()

    def sanitized(self):
        """True when the daemon runs under ASan or TSan, whose memory use says nothing."""
        with open(f"/proc/{self.proc.pid}/maps") as maps:
            return any("libasan" in line or "libtsan" in line for line in maps)

    def rss_kib(self):
        with open(f"/proc/{self.proc.pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def stop(self, timeout=20):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
                return None
        return self.proc.returncode


@pytest.fixture(scope="module")
def daemon():
    proxy = Daemon("--listen", "127.0.0.1")
    yield proxy
    assert proxy.stop() == 0
    assert "Sanitizer" not in proxy.errors(), proxy.errors()


class QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


class HTTPServerV4(http.server.ThreadingHTTPServer):
    daemon_threads = True


class HTTPServerV6(HTTPServerV4):
    address_family = socket.AF_INET6


def serve_forever(server):
    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()
    return server


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
        header = recv_exact(sock, 9)
        if len(header) < 9:
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


def recv_exact(sock, count):
    data = bytearray()
    while len(data) < count:
        chunk = sock.recv(count - len(data))
        if not chunk:
            break
        data += chunk
    return bytes(data)


def socks5_address(host, port):
    """ATYP, address and port of a SOCKS5 request for a numeric address or a name."""
    for family, atyp in ((socket.AF_INET, 1), (socket.AF_INET6, 4)):
        try:
            return bytes([atyp]) + socket.inet_pton(family, host) + struct.pack("!H", port)
        except OSError:
            pass
    name = host.encode()
    return bytes([3, len(name)]) + name + struct.pack("!H", port)


def read_socks5_reply(sock):
    """Returns (reply code, address text, port) of one SOCKS5 reply."""
    head = recv_exact(sock, 4)
    assert len(head) == 4 and head[0] == 5, head
    if head[3] == 1:
        address = socket.inet_ntop(socket.AF_INET, recv_exact(sock, 4))
    elif head[3] == 4:
        address = socket.inet_ntop(socket.AF_INET6, recv_exact(sock, 16))
    else:
        address = recv_exact(sock, recv_exact(sock, 1)[0]).decode()
    port = struct.unpack("!H", recv_exact(sock, 2))[0]
    return head[1], address, port


def socks5_request(proxy, command, host, port, timeout=30):
    """Opens a client connection, negotiates no authentication and sends one request;
    returns the socket and the first reply."""
    sock = socket.create_connection((proxy.host, proxy.port), timeout=timeout)
    sock.sendall(b"\x05\x01\x00")
    assert recv_exact(sock, 2) == b"\x05\x00"
    sock.sendall(bytes([5, command, 0]) + socks5_address(host, port))
    return sock, read_socks5_reply(sock)


def http_connect(proxy, host, port, timeout=30):
    """Opens a CONNECT tunnel through the HTTP side of the proxy; returns the socket and the status line."""
    sock = socket.create_connection((proxy.host, proxy.port), timeout=timeout)
    target = f"[{host}]:{port}" if ":" in host else f"{host}:{port}"
    sock.sendall(f"CONNECT {target} HTTP/1.1\r\nHost: {target}\r\n\r\n".encode())
    head = b""
    while b"\r\n\r\n" not in head:
        byte = sock.recv(1)
        if not byte:
            break
        head += byte
    return sock, head.split(b"\r\n", 1)[0].decode()
