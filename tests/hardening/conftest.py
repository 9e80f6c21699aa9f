"""Shared fixtures for the hardening tests: a running zrt-proxy daemon, loopback destination
servers, and readings of the daemon's descriptors, threads, memory and CPU time."""
import os
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

PROXY_BIN = os.environ.get("ZRT_PROXY_BIN", "build/zrt-proxy")
DEST_HOST = "127.0.0.2"  # the machine's own name resolves to 127.0.0.1, which the HTTP handler refuses


class Daemon:
    def __init__(self, limit_fds=None):
        def limit():
            if limit_fds:
                import resource
                resource.setrlimit(resource.RLIMIT_NOFILE, (limit_fds, limit_fds))
        self.proc = subprocess.Popen([PROXY_BIN, "--port", "0", "--listen", "127.0.0.1"],
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                     preexec_fn=limit)
        line = self.proc.stdout.readline()
        assert "listening on" in line, line
        self.port = int(line.strip().rsplit(":", 1)[1].split()[0])
        self.pid = self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def stop(self):
        if self.alive():
            self.proc.send_signal(signal.SIGTERM)
            try:
                return self.proc.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
                return None
        return self.proc.returncode

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        return self._status("Threads")

    def rss_kib(self):
        return self._status("VmRSS")

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def _status(self, key):
        with open(f"/proc/{self.pid}/status") as f:
            for line in f:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
        return 0

    def settle(self, fds, threads, timeout=15.0):
        """Waits until descriptors and threads are back to the given baseline."""
        deadline = time.time() + timeout
        while time.time() < deadline:
            if self.fds() <= fds and self.threads() <= threads:
                return True
            time.sleep(0.1)
        return False


@pytest.fixture
def daemon():
    d = Daemon()
    yield d
    assert d.stop() == 0


class EchoServer:
    """Echoes every byte; serves any number of clients."""

    def __init__(self, host=DEST_HOST):
        self.sock = socket.create_server((host, 0))
        self.port = self.sock.getsockname()[1]
        self.running = True
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while self.running:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    @staticmethod
    def _serve(conn):
        with conn:
            try:
                while True:
                    data = conn.recv(65536)
                    if not data:
                        return
                    conn.sendall(data)
            except OSError:
                return

    def close(self):
        self.running = False
        self.sock.close()


@pytest.fixture
def echo():
    server = EchoServer()
    yield server
    server.close()


def recv_exact(sock, count):
    data = b""
    while len(data) < count:
        chunk = sock.recv(count - len(data))
        if not chunk:
            raise ConnectionError(f"closed after {len(data)} of {count} bytes")
        data += chunk
    return data


def socks5_connect(proxy_port, host, port, timeout=10):
    """A SOCKS5 CONNECT to an IPv4 destination; returns the connected socket."""
    sock = socket.create_connection(("127.0.0.1", proxy_port), timeout=timeout)
    sock.sendall(b"\x05\x01\x00")
    assert recv_exact(sock, 2) == b"\x05\x00"
    sock.sendall(b"\x05\x01\x00\x01" + socket.inet_aton(host) + struct.pack(">H", port))
    reply = recv_exact(sock, 10)
    assert reply[1] == 0, reply
    return sock


def echo_round_trip(proxy_port, echo_port, payload=b"ping"):
    with socks5_connect(proxy_port, DEST_HOST, echo_port) as sock:
        sock.sendall(payload)
        return recv_exact(sock, len(payload)) == payload
