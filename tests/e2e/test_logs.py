"""The logs under attack: bytes a client chose come out escaped, one access-log line per client, in
the access log (a file or standard output) and on standard error; a sink that stops reading costs
log lines, never clients nor the stop; SIGUSR1 reopens the access log; the metrics listener lets
in its allowed scrapers only and never makes one wait for another."""
import base64
import os
import re
import select
import signal
import socket
import threading
import time
from pathlib import Path

import pytest

from conftest import (DEST_V4, Daemon, connect_from, free_port, recv_exact, recv_until, running, socks5_address,
                      socks5_login, wait_for)
from test_operator import run, scrape

FORGED = b"2026-01-01T00:00:00.000Z 192.0.2.66:4444 socks5 - - auth-failed 0 0 0"
# User names as sent, and as the user field must show them.
USERS = {
    b"mallory\n" + FORGED: "mallory\\x0a" + FORGED.decode().replace(" ", "\\x20"),
    "zoë nul\0".encode() + b"bad\xc3\x28\xed\xa0\x80\xff back\\x0a":
        "zoë\\x20nul\\x00bad\\xc3(\\xed\\xa0\\x80\\xff\\x20back\\x5cx0a",
}
# A first label longer than 63 bytes: the name is never looked up, whatever a NUL cuts.
NAME = b"a" * 64 + b".x\n" + FORGED + b"\x00\xff.invalid"
NAME_FIELD = "a" * 64 + ".x\\x0a" + FORGED.decode().replace(" ", "\\x20") + "\\x00\\xff.invalid:80"


def failed_login(proxy, user=b"alice", source="127.0.0.1"):
    """Logs in with a wrong password; the client's address:port."""
    sock, status = socks5_login(proxy, user, b"wrong", source)
    with sock:
        assert status == b"\x01\x01"
        return "%s:%d" % sock.getsockname()


def access_lines(read, clients, timeout=20):
    """The access-log lines, read until every client has one."""
    deadline, text = time.time() + timeout, b""
    while time.time() < deadline:
        text = read()
        seen = {line.split(b" ")[1].decode() for line in text.splitlines() if b" " in line}
        if clients <= seen:
            break
        time.sleep(0.05)
    return text.decode().splitlines()  # strict: the log is valid UTF-8


def stdout_reader(proxy):
    got = bytearray()

    def read():
        while select.select([proxy.proc.stdout], [], [], 0)[0]:
            chunk = os.read(proxy.proc.stdout.fileno(), 65536)
            if not chunk:
                break
            got.extend(chunk)
        return bytes(got)
    return read


@pytest.mark.parametrize("sink", ["file", "-"])
def test_client_bytes_appear_escaped_and_every_client_has_exactly_one_line(tmp_path, dns, sink):
    path = str(tmp_path / "access.log")
    with running("--auth", "alice:pw", "--access-log", path if sink == "file" else "-", "--log-level", "info",
                 "--dns-server", f"127.0.0.53:{dns.port}") as proxy:
        read = stdout_reader(proxy) if sink == "-" else lambda: Path(path).read_bytes() if os.path.exists(path) else b""
        # Each user from an address of its own: failed logins from one address are rate-limited.
        fields = {failed_login(proxy, user, f"127.0.0.{10 + i}"): field
                  for i, (user, field) in enumerate(USERS.items())}
        with connect_from("127.0.0.20", proxy) as sock:
            sock.sendall(b"GET http://127.0.0.2/ HTTP/1.1\r\nProxy-Authorization: Basic " +
                         base64.b64encode(b"ev\nil:pw") + b"\r\n\r\n")
            assert re.match(rb"HTTP/1\.[01] 407 ", recv_until(sock))
            fields["127.0.0.20:%d" % sock.getsockname()[1]] = "ev\\x0ail"
        sock, status = socks5_login(proxy, b"alice", b"pw")
        with sock:
            assert status == b"\x01\x00"
            sock.sendall(b"\x05\x01\x00\x03" + bytes([len(NAME)]) + NAME + b"\x00\x50")
            assert recv_exact(sock, 2)[1] != 0
            fields["%s:%d" % sock.getsockname()] = "alice"
            name_client = "%s:%d" % sock.getsockname()

        lines = access_lines(read, set(fields))
        assert len(lines) == len(fields), lines  # nothing forged, nothing split
        for line in lines:
            columns = line.split(" ")
            assert len(columns) == 11 and columns[1] in fields, line
            assert columns[3] == fields[columns[1]], line
            if columns[1] == name_client:
                # A name that cannot be a host name is a bad request, never looked up.
                assert columns[4] == NAME_FIELD and columns[5] == "bad-request", line
        errors = b""

        def logged():
            nonlocal errors
            errors = proxy.error_bytes()
            return all(field.encode() in errors for field in list(fields.values()) + [NAME_FIELD])
        assert wait_for(logged), errors
        for line in errors.decode().splitlines():
            assert re.fullmatch(r"zrt-proxy: [^\x00-\x1f\x7f\x80-\x9f]*", line), line
            assert "192.0.2.66:4444 socks5" not in line.split(" ")[1], line


def test_a_log_sink_nobody_reads_costs_lines_not_clients_nor_the_stop(tmp_path, echo):
    fifo = str(tmp_path / "access.fifo")
    os.mkfifo(fifo)
    reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)  # opened, never read
    errors_read, errors_write = os.pipe()
    metrics = free_port()
    proxy = Daemon("--listen", "127.0.0.1", "--auth", "alice:pw", "--access-log", fifo, "--log-level", "info",
                   "--metrics", f"127.0.0.1:{metrics}", stderr=errors_write)
    # Filled through a description of the test's own: the daemon's stays as it got it (blocking).
    filler = os.open(f"/proc/self/fd/{errors_write}", os.O_WRONLY | os.O_NONBLOCK)
    try:
        while True:
            os.write(filler, b"x" * 4096)
    except BlockingIOError:
        pass  # standard error is a full pipe now
    try:
        flooding, slowest, rounds = True, 0.0, 0

        def bystander():
            nonlocal slowest, rounds
            while flooding:
                started = time.time()
                sock, status = socks5_login(proxy, b"alice", b"pw")
                with sock:
                    assert status == b"\x01\x00"
                    sock.sendall(b"\x05\x01\x00" + socks5_address(DEST_V4, echo.port))
                    assert recv_exact(sock, 10)[1] == 0
                    sock.sendall(b"ping")
                    assert recv_exact(sock, 4) == b"ping"
                slowest, rounds = max(slowest, time.time() - started), rounds + 1
        watcher = threading.Thread(target=bystander)
        watcher.start()

        failures = []

        def flood(thread):
            # Spread over many addresses: guessing from one address is slowed on purpose, and a
            # flood of log lines is what this is about.
            for attempt in range(750):
                try:
                    failed_login(proxy, source=f"127.0.{10 + thread}.{1 + attempt // 4}")
                except OSError as error:
                    failures.append(error)
        floods = [threading.Thread(target=flood, args=(thread,)) for thread in range(4)]
        for thread in floods:
            thread.start()
        for thread in floods:
            thread.join()
        flooding = False
        watcher.join()
        assert not failures, failures[:3]
        assert rounds > 0 and slowest < 5, (rounds, slowest)
        dropped = scrape(metrics)[2][("zrtproxy_log_lines_dropped_total", ())]
        assert dropped > 0
        started = time.time()
        assert proxy.stop(timeout=20) == 0
        assert time.time() - started < 5
    finally:
        proxy.stop()
        for descriptor in (reader, errors_read, errors_write, filler):
            os.close(descriptor)


def test_sigusr1_reopens_the_access_log_after_a_rename(tmp_path):
    log = tmp_path / "access.log"
    with running("--access-log", str(log)) as proxy:
        def leave():
            with connect_from("127.0.0.1", proxy) as sock:  # gone before a request: a line all the same
                return "%s:%d" % sock.getsockname()

        def logged(path, key):
            return wait_for(lambda: path.exists() and f" {key} " in path.read_text())
        first = leave()
        assert logged(log, first)
        log.rename(tmp_path / "access.log.1")
        proxy.proc.send_signal(signal.SIGUSR1)
        assert wait_for(log.exists)
        second = leave()
        assert logged(log, second) and f" {second} " not in (tmp_path / "access.log.1").read_text()

        # A log that cannot be opened again: said on standard error, the open one stays.
        log.rename(tmp_path / "access.log.2")
        log.mkdir()
        proxy.proc.send_signal(signal.SIGUSR1)
        assert wait_for(lambda: "cannot reopen the logs" in proxy.errors()), proxy.errors()
        third = leave()
        assert logged(tmp_path / "access.log.2", third) and proxy.alive()


def test_metrics_let_in_allowed_scrapers_only_and_never_make_one_wait():
    port = free_port()
    with running("--metrics", f"127.0.0.1:{port}") as proxy:  # loopback is let in by default
        silent = [socket.create_connection(("127.0.0.1", port), timeout=10) for _ in range(10)]
        started = time.time()
        assert "zrtproxy_connections_total" in scrape(port)[0]
        assert time.time() - started < 1.0
        for sock in silent:
            sock.close()
    with running("--metrics", f"127.0.0.1:{port}", "--metrics-allow", "127.0.0.1/32") as proxy:
        assert scrape(port)[2][("zrtproxy_connections_active", ())] == 0
        with connect_from("127.0.0.3", ("127.0.0.1", port)) as outsider:
            try:
                outsider.sendall(b"GET /metrics HTTP/1.0\r\n\r\n")
                assert outsider.recv(100) == b""
            except (ConnectionResetError, BrokenPipeError):
                pass  # closed before the request arrived
        assert proxy.alive()
    result = run("--port", "0", "--metrics", "127.0.0.1:0", "--metrics-allow", "127.0.0.1/8")
    assert result.returncode == 2 and "metrics-allow" in result.stderr, result.stderr
