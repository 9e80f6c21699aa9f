"""Ends of a connection through the daemon: a destination that closes is followed by the client's
close at once, and a side that only finished sending (half-close) still gets everything the other
side sends, for SOCKS5 CONNECT, HTTP CONNECT and a forwarded HTTP request."""
import socket
import threading
import time

import pytest

from conftest import DEST_V4, EchoServer, http_connect, recv_until, socks5_request


class Destination(EchoServer):
    """A TCP server on 127.0.0.2 whose behaviour per connection is a function of the socket."""

    def __init__(self, serve):
        self.serve, self.results = serve, []
        super().__init__()

    def _serve(self, conn):
        with conn:
            try:
                self.results.append(self.serve(conn))
            except OSError as error:
                self.results.append(error)


def write_and_close(conn):
    conn.sendall(b"hello")
    return "sent"


def answer_after_eof(conn):
    request = recv_until(conn)
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
                assert recv_until(sock) == b"hello"  # and the end, or the timeout raises
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
            data = recv_until(sock)
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
        data = recv_until(conn)
        done.set()
        return data
    dest = Destination(greet_then_listen)
    try:
        with open_tunnel(daemon, kind, dest.port) as sock:
            sock.settimeout(10)
            assert recv_until(sock) == b"welcome"
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
        recv_until(conn)
        return "done"
    dest = Destination(send_all_and_end)
    try:
        with open_tunnel(daemon, "socks5", dest.port) as sock:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
            sock.settimeout(20)
            assert recv_until(sock, lambda _: time.sleep(0.0005), 8192) == payload  # a pause before each read
            sock.shutdown(socket.SHUT_WR)
    finally:
        dest.close()
