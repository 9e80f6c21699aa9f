"""Ends of a connection through the daemon: a destination that closes is followed by the client's
close at once, and a side that only finished sending (half-close) still gets everything the other
side sends, for SOCKS5 CONNECT, HTTP CONNECT and a forwarded HTTP request."""
import socket
import threading
import time

import pytest

from conftest import DEST_V4, http_connect, recv_until, socks5_request


class Destination:
    """A TCP server on 127.0.0.2 whose behaviour per connection is a function of the socket."""

    def __init__(self, serve):
        self.sock = socket.create_server((DEST_V4, 0))
        self.port = self.sock.getsockname()[1]
        self.serve = serve
        self.results = []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self._run, args=(conn,), daemon=True).start()

    def _run(self, conn):
        with conn:
            try:
                self.results.append(self.serve(conn))
            except OSError as error:
                self.results.append(error)

    def close(self):
        self.sock.close()


def read_to_eof(sock):
    """Everything until the peer's end; (bytes, True) once EOF came."""
    data = b""
    while True:
        chunk = sock.recv(65536)
        if not chunk:
            return data, True
        data += chunk


def write_and_close(conn):
    conn.sendall(b"hello")
    return "sent"


def answer_after_eof(conn):
    request, _ = read_to_eof(conn)
    conn.sendall(b"HTTP/1.0 200 OK\r\n\r\ngot " + str(len(request)).encode() + b": " + request[-16:])
    return request


def open_tunnel(daemon, kind, port):
    """A tunnel to 127.0.0.2:port through the daemon, by SOCKS5 CONNECT or HTTP CONNECT."""
    if kind == "socks5":
        sock, (code, _, _) = socks5_request(daemon, 1, DEST_V4, port)
        assert code == 0
        return sock
    sock, status = http_connect(daemon, DEST_V4, port)
    assert status.startswith("HTTP/1.0 200"), status
    return sock


@pytest.mark.parametrize("kind", ["socks5", "http-connect"])
def test_destination_close_reaches_the_client_right_after_its_bytes(daemon, kind):
    dest = Destination(write_and_close)
    try:
        for _ in range(50):
            with open_tunnel(daemon, kind, dest.port) as sock:
                sock.settimeout(5)
                data, ended = read_to_eof(sock)
                assert (data, ended) == (b"hello", True)
    finally:
        dest.close()


def test_forwarded_request_whose_response_ends_at_the_close_is_complete(daemon):
    def respond(conn):
        recv_until(conn, lambda data: b"\r\n\r\n" in data)
        conn.sendall(b"HTTP/1.0 200 OK\r\n\r\n" + b"x" * 100000)
        return "sent"
    dest = Destination(respond)
    try:
        with socket.create_connection((daemon.host, daemon.port), timeout=5) as sock:
            sock.sendall(f"GET http://{DEST_V4}:{dest.port}/ HTTP/1.1\r\nHost: {DEST_V4}:{dest.port}\r\n\r\n".encode())
            data, ended = read_to_eof(sock)
        head, _, body = data.partition(b"\r\n\r\n")
        # The answer ends with its origin's close, and so does the client's connection.
        assert ended and head.startswith(b"HTTP/1.1 200 OK\r\n") and b"Connection: close" in head, head
        assert body == b"x" * 100000
    finally:
        dest.close()


@pytest.mark.parametrize("kind", ["socks5", "http-connect", "http-post"])
def test_client_that_ends_its_request_still_gets_the_whole_answer(daemon, kind):
    dest = Destination(answer_after_eof)
    body = b"b" * 300000
    try:
        if kind == "http-post":
            sock = socket.create_connection((daemon.host, daemon.port), timeout=10)
            head = (f"POST http://{DEST_V4}:{dest.port}/up HTTP/1.1\r\nHost: {DEST_V4}:{dest.port}\r\n"
                    f"Content-Length: {len(body)}\r\n\r\n").encode()
            sock.sendall(head + body)
        else:
            sock = open_tunnel(daemon, kind, dest.port)
            sock.settimeout(10)
            sock.sendall(body)
        with sock:
            sock.shutdown(socket.SHUT_WR)
            data, ended = read_to_eof(sock)
        assert ended
        if kind == "http-post":
            data = b"HTTP/1.0 200 OK\r\n\r\n" + data.partition(b"\r\n\r\n")[2]  # the proxy's own head
        assert data.startswith(b"HTTP/1.0 200 OK\r\n\r\ngot ") and data.endswith(b"b" * 16), data[:64]
        received = dest.results[0]
        assert received.endswith(body)
    finally:
        dest.close()


@pytest.mark.parametrize("kind", ["socks5", "http-connect"])
def test_destination_that_ends_first_still_gets_what_the_client_sends(daemon, kind):
    done = threading.Event()

    def greet_then_listen(conn):
        conn.sendall(b"welcome")
        conn.shutdown(socket.SHUT_WR)
        data, _ = read_to_eof(conn)
        done.set()
        return data
    dest = Destination(greet_then_listen)
    try:
        with open_tunnel(daemon, kind, dest.port) as sock:
            sock.settimeout(10)
            data, ended = read_to_eof(sock)
            assert (data, ended) == (b"welcome", True)
            for i in range(20):
                sock.sendall(b"later %d;" % i)
                time.sleep(0.005)
            sock.shutdown(socket.SHUT_WR)
            assert done.wait(10)
            assert sock.recv(10) == b""
        assert dest.results[0] == b"".join(b"later %d;" % i for i in range(20))
    finally:
        dest.close()


def test_slow_client_of_a_half_closed_tunnel_gets_every_byte(daemon):
    payload = bytes(range(256)) * 16384  # 4 MiB

    def send_all_and_end(conn):
        conn.sendall(payload)
        conn.shutdown(socket.SHUT_WR)
        read_to_eof(conn)
        return "done"
    dest = Destination(send_all_and_end)
    try:
        with open_tunnel(daemon, "socks5", dest.port) as sock:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
            sock.settimeout(20)
            received = bytearray()
            while True:
                chunk = sock.recv(8192)
                if not chunk:
                    break
                received += chunk
                time.sleep(0.0005)
            assert bytes(received) == payload
            sock.shutdown(socket.SHUT_WR)
    finally:
        dest.close()
