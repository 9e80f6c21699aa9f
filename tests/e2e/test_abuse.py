"""What a hostile client on the same network must not get from the daemon: an open UDP relay, a
loop through the proxy itself, starved name lookups, a BIND stream meant for someone else, or a
destination held open after its client reset."""
import re
import socket
import struct
import threading
import time

import pytest

from conftest import DEST_V4, read_socks5_reply, recv_exact, recv_until, running, socks5_address, socks5_request


@pytest.fixture(scope="module")
def guarded(dns):
    """A daemon that asks the stub DNS server and gives BIND two seconds."""
    with running("--dns-server", f"127.0.0.53:{dns.port}", "--bind-timeout", "2") as proxy:
        yield proxy


def udp_socket(host, timeout):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind((host, 0))
    sock.settimeout(timeout)
    return sock


@pytest.mark.parametrize("named", [False, True], ids=["any-port", "named-port"])
def test_udp_relay_serves_only_its_client(guarded, udp_echo, named):
    client, stranger, neighbour = udp_socket("127.0.0.1", 3), udp_socket("127.0.0.3", 0.5), udp_socket("127.0.0.1", 0.5)
    tcp, (code, _, relay_port) = socks5_request(guarded, 3, *(client.getsockname() if named else ("0.0.0.0", 0)))
    assert code == 0
    header, relay = b"\x00\x00\x00" + socks5_address(DEST_V4, udp_echo[DEST_V4]), ("127.0.0.1", relay_port)
    try:
        # The relay listens where the client reached the proxy, not on every address.
        with pytest.raises(OSError):
            stranger.sendto(header + b"x", ("127.0.0.3", relay_port))
            stranger.recvfrom(100)
        # Another host never gets in; another port of the client's host does not once the request named one.
        for outsider in (stranger, neighbour) if named else (stranger,):
            outsider.sendto(header + b"first", relay)
            with pytest.raises(socket.timeout):
                outsider.recvfrom(100)
        # A 9,000-byte datagram travels whole, both ways.
        payload = bytes(range(256)) * 35 + b"end"
        client.sendto(header + payload, relay)
        assert client.recvfrom(65536)[0] == header + payload
        # Once the client spoke, nobody else takes over its answers.
        stranger.sendto(header + b"hijack", relay)
        client.sendto(header + b"again", relay)
        assert client.recvfrom(100)[0] == header + b"again"
        with pytest.raises(socket.timeout):
            stranger.recvfrom(100)
    finally:
        for sock in (client, stranger, neighbour, tcp):
            sock.close()


def loop_forms(port):
    return [f"localhost:{port}", f"LocalHost:{port}", f"127.1:{port}", f"0.0.0.0:{port}", f"2130706433:{port}",
            f"0x7f000001:{port}", f"[::1]:{port}", f"[::ffff:127.0.0.1]:{port}", f"127.0.0.1:{port}"]


def test_requests_for_the_proxy_itself_are_refused_in_every_form(guarded):
    fds, threads = guarded.fds(), guarded.threads()
    for target in loop_forms(guarded.port):
        for request in (f"GET http://{target}/ HTTP/1.1\r\nHost: {target}\r\n\r\n",
                        f"GET / HTTP/1.1\r\nHost: {target}\r\n\r\n", f"CONNECT {target} HTTP/1.1\r\n\r\n"):
            with socket.create_connection((guarded.host, guarded.port), timeout=10) as sock:
                sock.sendall(request.encode())
                reply = recv_until(sock)
            # 404 with one request per connection, 508 (a loop) with persistent ones.
            assert re.match(rb"HTTP/1\.[01] (404|508) ", reply), (request, reply)
    for host in ("127.0.0.1", "127.0.0.9", "0.0.0.0", "::1", "localhost"):
        sock, (code, _, _) = socks5_request(guarded, 1, host, guarded.port)
        sock.close()
        assert code == 2, host
    assert guarded.settle(fds, threads)


def test_names_that_never_resolve_do_not_hold_up_others(guarded, dns, tcp_sink):
    waiting = []
    for i in range(40):
        sock = socket.create_connection((guarded.host, guarded.port), timeout=30)
        sock.sendall(b"\x05\x01\x00")
        assert recv_exact(sock, 2) == b"\x05\x00"
        sock.sendall(b"\x05\x01\x00" + socks5_address(f"slow{i}.test", 80))
        waiting.append(sock)
    time.sleep(0.3)
    started = time.time()
    fast, (code, _, _) = socks5_request(guarded, 1, "fast.test", tcp_sink[DEST_V4].server_address[1])
    fast.close()
    assert code == 0 and time.time() - started < 2
    # The slow ones fail in the end (host unreachable: the daemon's replies say why), each on its own.
    for sock in waiting:
        sock.settimeout(30)
        head = recv_exact(sock, 2)
        assert head == b"\x05\x04"
        sock.close()
    # A client that leaves while its name is looked up costs nothing afterwards.
    for i in range(20):
        sock = socket.create_connection((guarded.host, guarded.port), timeout=5)
        sock.sendall(b"\x05\x01\x00\x05\x01\x00" + socks5_address(f"slowgone{i}.test", 80))
        sock.close()
    again, (code, _, _) = socks5_request(guarded, 1, "fast2.test", tcp_sink[DEST_V4].server_address[1])
    again.close()
    assert code == 0


def test_bind_takes_only_the_named_peer_and_gives_up_in_time(guarded):
    sock, (code, address, port) = socks5_request(guarded, 2, "127.0.0.5", 0)
    assert code == 0
    stranger = socket.socket()
    stranger.bind(("127.0.0.6", 0))
    stranger.settimeout(5)
    stranger.connect((address, port))
    assert stranger.recv(10) == b"", "a stranger is closed at once"
    stranger.close()
    peer = socket.socket()
    peer.bind(("127.0.0.5", 0))
    peer.connect((address, port))
    code, peer_address, _ = read_socks5_reply(sock)
    assert (code, peer_address) == (0, "127.0.0.5")
    peer.sendall(b"to the client")
    assert recv_exact(sock, 13) == b"to the client"
    peer.close()
    sock.close()

    late, (code, _, _) = socks5_request(guarded, 2, "127.0.0.5", 0)
    assert code == 0
    late.settimeout(10)
    code, _, _ = read_socks5_reply(late)
    assert code == 1, "no peer within the bind time-out"
    assert late.recv(10) == b""
    late.close()


def test_destination_is_released_at_once_when_its_client_resets(guarded):
    released = threading.Event()
    server = socket.create_server((DEST_V4, 0))

    def stream():
        conn, _ = server.accept()
        conn.settimeout(15)
        try:
            while True:
                conn.sendall(b"z" * 65536)
        except OSError:
            released.set()
        conn.close()
    threading.Thread(target=stream, daemon=True).start()
    sock, (code, _, _) = socks5_request(guarded, 1, DEST_V4, server.getsockname()[1])
    assert code == 0
    recv_exact(sock, 100000)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()  # a reset
    assert released.wait(5), "the destination was still fed after its client reset"
    server.close()

