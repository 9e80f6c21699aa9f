"""What an operator configures: users, the client allow list, limits and time-outs, the access
log, Prometheus metrics, the configuration file and its reload on SIGHUP, the outgoing address,
names with several addresses, the packaged systemd unit and sample configuration, and daemons
behind HAProxy (the sample examples/haproxy.cfg) that tell them the client."""
import base64
import contextlib
import datetime
import os
import re
import select
import shutil
import signal
import socket
import socketserver
import subprocess
import time
import urllib.request

import pytest
from prometheus_client.parser import text_string_to_metric_families

from conftest import (DEST_V4, PROXY_BIN, Daemon, StubDns, closed_without_reply, free_port, read_socks5_reply,
                      recv_exact, recv_until, running, socks5_address, socks5_connect, socks5_login, socks5_request,
                      stopped, wait_for)
from proxyharness import echo_round_trip, serve_forever

BODY = b"from the recorder\n" * 20
RESPONSE = b"HTTP/1.0 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n" % len(BODY) + BODY
REQUEST = f"GET /raw HTTP/1.0\r\nHost: {DEST_V4}\r\n\r\n".encode()
ENV = {key: value for key, value in os.environ.items() if "proxy" not in key.lower()}
HAPROXY_SAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "haproxy.cfg")


class Recording(socketserver.BaseRequestHandler):
    def handle(self):
        with contextlib.suppress(OSError):
            self.request.settimeout(30)
            self.server.requests.append((self.client_address[0], recv_until(self.request, lambda d: b"\r\n\r\n" in d)))
            self.request.sendall(RESPONSE)


class Recorder(socketserver.ThreadingTCPServer):
    """An HTTP destination on 127.0.0.2 that records each request's source address and head,
    answers RESPONSE and closes."""
    daemon_threads = True

    def __init__(self):
        self.requests = []
        super().__init__((DEST_V4, 0), Recording)
        self.port = self.server_address[1]
        serve_forever(self)

    def url(self, path, host=DEST_V4):
        return f"http://{host}:{self.port}{path}"

    def seen(self, path):
        # A client that closed without a request leaves an empty head.
        return [(peer, head) for peer, head in self.requests
                if head.count(b" ") >= 2 and head.split(b" ")[1].endswith(path.encode())]


@pytest.fixture(scope="module")
def recorder():
    server = Recorder()
    yield server
    server.shutdown()
    server.server_close()


def curl(*args):
    result = subprocess.run(["curl", "-s", "--max-time", "20", *args], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, env=ENV, timeout=40)
    return result.returncode, result.stdout


def basic(user, password):
    return "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


def socks5_command(proxy, user, password, command, host, port):
    sock, status = socks5_login(proxy, user, password)
    assert status == b"\x01\x00"
    sock.sendall(bytes([5, command, 0]) + socks5_address(host, port))
    return sock, read_socks5_reply(sock)


def log_entry(path, client, timeout=10):
    """The fields of the access-log line of the connection from client (address, port)."""
    key, found = f"{client[0]}:{client[1]}", []

    def logged():
        found[:] = [line.split() for line in open(path) if line.split()[1:2] == [key]] if os.path.exists(path) else []
        return found
    assert wait_for(logged, timeout), f"no access-log line for {key}"
    return found[0]


def finish(sock):
    """Closes a client; returns its address, which finds its access-log line."""
    client = sock.getsockname()
    sock.close()
    return client


def check_entry(fields, protocol, user, destination, result, up=None, down=None, at_least_ms=0):
    assert len(fields) == 11, fields
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", fields[0]), fields
    when = datetime.datetime.strptime(fields[0], "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=datetime.timezone.utc)
    assert abs((datetime.datetime.now(datetime.timezone.utc) - when).total_seconds()) < 120, fields
    assert fields[2:6] == [protocol, user, destination, result], fields
    assert (up is None or int(fields[6]) == up) and (down is None or int(fields[7]) == down), fields
    assert at_least_ms <= int(fields[8]) < 60000, fields


def test_users_authenticate_on_both_protocols(recorder, tmp_path):
    users = tmp_path / "users"
    users.write_text("# operators\nbob:pw-of-bob\n\n# carol:not-a-user\n")
    with running("--auth", "alice:s3cret", "--auth-file", str(users)) as proxy:
        socks, http = proxy.socks, proxy.http
        for user, password in (("alice", "s3cret"), ("bob", "pw-of-bob")):
            for way in (["--socks5", f"{user}:{password}@{socks}"], ["--socks5-hostname", f"{user}:{password}@{socks}"],
                        ["-x", http, "--proxy-user", f"{user}:{password}"],
                        ["-p", "-x", http, "--proxy-user", f"{user}:{password}"]):
                assert curl(*way, recorder.url("/right")) == (0, BODY), way
        conf = tmp_path / "proxychains.conf"
        conf.write_text(f"strict_chain\nquiet_mode\n[ProxyList]\nsocks5 127.0.0.1 {proxy.port} bob pw-of-bob\n")
        chained = subprocess.run(["proxychains4", "-f", str(conf), "curl", "-s", recorder.url("/chained")],
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=ENV, timeout=40)
        assert chained.stdout == BODY
        with socket.create_connection((proxy.host, proxy.port), timeout=5) as sock:
            sock.sendall(b"\x05\x01\x00")  # no username/password offered
            assert recv_exact(sock, 2) == b"\x05\xff"
            assert closed_without_reply(sock)
        for user, password in (("alice", "wrong"), ("carol", "not-a-user")):
            sock, status = socks5_login(proxy, user, password)
            assert status == b"\x01\x01" and closed_without_reply(sock), user
            sock.close()
        for header in ("", f"Proxy-Authorization: {basic('alice', 'wrong')}\r\n", "Proxy-Authorization: Bearer x\r\n",
                       f"Proxy-Authorization: {basic('carol', 'not-a-user')}\r\n"):
            for request in (f"GET {recorder.url('/wire')} HTTP/1.1\r\nHost: {DEST_V4}\r\n{header}\r\n",
                            f"CONNECT {DEST_V4}:{recorder.port} HTTP/1.1\r\n{header}\r\n"):
                with socket.create_connection((proxy.host, proxy.port), timeout=10) as sock:
                    sock.sendall(request.encode())
                    head, _, _ = recv_until(sock).partition(b"\r\n\r\n")
                lines = head.decode().split("\r\n")
                assert re.fullmatch(r"HTTP/1\.[01] 407 Proxy Authentication Required", lines[0]), (request, head)
                assert 'Proxy-Authenticate: Basic realm="zrt-proxy"' in lines[1:], head
    assert recorder.seen("/wire") == []
    for _, head in recorder.requests:
        assert b"proxy-authorization" not in head.lower(), head


def test_allow_list_closes_other_clients_before_a_byte(recorder, tmp_path):
    log = str(tmp_path / "access.log")
    with running("--allow", "127.0.0.1/32", "--allow", "::1", "--access-log", log) as proxy:
        assert curl("--socks5", proxy.socks, recorder.url("/allowed")) == (0, BODY)
        for greeting in (b"\x05\x01\x00", f"GET {recorder.url('/outsider')} HTTP/1.0\r\n\r\n".encode()):
            with socket.socket() as outsider:
                outsider.bind(("127.0.0.3", 0))
                outsider.connect((proxy.host, proxy.port))
                with contextlib.suppress(OSError):
                    outsider.sendall(greeting)
                assert closed_without_reply(outsider)
                check_entry(log_entry(log, outsider.getsockname()), "-", "-", "-", "not-allowed", 0, 0)
        assert curl("--interface", "127.0.0.3", "--socks5", proxy.socks, recorder.url("/outsider"))[0] != 0
    assert recorder.seen("/outsider") == []


@contextlib.contextmanager
def haproxy(daemon_port, version, tmp_path):
    """HAProxy from the sample configuration on 127.0.0.1, both its servers being the daemon, with
    PROXY protocol headers of that version; yields its port."""
    if not shutil.which("haproxy"):
        pytest.skip("haproxy is not installed (make deps installs it as root)")
    port = free_port()
    with open(HAPROXY_SAMPLE) as sample:
        config = sample.read().replace("bind :1080", f"bind 127.0.0.1:{port}")
    for server in ("192.0.2.11:1080", "192.0.2.12:1080"):
        config = config.replace(server, f"127.0.0.1:{daemon_port}")
    path = tmp_path / f"haproxy-v{version}.cfg"
    path.write_text(config if version == 2 else config.replace("send-proxy-v2", "send-proxy"))
    balancer = subprocess.Popen(["haproxy", "-db", "-f", str(path)], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
    try:
        deadline = time.time() + 30
        while balancer.poll() is None and time.time() < deadline:
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), timeout=5):
                break
            time.sleep(0.05)
        assert balancer.poll() is None, "haproxy did not start"
        yield port
    finally:
        balancer.terminate()
        balancer.wait(timeout=30)


def http_get(port, source, url, before=b""):
    """An HTTP proxy request from source (a loopback address) to 127.0.0.1:port, after `before`;
    returns the whole reply and the client's address."""
    with socket.socket() as sock:
        sock.settimeout(20)
        sock.bind((source, 0))
        sock.connect(("127.0.0.1", port))
        with contextlib.suppress(OSError):
            sock.sendall(before + f"GET {url} HTTP/1.1\r\nHost: {DEST_V4}\r\nConnection: close\r\n\r\n".encode())
        try:
            return recv_until(sock), sock.getsockname()
        except ConnectionResetError:
            return b"", sock.getsockname()


def test_behind_haproxy_the_client_it_names_is_judged_and_logged_and_nobody_else_is_believed(recorder, tmp_path):
    log = str(tmp_path / "access.log")
    destination = f"{DEST_V4}:{recorder.port}"
    with running("--proxy-protocol-from", "127.0.0.1/32", "--allow", "127.0.0.5", "--access-log", log) as proxy:
        for version in (1, 2):
            with haproxy(proxy.port, version, tmp_path) as port:
                reply, client = http_get(port, "127.0.0.5", recorder.url(f"/v{version}"))
                assert reply.endswith(BODY), reply
                check_entry(log_entry(log, client), "http", "-", destination, "ok")
                reply, outsider = http_get(port, "127.0.0.6", recorder.url("/outsider"))
                assert reply == b""
                check_entry(log_entry(log, outsider), "-", "-", "-", "not-allowed", 0, 0)
        # Straight from the balancer's address, a client without a header is closed unserved;
        # from elsewhere, a header is nothing but the start of a request nobody understands.
        reply, direct = http_get(proxy.port, "127.0.0.1", recorder.url("/direct"))
        assert reply == b""
        check_entry(log_entry(log, direct), "-", "-", "-", "bad-request", 0, 0)
        forged = b"PROXY TCP4 127.0.0.9 127.0.0.1 4000 1080\r\n"
        reply, client = http_get(proxy.port, "127.0.0.5", recorder.url("/forged"), forged)
        assert reply.startswith(b"HTTP/1.1 400 "), reply
        assert log_entry(log, client)[5] == "bad-request"
        with open(log) as lines:
            assert "127.0.0.9" not in lines.read()
    assert [path for path in ("/outsider", "/direct", "/forged") if recorder.seen(path)] == []


def test_handshake_timeout_closes_only_clients_that_never_finish(echo, tmp_path):
    log = str(tmp_path / "access.log")
    with running("--handshake-timeout", "1", "--access-log", log) as proxy:
        silent = socket.create_connection((proxy.host, proxy.port), timeout=10)
        partial = socket.create_connection((proxy.host, proxy.port), timeout=10)
        partial.sendall(b"\x05\x02\x00")  # announces two methods, sends one
        started = time.time()
        tunnel = socks5_connect(proxy, DEST_V4, echo.port)  # served meanwhile
        for sock in (silent, partial):
            assert closed_without_reply(sock, 8)
            assert 0.5 < time.time() - started < 6
            fields = log_entry(log, finish(sock))
            # A partial greeting may already count as SOCKS5.
            check_entry(fields, "-" if sock is silent else fields[2], "-", "-", "timeout", 0, 0)
            assert fields[2] in ("-", "socks5"), fields
        time.sleep(max(0.0, started + 1.5 - time.time()))  # a finished handshake outlives the limit
        tunnel.sendall(b"still here")
        assert recv_exact(tunnel, 10) == b"still here"
        tunnel.close()


def test_idle_timeout_closes_quiet_tunnels_and_spares_busy_ones(echo):
    with running("--idle-timeout", "1") as proxy:
        quiet = socks5_connect(proxy, DEST_V4, echo.port)
        busy = socks5_connect(proxy, DEST_V4, echo.port)
        started, closed_after = time.time(), None
        while time.time() - started < 4:
            busy.sendall(b"tick")
            assert recv_exact(busy, 4) == b"tick"
            if closed_after is None and select.select([quiet], [], [], 0)[0]:
                assert closed_without_reply(quiet)
                closed_after = time.time() - started
            time.sleep(0.3)
        assert closed_after is not None and 0.5 < closed_after < 4
        quiet.close()
        busy.close()


def test_max_clients_closes_the_extra_client_at_accept_until_a_slot_frees(echo):
    with running("--max-clients", "2") as proxy:
        first, second = socks5_connect(proxy, DEST_V4, echo.port), socks5_connect(proxy, DEST_V4, echo.port)
        with socket.create_connection((proxy.host, proxy.port), timeout=10) as extra:
            assert closed_without_reply(extra)
        first.close()

        def served():  # the daemon sees the close a moment later
            with contextlib.suppress(ConnectionError, OSError, AssertionError):
                return echo_round_trip(proxy, echo.port)
        assert wait_for(served, 5), "no client served after a slot freed"
        second.sendall(b"ok")
        assert recv_exact(second, 2) == b"ok"
        second.close()


def test_access_log_has_a_line_per_connection_with_every_field(recorder, udp_echo, tmp_path):
    log = str(tmp_path / "access.log")
    with running("--auth", "alice:s3cret", "--access-log", log) as proxy:
        destination, good = f"{DEST_V4}:{recorder.port}", basic("alice", "s3cret")
        sock, (code, _, _) = socks5_command(proxy, "alice", "s3cret", 1, DEST_V4, recorder.port)
        time.sleep(0.3)
        sock.sendall(REQUEST)
        assert recv_until(sock) == RESPONSE
        check_entry(log_entry(log, finish(sock)), "socks5", "alice", destination, "ok", len(REQUEST), len(RESPONSE),
                    at_least_ms=250)

        sock = socket.create_connection((proxy.host, proxy.port), timeout=10)
        sock.sendall(f"GET {recorder.url('/logged')} HTTP/1.1\r\nHost: {destination}\r\nProxy-Authorization: {good}"
                     "\r\nConnection: close\r\n\r\n".encode())
        assert recv_until(sock).endswith(BODY)
        forwarded = recorder.seen("/logged")[0][1]
        check_entry(log_entry(log, finish(sock)), "http", "alice", destination, "ok", len(forwarded), len(RESPONSE))

        sock = socket.create_connection((proxy.host, proxy.port), timeout=10)
        sock.sendall(f"CONNECT {destination} HTTP/1.1\r\nProxy-Authorization: {good}\r\n\r\n".encode())
        assert b" 200 " in recv_until(sock, lambda data: b"\r\n\r\n" in data, 1)
        sock.sendall(REQUEST)
        assert recv_until(sock) == RESPONSE
        check_entry(log_entry(log, finish(sock)), "connect", "alice", destination, "ok", len(REQUEST), len(RESPONSE))

        control, (code, address, port) = socks5_command(proxy, "alice", "s3cret", 2, "127.0.0.5", 0)
        assert code == 0
        with socket.socket() as peer:
            peer.bind(("127.0.0.5", 0))
            peer.connect((address, port))
            assert read_socks5_reply(control)[0] == 0
            peer.sendall(b"to the client")
            assert recv_exact(control, 13) == b"to the client"
            control.sendall(b"back")
            assert recv_exact(peer, 4) == b"back"
        check_entry(log_entry(log, finish(control)), "bind", "alice", "127.0.0.5:0", "ok", 4, 13)

        sock = socket.create_connection((proxy.host, proxy.port), timeout=10)
        sock.sendall(f"GET {recorder.url('/x')} HTTP/1.1\r\nProxy-Authorization: {basic('alice', 'no')}\r\n\r\n"
                     .encode())
        recv_until(sock)
        fields = log_entry(log, finish(sock))
        check_entry(fields, "http", "alice", fields[4], "auth-failed", 0, 0)
        assert fields[4] in (destination, "-"), fields

        closed = free_port("127.0.0.9")
        sock, (code, _, _) = socks5_command(proxy, "alice", "s3cret", 1, "127.0.0.9", closed)
        assert code != 0
        check_entry(log_entry(log, finish(sock)), "socks5", "alice", f"127.0.0.9:{closed}", "unreachable", 0, 0)
        sock, status = socks5_login(proxy, "alice", "wrong")
        check_entry(log_entry(log, finish(sock)), "socks5", "alice", "-", "auth-failed", 0, 0)

        control, (code, relay_host, relay_port) = socks5_command(proxy, "alice", "s3cret", 3, "0.0.0.0", 0)
        assert code == 0
        header = b"\x00\x00\x00" + socks5_address(DEST_V4, udp_echo[DEST_V4])
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
            udp.settimeout(5)
            for payload in (b"hello", b"world"):
                udp.sendto(header + payload, ("127.0.0.1" if relay_host == "0.0.0.0" else relay_host, relay_port))
                assert udp.recvfrom(100)[0] == header + payload
            time.sleep(0.3)
        fields = log_entry(log, finish(control))
        check_entry(fields, "udp", "alice", fields[4], "ok", 10, 10, at_least_ms=250)  # payloads, not headers
        assert fields[4] in ("0.0.0.0:0", "-"), fields


def scrape(port, path="/metrics"):
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with opener.open(f"http://127.0.0.1:{port}{path}", timeout=10) as reply:
        text = reply.read().decode()
    families = {family.name: family for family in text_string_to_metric_families(text)}
    values = {(sample.name, tuple(sorted(sample.labels.items()))): sample.value
              for family in families.values() for sample in family.samples}
    return text, families, values


def test_metrics_count_traffic_on_their_own_listener(recorder):
    port = free_port()
    with running("--auth", "alice:s3cret", "--metrics", f"127.0.0.1:{port}") as proxy:
        text, families, before = scrape(port)
        assert "# HELP zrtproxy_connections_total" in text and "# TYPE zrtproxy_connections_total counter" in text
        assert families["zrtproxy_connections"].type == "counter"
        assert families["zrtproxy_connections_active"].type == "gauge"
        assert before[("zrtproxy_connections_active", ())] == 0
        sock, (code, _, _) = socks5_command(proxy, "alice", "s3cret", 1, DEST_V4, recorder.port)
        assert scrape(port)[2][("zrtproxy_connections_active", ())] == 1
        sock.sendall(REQUEST)
        assert recv_until(sock) == RESPONSE
        sock.close()
        assert curl("-x", proxy.http, "--proxy-user", "alice:s3cret", recorder.url("/m"))[1] == BODY
        forwarded = recorder.seen("/m")[0][1]
        socks5_login(proxy, "alice", "wrong")[0].close()
        for _ in range(200):  # the last close reaches the counters a moment later
            after = scrape(port)[2]
            if after[("zrtproxy_connections_active", ())] == 0:
                break
            time.sleep(0.05)

        def moved(name, **labels):
            key = (name, tuple(sorted(labels.items())))
            return after[key] - before[key]
        assert after[("zrtproxy_connections_active", ())] == 0
        assert (moved("zrtproxy_connections_total"), moved("zrtproxy_socks5_connections_total"),
                moved("zrtproxy_http_connections_total")) == (3, 2, 1)
        assert moved("zrtproxy_refused_total", reason="auth_failed") == 1
        assert moved("zrtproxy_bytes_total", direction="client_to_host") == len(REQUEST) + len(forwarded)
        assert moved("zrtproxy_bytes_total", direction="host_to_client") == 2 * len(RESPONSE)
        with pytest.raises(urllib.error.HTTPError) as missing:
            scrape(port, "/other")
        assert missing.value.code == 404
        with socket.create_connection((proxy.host, proxy.port), timeout=10) as sock:
            sock.sendall(f"GET /metrics HTTP/1.1\r\nHost: 127.0.0.1:{proxy.port}\r\nProxy-Authorization: "
                         f"{basic('alice', 's3cret')}\r\n\r\n".encode())
            assert re.match(rb"HTTP/1\.[01] (400|404|508) ", recv_until(sock)), "the proxy port serves no metrics"


def run(*args):
    return subprocess.run([PROXY_BIN, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=20)


def test_config_file_with_command_line_overrides_and_errors_by_line(recorder, tmp_path):
    conf = tmp_path / "zrt.conf"
    conf.write_text("# test\nlisten 127.0.0.1\nport 1\n\nauth alice:s3cret   \n")
    proxy = Daemon("--config", str(conf))  # the harness adds --port 0, which wins over port 1
    try:
        assert proxy.port not in (0, 1)
        assert curl("--socks5", f"127.0.0.1:{proxy.port}", recorder.url("/conf"))[0] != 0
        assert curl("--socks5", f"alice:s3cret@127.0.0.1:{proxy.port}", recorder.url("/conf")) == (0, BODY)
    finally:
        stopped(proxy)
    conf.write_text("port 1\n# x\nfrobnicate 3\n")
    result = run("--config", str(conf), "--port", "0")
    assert result.returncode == 2 and result.stdout == "", result
    assert f"{conf}:3: unknown option 'frobnicate'" in result.stderr, result.stderr


def test_sighup_reloads_users_allow_list_limits_and_log(echo, tmp_path):
    conf, users, log = tmp_path / "zrt.conf", tmp_path / "users", tmp_path / "access.log"
    users.write_text("bob:two\n")
    conf.write_text(f"listen 127.0.0.1\nauth alice:one\nauth-file {users}\naccess-log {log}\n")
    proxy = Daemon("--config", str(conf))

    def status(user, password):
        sock, answer = socks5_login(proxy, user, password)
        sock.close()
        return answer == b"\x01\x00"

    def reload(text, until):
        conf.write_text(text)
        proxy.proc.send_signal(signal.SIGHUP)
        for _ in range(100):
            if until():
                return
            time.sleep(0.1)
        pytest.fail("the reload did not show: " + proxy.errors())
    try:
        assert status("alice", "one") and status("bob", "two")
        tunnel, (code, _, _) = socks5_command(proxy, "alice", "one", 1, DEST_V4, echo.port)
        assert code == 0
        os.rename(log, str(log) + ".1")
        users.write_text("carol:four\n")
        live = f"listen 127.0.0.1\nauth alice:three\nauth-file {users}\naccess-log {log}\nallow 127.0.0.1/32\n" \
               "handshake-timeout 1\n"
        reload(live, lambda: status("alice", "three"))
        assert not status("alice", "one") and not status("bob", "two") and status("carol", "four")
        with socket.socket() as outsider:
            outsider.bind(("127.0.0.3", 0))
            outsider.connect((proxy.host, proxy.port))
            assert closed_without_reply(outsider)
        silent = socket.create_connection((proxy.host, proxy.port))
        assert closed_without_reply(silent, 6)
        silent = finish(silent)
        check_entry(log_entry(str(log), silent), "-", "-", "-", "timeout")
        with open(str(log) + ".1") as old:
            assert f":{silent[1]} " not in old.read()
        tunnel.sendall(b"survived")
        assert recv_exact(tunnel, 8) == b"survived"

        reload(live + "frobnicate 1\n", lambda: "reload failed" in proxy.errors())
        assert status("alice", "three") and not status("alice", "one") and proxy.alive()
        reload(live.replace("listen 127.0.0.1", "listen 127.0.0.4"), lambda: "next start" in proxy.errors())
        assert "'listen'" in proxy.errors() and status("alice", "three")
        # Each reload says the limits it runs with; the handshake limit came with the first.
        limits = [line for line in proxy.errors().splitlines() if "limits:" in line]
        assert len(limits) == 3 and "handshake-timeout 1 s" in limits[-1], limits
        # At level error the daemon no longer reports failed logins; they still reach the access log.
        reload(live.replace("alice:three", "alice:five") + "log-level error\n", lambda: status("alice", "five"))
        failures = proxy.errors().count("auth-failed")
        assert failures > 0, "at level warning, failed logins are reported"
        sock, _ = socks5_login(proxy, "alice", "three")
        assert log_entry(str(log), finish(sock))[3:6] == ["alice", "-", "auth-failed"]
        time.sleep(0.2)
        assert proxy.errors().count("auth-failed") == failures
        tunnel.sendall(b"still")
        assert recv_exact(tunnel, 5) == b"still" and proxy.alive()
        tunnel.close()
    finally:
        stopped(proxy)


def test_outgoing_address_and_interface(recorder):
    with running("--outgoing-address", "127.0.0.5") as proxy:
        assert curl("--socks5", proxy.socks, recorder.url("/from5")) == (0, BODY)
        assert curl("-x", proxy.http, "--proxy-user", "any:thing", recorder.url("/from5")) == (0, BODY)
    assert [peer for peer, _ in recorder.seen("/from5")] == ["127.0.0.5", "127.0.0.5"]
    assert not any(b"proxy-authorization" in head.lower() for _, head in recorder.seen("/from5")), "not without users"
    with running("--outgoing-interface", "lo") as proxy:
        assert curl("--socks5-hostname", proxy.socks, recorder.url("/lo")) == (0, BODY)
    for option, value in (("--outgoing-interface", "nosuchif0"), ("--outgoing-address", "192.0.2.77")):
        result = run("--port", "0", option, value)
        assert result.returncode != 0 and "listening" not in result.stdout
        assert value in result.stderr, result.stderr


def test_name_with_several_addresses_is_tried_in_order(recorder, tmp_path):
    dns = StubDns(addresses=("127.0.0.9", DEST_V4))
    log = str(tmp_path / "access.log")
    with socket.socket() as taken:  # nothing may listen on the first address
        with contextlib.suppress(OSError):
            taken.bind(("127.0.0.9", recorder.port))
        with running("--dns-server", f"127.0.0.53:{dns.port}", "--access-log", log) as proxy:
            url = recorder.url("/multi", host="multi.test")
            assert curl("--socks5-hostname", proxy.socks, url) == (0, BODY)
            assert curl("-x", proxy.http, url) == (0, BODY)
            sock, (code, _, _) = socks5_request(proxy, 1, "multi.test", recorder.port)
            assert code == 0
            check_entry(log_entry(log, finish(sock)), "socks5", "-", f"multi.test:{recorder.port}", "ok", 0)  # the destination may answer the bare close
    dns.close()
    assert len(recorder.seen("/multi")) == 2


def test_packaged_unit_and_sample_config(tmp_path):
    sample = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "daemon", "dist", "zrt-proxy.conf")
    proxy = Daemon("--config", sample)
    try:
        with socket.create_connection((proxy.host, proxy.port), timeout=5) as sock:
            sock.sendall(b"\x05\x01\x00")
            assert recv_exact(sock, 2) == b"\x05\x00"
    finally:
        stopped(proxy)
    analyze = "/usr/bin/systemd-analyze"
    if not os.path.exists(analyze):
        pytest.skip("no systemd-analyze")
    binary = os.path.abspath(PROXY_BIN)
    with open(os.path.join(os.path.dirname(sample), "zrt-proxy.service.in")) as unit:
        text = unit.read().replace("@ZRT_SYSCONFDIR@", "/etc")
        text = re.sub(r"^ExecStart=\S+", f"ExecStart={binary}", text, flags=re.M)
    assert f"ExecStart={binary} " in text
    (tmp_path / "zrt-proxy.service").write_text(text)
    result = subprocess.run([analyze, "verify", "--man=no", str(tmp_path / "zrt-proxy.service")],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60)
    assert result.returncode == 0, result.stdout
