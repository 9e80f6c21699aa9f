"""What the end-to-end and hardening tests share: the zrt-proxy daemon started on a free port,
readings of its descriptors, threads, memory and CPU time, SOCKS5 client exchanges with raw
sockets, and an echo server on loopback."""
import os
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

PROXY_BIN = os.environ.get("ZRT_PROXY_BIN", "build/zrt-proxy")
# The machine's own name resolves to 127.0.0.1, which the HTTP handler refuses as local.
DEST_V4 = "127.0.0.2"
DEST_V6 = "::1"


class Daemon:
    def __init__(self, *args, limit_fds=None, stderr=None):
        def limit():
            if limit_fds:
                import resource
                resource.setrlimit(resource.RLIMIT_NOFILE, (limit_fds, limit_fds))
        # A file, not a pipe: a sanitizer report must neither block the daemon nor get lost. A test
        # of standard error itself may give another descriptor.
        self.stderr = tempfile.TemporaryFile(mode="w+") if stderr is None else None
        self.proc = subprocess.Popen([PROXY_BIN, "--port", "0", *args], stdout=subprocess.PIPE,
                                     stderr=self.stderr or stderr, text=True, preexec_fn=limit)
        self.pid = self.proc.pid
        line = self.proc.stdout.readline()
        assert "listening on" in line, line + self.errors()
        self.host, port = line.split("listening on", 1)[1].strip().rsplit(":", 1)
        self.host = self.host.strip("[]")
        self.port = int(port)

    def errors(self):
        if self.stderr is None:
            return ""
        self.stderr.seek(0)
        return self.stderr.read()

    def error_bytes(self):
        """Standard error as written, undecoded."""
        self.stderr.flush()
        return os.pread(self.stderr.fileno(), 1 << 24, 0)

    def sanitized(self):
        """True when the daemon runs under ASan or TSan, whose memory use says nothing."""
        with open(f"/proc/{self.pid}/maps") as maps:
            return any("libasan" in line or "libtsan" in line for line in maps)

    def alive(self):
        return self.proc.poll() is None

    def stop(self, timeout=20):
        if self.alive():
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.hung_stacks = self.stacks()
                print(f"zrt-proxy did not stop in {timeout} s:\n{self.hung_stacks}")
                self.proc.kill()
                self.proc.wait()
                return None
        return self.proc.returncode

    def stacks(self):
        """Every thread's stack (gdb), to tell why the daemon hangs."""
        try:
            return subprocess.run(["gdb", "-p", str(self.pid), "-batch", "-ex", "thread apply all bt"],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60).stdout
        except (OSError, subprocess.TimeoutExpired) as error:
            return f"(no stacks: {error})"

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def fd_targets(self):
        """What each descriptor is, for messages."""
        targets = []
        for fd in os.listdir(f"/proc/{self.pid}/fd"):
            try:
                targets.append(os.readlink(f"/proc/{self.pid}/fd/{fd}"))
            except OSError:
                pass
        return sorted(targets)

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


def serve_forever(server):
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


class EchoServer:
    """Echoes every byte; serves any number of clients."""

    def __init__(self, host=DEST_V4):
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


def recv_exact(sock, count):
    data = bytearray()
    while len(data) < count:
        chunk = sock.recv(count - len(data))
        if not chunk:
            raise ConnectionError(f"closed after {len(data)} of {count} bytes")
        data += chunk
    return bytes(data)


def recv_until(sock, done=lambda data: False, size=65536):
    """Reads until done(what came so far) holds or the peer closes."""
    data = b""
    while not done(data):
        chunk = sock.recv(size)
        if not chunk:
            break
        data += chunk
    return data


def socks5_address(host, port):
    """ATYP, address and port of a SOCKS5 request for a numeric address or a name."""
    for family, atyp in ((socket.AF_INET, 1), (socket.AF_INET6, 4)):
        try:
            return bytes([atyp]) + socket.inet_pton(family, host) + struct.pack("!H", port)
        except OSError:
            pass
    name = host.encode()
    return bytes([3, len(name)]) + name + struct.pack("!H", port)


def read_socks5_reply(sock):
    """Returns (reply code, address text, port) of one SOCKS5 reply."""
    head = recv_exact(sock, 4)
    assert head[0] == 5, head
    if head[3] == 1:
        address = socket.inet_ntop(socket.AF_INET, recv_exact(sock, 4))
    elif head[3] == 4:
        address = socket.inet_ntop(socket.AF_INET6, recv_exact(sock, 16))
    else:
        address = recv_exact(sock, recv_exact(sock, 1)[0]).decode()
    port = struct.unpack("!H", recv_exact(sock, 2))[0]
    return head[1], address, port


def udp_ask(udp, relay, datagram, tries=5):
    """Sends a datagram to the relay until a reply comes (a busy machine may lose one); the reply."""
    for _ in range(tries):
        udp.sendto(datagram, relay)
        try:
            return udp.recvfrom(65536)[0]
        except socket.timeout:
            continue
    raise AssertionError("no datagram came back")


def socks5_request(proxy, command, host, port, timeout=30):
    """Opens a client connection, negotiates no authentication and sends one request;
    returns the socket and the first reply."""
    sock = socket.create_connection((proxy.host, proxy.port), timeout=timeout)
    sock.sendall(b"\x05\x01\x00")
    assert recv_exact(sock, 2) == b"\x05\x00"
    sock.sendall(bytes([5, command, 0]) + socks5_address(host, port))
    return sock, read_socks5_reply(sock)


def socks5_connect(proxy, host, port, timeout=10):
    """A SOCKS5 CONNECT that must succeed; returns the connected socket."""
    sock, (code, _, _) = socks5_request(proxy, 1, host, port, timeout)
    assert code == 0, code
    return sock


def echo_round_trip(proxy, echo_port, payload=b"ping"):
    with socks5_connect(proxy, DEST_V4, echo_port) as sock:
        sock.sendall(payload)
        return recv_exact(sock, len(payload)) == payload
