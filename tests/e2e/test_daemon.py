"""The daemon as a program: arguments, errors, and stopping on signals."""
import signal
import socket
import subprocess
import time

from conftest import PROXY_BIN, DEST_V4, Daemon, socks5_request


def run(*args):
    return subprocess.run([PROXY_BIN, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          timeout=20)


def test_help_and_version():
    assert run("--help").returncode == 0
    assert "--port" in run("--help").stdout
    version = run("--version")
    assert version.returncode == 0 and version.stdout.startswith("zrt-proxy ")


def test_bad_arguments_give_one_line_and_a_failure_status():
    for args in (["--port", "70000"], ["--port"], ["--listen", "example.com"], ["--frobnicate"]):
        result = run(*args)
        assert result.returncode != 0, args
        assert result.stdout == ""
        assert len(result.stderr.strip().splitlines()) == 1, result.stderr


def test_port_in_use_is_reported():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen(1)
        result = run("--port", str(taken.getsockname()[1]))
    assert result.returncode != 0
    assert len(result.stderr.strip().splitlines()) == 1


def test_listens_on_ipv6():
    proxy = Daemon("--listen", "::1")
    try:
        assert proxy.host == "::1"
        sock = socket.create_connection(("::1", proxy.port), timeout=10)
        sock.sendall(b"\x05\x01\x00")
        assert sock.recv(2) == b"\x05\x00"
        sock.close()
    finally:
        assert proxy.stop() == 0


def test_sigterm_and_sigint_with_clients_connected_exit_cleanly(tcp_sink):
    for stop_signal in (signal.SIGTERM, signal.SIGINT):
        proxy = Daemon()
        clients = []
        try:
            for _ in range(8):
                sock, (code, _, _) = socks5_request(proxy, 1, DEST_V4, tcp_sink[DEST_V4].server_address[1])
                assert code == 0
                sock.sendall(b"R" + (1 << 30).to_bytes(8, "big") + bytes(256 * 1024))  # mid-upload
                clients.append(sock)
            idle = socket.create_connection((proxy.host, proxy.port))  # never says a word
            clients.append(idle)
            time.sleep(0.2)
            proxy.proc.send_signal(stop_signal)
            assert proxy.proc.wait(timeout=20) == 0
            assert "Sanitizer" not in proxy.errors(), proxy.errors()
        finally:
            for sock in clients:
                sock.close()
            proxy.stop()
