"""Real clients fetching a several-MiB file through the daemon and checking its SHA-256."""
import concurrent.futures
import hashlib
import subprocess

import pytest

from conftest import DEST_V4, DEST_V6


def curl(*args):
    result = subprocess.run(["curl", "-sS", "--fail", "--max-time", "120", "--noproxy", "", *args],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return result.returncode, hashlib.sha256(result.stdout).hexdigest(), result.stderr.decode()


def proxy_options(kind, daemon):
    endpoint = f"{daemon.host}:{daemon.port}"
    return {
        "socks5": ["--socks5", endpoint],
        "socks5-hostname": ["--socks5-hostname", endpoint],
        "http": ["-x", f"http://{endpoint}"],
        "http-connect": ["-p", "-x", f"http://{endpoint}"],
    }[kind]


@pytest.mark.parametrize("kind", ["socks5", "socks5-hostname", "http", "http-connect"])
def test_download_through_each_protocol(daemon, http_servers, files, kind):
    url = f"http://{DEST_V4}:{http_servers[DEST_V4]}/{files[1]}"
    code, digest, error = curl(*proxy_options(kind, daemon), url)
    assert code == 0, error
    assert digest == files[2]


def test_proxy_resolves_host_names(daemon, http_servers, files):
    # "localhost" is resolved by the daemon's resolver, not by curl.
    url = f"http://localhost:{http_servers['127.0.0.1']}/{files[1]}"
    code, digest, error = curl(*proxy_options("socks5-hostname", daemon), url)
    assert code == 0, error
    assert digest == files[2]


@pytest.mark.parametrize("kind", ["socks5", "socks5-hostname", "http", "http-connect"])
def test_ipv6_destination(daemon, http_servers, files, kind):
    url = f"http://[{DEST_V6}]:{http_servers[DEST_V6]}/{files[1]}"
    code, digest, error = curl("-g", *proxy_options(kind, daemon), url)
    assert code == 0, error
    assert digest == files[2]


def test_thirty_two_downloads_in_parallel(daemon, http_servers, files):
    url = f"http://{DEST_V4}:{http_servers[DEST_V4]}/{files[1]}"
    kinds = ["socks5", "socks5-hostname", "http", "http-connect"] * 8
    with concurrent.futures.ThreadPoolExecutor(max_workers=len(kinds)) as pool:
        results = list(pool.map(lambda kind: curl(*proxy_options(kind, daemon), url), kinds))
    for kind, (code, digest, error) in zip(kinds, results):
        assert code == 0, f"{kind}: {error}"
        assert digest == files[2], kind


def test_proxychains_runs_an_unaware_client(daemon, http_servers, files, tmp_path):
    config = tmp_path / "proxychains.conf"
    config.write_text(f"strict_chain\nquiet_mode\n[ProxyList]\nsocks5 {daemon.host} {daemon.port}\n")
    url = f"http://{DEST_V4}:{http_servers[DEST_V4]}/{files[1]}"
    result = subprocess.run(["proxychains4", "-f", str(config), "curl", "-sS", "--fail", "--max-time", "120",
                             "--noproxy", "*", url], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert result.returncode == 0, result.stderr.decode()
    assert hashlib.sha256(result.stdout).hexdigest() == files[2]
