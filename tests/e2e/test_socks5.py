"""SOCKS5 commands through the daemon with raw sockets: UDP ASSOCIATE, BIND, CONNECT to IPv6,
uploads, a host that writes before it reads, a slow reader; a name raced over IPv6 and IPv4, and
replies that say why a connect failed."""
import hashlib
import os
import select
import socket
import struct
import threading
import time

import pytest

from conftest import (DEST_V4, DEST_V6, Daemon, StubDns, http_connect, recv_exact, read_socks5_reply, socks5_address,
                      socks5_request, udp_ask, wait_for)


@pytest.mark.parametrize("destination", [DEST_V4, DEST_V6])
def test_udp_associate_round_trip(daemon, udp_echo, destination):
    control, (code, relay_host, relay_port) = socks5_request(daemon, 3, "0.0.0.0", 0)
    assert code == 0
    if relay_host in ("0.0.0.0", "::"):
        relay_host = daemon.host
    with control, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        udp.settimeout(5)
        header = b"\x00\x00\x00" + socks5_address(destination, udp_echo[destination])
        for index in range(3):
            payload = f"datagram {index} ".encode() * 40
            assert udp_ask(udp, (relay_host, relay_port), header + payload) == header + payload


@pytest.mark.parametrize("family, local", [(socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")])
def test_bind_round_trip(daemon, family, local):
    request_host = "0.0.0.0" if family == socket.AF_INET else "::"
    client, (code, bind_host, bind_port) = socks5_request(daemon, 2, request_host, 0)
    assert code == 0
    assert bind_port != 0
    with client, socket.socket(family, socket.SOCK_STREAM) as remote:
        remote.settimeout(10)
        remote.connect((local if bind_host in ("0.0.0.0", "::") else bind_host, bind_port))
        code, peer_host, peer_port = read_socks5_reply(client)
        assert code == 0
        assert (peer_host, peer_port) == remote.getsockname()[:2]
        remote.sendall(b"from the remote host")
        assert recv_exact(client, 20) == b"from the remote host"
        client.sendall(b"from the client")
        assert recv_exact(remote, 15) == b"from the client"


def exchange(sock, mode, payload):
    """Sends a sink request and the payload; returns the sink's digest (and reads the sink's
    own upfront reply in mode W, concurrently, as a real client would)."""
    received = bytearray()

    def read_upfront():
        while len(received) < len(payload):
            chunk = sock.recv(min(1 << 16, len(payload) - len(received)))
            if not chunk:
                return
            received.extend(chunk)

    reader = threading.Thread(target=read_upfront) if mode == b"W" else None
    if reader:
        reader.start()
    sock.sendall(mode + struct.pack("!Q", len(payload)) + payload)
    if reader:
        reader.join(60)
        assert bytes(received) == bytes(len(payload))
    return recv_exact(sock, 64).decode()


@pytest.mark.parametrize("destination", [DEST_V4, DEST_V6])
@pytest.mark.parametrize("mode", [b"R", b"W"])
def test_upload_reaches_the_host_intact(daemon, tcp_sink, destination, mode):
    payload = os.urandom(6 * 1024 * 1024)
    sock, (code, _, _) = socks5_request(daemon, 1, destination, tcp_sink[destination].server_address[1], timeout=60)
    with sock:
        assert code == 0
        assert exchange(sock, mode, payload) == hashlib.sha256(payload).hexdigest()


@pytest.mark.parametrize("tunnel", ["socks5", "http-connect"])
def test_bytes_sent_just_before_the_client_closes_still_arrive(daemon, tcp_sink, tunnel):
    sink = tcp_sink[DEST_V4]
    payload = os.urandom(4 * 1024 * 1024)
    before = len(sink.records)
    if tunnel == "socks5":
        sock, (code, _, _) = socks5_request(daemon, 1, DEST_V4, sink.server_address[1])
        assert code == 0
    else:
        sock, status = http_connect(daemon, DEST_V4, sink.server_address[1])
        assert " 200 " in status
    sock.sendall(b"R" + struct.pack("!Q", 0) + payload)
    sock.close()
    wait_for(lambda: len(sink.records) > before, 30)
    assert sink.records[before:] == [(len(payload), hashlib.sha256(payload).hexdigest())]


def test_slow_reader_gets_every_byte_and_memory_stays_bounded(daemon, http_servers, files):
    sock, (code, _, _) = socks5_request(daemon, 1, DEST_V4, http_servers[DEST_V4], timeout=60)
    assert code == 0
    with sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32 * 1024)
        sock.sendall(f"GET /{files[1]} HTTP/1.0\r\nHost: {DEST_V4}\r\n\r\n".encode())
        rss_before = daemon.rss_kib()
        response = bytearray()
        peak = rss_before
        while True:
            chunk = sock.recv(16 * 1024)
            if not chunk:
                break
            response += chunk
            if len(response) % (1024 * 1024) < 16 * 1024:
                peak = max(peak, daemon.rss_kib())
            time.sleep(0.002)
    body = bytes(response).split(b"\r\n\r\n", 1)[1]
    assert hashlib.sha256(body).hexdigest() == files[2]
    # The file is 8 MiB; the proxy must not have taken it all in while the client dawdled.
    if not daemon.sanitized():
        assert peak - rss_before < 6 * 1024


# ---- connect attempts, and replies that say why one failed ----

def silent_listener(host, port=0):
    """A listener whose accept queue is full, so that a connect to it is never answered (its SYNs
    are dropped): a host that does not answer. Returns it and the sockets that fill it."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    listener = socket.socket(family)
    listener.bind((host, port))
    listener.listen(0)
    fillers = []
    for _ in range(8):  # a backlog of 0 takes one or two
        filler = socket.socket(family)
        filler.setblocking(False)
        filler.connect_ex(listener.getsockname()[:2])
        fillers.append(filler)
        if not select.select([], [filler], [], 0.5)[1]:
            return listener, fillers
    pytest.fail("the listener's queue never filled")


def test_a_name_whose_first_addresses_are_silent_is_served_well_within_the_timeout():
    # The resolver's order is 127.0.0.3, 127.0.0.2, ::1; only 127.0.0.2 answers. Address by
    # address, each with a third of the 30 s, the client would wait 10 s; raced (::1, then
    # 127.0.0.3 after 250 ms, then 127.0.0.2), half a second.
    silent_v6, fillers_v6 = silent_listener(DEST_V6)
    port = silent_v6.getsockname()[1]
    silent_v4, fillers_v4 = silent_listener("127.0.0.3", port)
    echo = socket.create_server((DEST_V4, port))
    threading.Thread(target=lambda: echo_once(echo), daemon=True).start()
    dns = StubDns(addresses=("127.0.0.3", DEST_V4), v6_addresses=(DEST_V6,))
    proxy = Daemon("--listen", "127.0.0.1", "--dns-server", f"127.0.0.53:{dns.port}", "--connect-timeout", "30")
    try:
        started = time.monotonic()
        sock, (code, _, _) = socks5_request(proxy, 1, "dual.test", port)
        with sock:
            assert code == 0
            assert time.monotonic() - started < 5
            sock.sendall(b"ping")
            assert recv_exact(sock, 4) == b"ping"
    finally:
        assert proxy.stop() == 0
        dns.close()
        for held in (silent_v6, silent_v4, echo, *fillers_v6, *fillers_v4):
            held.close()


def echo_once(server):
    conn, _ = server.accept()
    with conn:
        conn.sendall(conn.recv(100))


def test_replies_say_why_a_connect_failed_unless_turned_off():
    silent, fillers = silent_listener("127.0.0.3")
    closed = socket.socket()
    closed.bind((DEST_V4, 0))  # bound, never listening: a connect is refused
    dns = StubDns()
    common = ("--listen", "127.0.0.1", "--dns-server", f"127.0.0.53:{dns.port}", "--connect-timeout", "1",
              "--deny-destination", "127.0.0.4/32")
    cases = [  # destination, reply of the daemon (precise by default), reply with them off
        (("nx.test", 80), 4, 8),
        ((DEST_V4, closed.getsockname()[1]), 5, 5),
        (silent.getsockname(), 6, 5),
        (("127.255.255.255", 80), 3, 5),  # fails inside connect() itself: no route to a broadcast
        (("127.0.0.4", 80), 2, 2),
    ]
    try:
        for extra, column in (((), 1), (("--socks5-precise-replies", "off"), 2)):
            proxy = Daemon(*common, *extra)
            try:
                for case in cases:
                    sock, (code, _, _) = socks5_request(proxy, 1, *case[0])
                    sock.close()
                    assert code == case[column], (case, extra)
            finally:
                assert proxy.stop() == 0
    finally:
        dns.close()
        for held in (silent, closed, *fillers):
            held.close()
