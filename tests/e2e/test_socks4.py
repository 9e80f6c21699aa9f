"""SOCKS4 and 4A through the daemon with real clients: curl and the npm "socks" client (CONNECT
and BIND), names from the stub DNS, the access log, and users. Missing clients are installed when
running as root; otherwise their tests are skipped."""
import hashlib
import os
import select
import shutil
import signal
import socket
import struct
import subprocess

import pytest

from conftest import DEST_V4, PROXY_BIN, Daemon, connect_from, recv_exact, running, stopped, wait_for

HERE = os.path.dirname(os.path.abspath(__file__))
# The npm client goes into the build tree, never the source tree.
NPM_DIR = os.environ.get("ZRT_NPM_DIR") or os.path.join(os.path.dirname(os.path.abspath(PROXY_BIN)), "npm")
NPM_SOCKS = "socks@2.8.11"
REJECTED = bytes([0, 91]) + bytes(6)


def install_debian(binary, package):
    if shutil.which(binary):
        return
    if os.geteuid() != 0:
        pytest.skip(f"{binary} is missing (Debian package {package}); run as root to install it")
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(["apt-get", "update", "-qq"], check=True, env=env, stdout=subprocess.DEVNULL)
    subprocess.run(["apt-get", "install", "-y", "-qq", package], check=True, env=env, stdout=subprocess.DEVNULL)


@pytest.fixture(scope="module")
def curl_tool():
    install_debian("curl", "curl")


@pytest.fixture(scope="module")
def npm_socks():
    """The folder whose node_modules holds the npm socks client."""
    if not os.path.isdir(os.path.join(NPM_DIR, "node_modules", "socks")):
        install_debian("npm", "npm")
        if os.geteuid() != 0:
            pytest.skip(f"the npm package {NPM_SOCKS} is missing; run as root to install it")
        os.makedirs(NPM_DIR, exist_ok=True)
        subprocess.run(["npm", "install", "--prefix", NPM_DIR, "--no-audit", "--no-fund", NPM_SOCKS], check=True,
                       stdout=subprocess.DEVNULL, timeout=300)
    return os.path.join(NPM_DIR, "node_modules")


@pytest.fixture(scope="module")
def proxy(dns, tmp_path_factory):
    log = tmp_path_factory.mktemp("socks4") / "access.log"
    with running("--dns-server", f"127.0.0.53:{dns.port}", "--access-log", str(log)) as daemon:
        daemon.log = log
        yield daemon


def logged(path, text):
    """True once a line of the access log holds text."""
    return wait_for(lambda: os.path.exists(path) and any(text in line for line in open(path)), 10)


def socks4_request(proxy, command, host, port, user=b""):
    """Sends one SOCKS4 request (4A when host is a name); returns the socket and the reply."""
    sock = socket.create_connection((proxy.host, proxy.port), timeout=10)
    try:
        address, name = socket.inet_aton(host), b""
    except OSError:
        address, name = bytes([0, 0, 0, 1]), host.encode() + b"\0"
    try:
        sock.sendall(bytes([4, command]) + struct.pack("!H", port) + address + user + b"\0" + name)
    except (BrokenPipeError, ConnectionResetError):
        return sock, b""
    return sock, recv_until_closed(sock, 8)


def recv_until_closed(sock, count):
    """Up to count bytes; fewer when the peer closes (or resets) first."""
    data = b""
    try:
        while len(data) < count:
            chunk = sock.recv(count - len(data))
            if not chunk:
                break
            data += chunk
    except ConnectionResetError:
        pass
    return data


def curl(*args):
    return subprocess.run(["curl", "-sS", "--fail", "--max-time", "60", "--noproxy", "", *args],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def sha256(data):
    return hashlib.sha256(data).hexdigest()


# ---- real clients ----

@pytest.mark.parametrize("option, host, protocol", [("--socks4", DEST_V4, "socks4"),
                                                    ("--socks4a", "files.test", "socks4a")])
def test_curl_downloads_and_the_access_log_names_the_protocol(curl_tool, proxy, http_servers, files, option, host,
                                                              protocol):
    port = http_servers[DEST_V4]
    result = curl(option, f"{proxy.host}:{proxy.port}", f"http://{host}:{port}/{files[1]}")
    assert result.returncode == 0, result.stderr.decode()
    assert sha256(result.stdout) == files[2]
    assert logged(proxy.log, f" {protocol} - {host}:{port} ok ")


def node(modules, *args):
    return subprocess.Popen(["node", os.path.join(HERE, "socks4_client.js"), *args], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, env=dict(os.environ, NODE_PATH=modules))


def read_line(process, timeout=10):
    if not select.select([process.stdout], [], [], timeout)[0]:
        process.kill()
        pytest.fail("the npm client said nothing: " + process.stderr.read())
    return process.stdout.readline().strip()


@pytest.mark.parametrize("host, protocol", [(DEST_V4, "socks4"), ("echo.test", "socks4a")])
def test_npm_socks_client_connects(npm_socks, proxy, echo, host, protocol):
    client = node(npm_socks, "connect", proxy.host, str(proxy.port), host, str(echo.port), "node")
    assert read_line(client) == "echo ping"
    assert client.wait(10) == 0
    assert logged(proxy.log, f" {protocol} node {host}:{echo.port} ok ")


def test_npm_socks_client_binds_and_only_the_named_peer_is_let_in(npm_socks, proxy):
    client = node(npm_socks, "bind", proxy.host, str(proxy.port), "127.0.0.1", "node")
    try:
        bound = read_line(client).split()
        assert bound[:2] == ["bound", "127.0.0.1"], bound
        with connect_from("127.0.0.3", ("127.0.0.1", int(bound[2]))) as stranger:
            assert recv_until_closed(stranger, 1) == b""
        with socket.create_connection(("127.0.0.1", int(bound[2])), timeout=10) as peer:
            assert read_line(client) == f"established 127.0.0.1 {peer.getsockname()[1]}"
            assert recv_exact(peer, 15) == b"from the client"
            peer.sendall(b"from the peer")
            assert read_line(client) == "received from the peer"
        assert client.wait(10) == 0
    finally:
        client.kill()
        client.wait()
    assert logged(proxy.log, " bind node 127.0.0.1:0 ok ")


# ---- what the operator decides ----

def test_with_users_socks4_gets_91_unless_socks4_allow(curl_tool, echo, http_servers, tmp_path):
    conf, log = tmp_path / "zrt.conf", tmp_path / "access.log"
    settings = f"listen 127.0.0.1\nauth alice:pw\naccess-log {log}\n"
    conf.write_text(settings)
    proxy = Daemon("--config", str(conf))
    try:
        sock, reply = socks4_request(proxy, 1, DEST_V4, echo.port, b"alice")
        with sock:
            assert reply == REJECTED
            assert recv_until_closed(sock, 1) == b""
        assert logged(log, f" socks4 alice {DEST_V4}:{echo.port} auth-failed ")
        assert curl("--socks4", f"127.0.0.1:{proxy.port}", f"http://{DEST_V4}:{http_servers[DEST_V4]}/").returncode != 0
        # The setting is live: a reload lets SOCKS4 in, while SOCKS5 still needs the password.
        conf.write_text(settings + "socks4 allow\n")
        proxy.proc.send_signal(signal.SIGHUP)

        def granted():
            nonlocal sock, reply
            sock.close()
            sock, reply = socks4_request(proxy, 1, DEST_V4, echo.port, b"alice")
            return reply[:2] == bytes([0, 90])
        wait_for(granted, 10)
        with sock:
            assert reply[:2] == bytes([0, 90]), reply
            sock.sendall(b"ping")
            assert recv_exact(sock, 4) == b"ping"
        with socket.create_connection((proxy.host, proxy.port), timeout=10) as socks5:
            socks5.sendall(b"\x05\x01\x00")
            assert recv_exact(socks5, 2) == b"\x05\xff"
    finally:
        stopped(proxy)
