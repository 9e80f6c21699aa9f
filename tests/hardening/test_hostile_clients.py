"""Whatever clients send, the daemon stays up, answers normal clients and gives back every
descriptor and thread it took."""
import os
import random
import re
import socket
import struct
import time
from concurrent.futures import ThreadPoolExecutor

from conftest import DEST_HOST, echo_round_trip, recv_exact, recv_until, socks5_connect


def baseline(daemon, echo):
    assert echo_round_trip(daemon, echo.port)  # warm up the pools and threads
    time.sleep(0.3)
    return daemon.fds(), daemon.threads()


def test_a_thousand_connections_sending_random_bytes(daemon, echo):
    fds, threads = baseline(daemon, echo)
    rng = random.Random(1234)

    def hostile(seed):
        r = random.Random(seed)
        try:
            with socket.create_connection(("127.0.0.1", daemon.port), timeout=5) as s:
                s.sendall(bytes(r.getrandbits(8) for _ in range(r.randint(1, 600))))
                s.settimeout(0.2)
                try:
                    s.recv(4096)
                except OSError:
                    pass
        except OSError:
            pass

    with ThreadPoolExecutor(max_workers=32) as pool:
        list(pool.map(hostile, [rng.getrandbits(32) for _ in range(1000)]))
    assert daemon.alive()
    assert echo_round_trip(daemon, echo.port)
    assert daemon.settle(fds, threads), (daemon.fds(), fds, daemon.threads(), threads)


def test_slow_and_stalled_clients_do_not_hold_up_a_normal_one(daemon, echo):
    fds, threads = baseline(daemon, echo)
    header = b"GET http://127.0.0.2/ HTTP/1.1\r\nHost: 127.0.0.2\r\n"
    slow = [socket.create_connection(("127.0.0.1", daemon.port), timeout=5) for _ in range(200)]
    stalled = [socket.create_connection(("127.0.0.1", daemon.port), timeout=5) for _ in range(20)]
    for s in stalled:  # a SOCKS5 request that announces a long name and stops
        s.sendall(b"\x05\x01\x00")
        assert recv_exact(s, 2) == b"\x05\x00"
        s.sendall(b"\x05\x01\x00\x03\xff" + b"n" * 40)
    for i in range(4):  # a header byte per second from each slow one
        for s in slow:
            s.sendall(header[i:i + 1])
        start = time.time()
        assert echo_round_trip(daemon, echo.port)
        assert time.time() - start < 5
        time.sleep(1)
    for s in slow + stalled:
        s.close()
    assert daemon.settle(fds, threads)


def test_header_block_past_the_bound_gets_the_400_reply(daemon, echo):
    with socket.create_connection(("127.0.0.1", daemon.port), timeout=10) as s:
        s.sendall(b"GET http://127.0.0.2/ HTTP/1.1\r\nHost: 127.0.0.2\r\n")
        filler = b"X-Filler: " + b"a" * 1000 + b"\r\n"
        try:
            for _ in range(80):
                s.sendall(filler)
        except OSError:
            pass  # the daemon may already have answered and closed
        reply = recv_until(s)
    assert re.match(rb"HTTP/1\.[01] 400 ", reply), reply
    assert echo_round_trip(daemon, echo.port)


def test_clients_resetting_mid_transfer(daemon, echo):
    fds, threads = baseline(daemon, echo)
    for _ in range(40):
        s = socks5_connect(daemon, DEST_HOST, echo.port)
        s.sendall(os.urandom(256 * 1024))
        s.recv(1000)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        s.close()  # RST with data in flight both ways
    assert daemon.alive()
    assert echo_round_trip(daemon, echo.port)
    assert daemon.settle(fds, threads)
