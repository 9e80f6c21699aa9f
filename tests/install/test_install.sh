#!/bin/bash
# Installs the build into a temporary prefix and uses it as an application developer would:
# the example hosts built with find_package and with pkg-config (and, where Debian's libc++ is
# installed, the C example as a C++ program on libc++), each run against curl; a C++ host that
# implements every host interface from zrtproxy.hpp alone, which refuses libc++. Checks that no
# internal header is installed, the service files name the prefix they were installed under, and
# that a staged install (DESTDIR) puts everything under the stage once.
#   test_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(cd "$prefix" && ls -d lib*/ | head -1)
libdir=${libdir%/}
soname=$(readelf -d "$build/libzrtproxy.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -L "$prefix/$libdir/$soname" ] || fail "no SONAME link $soname"
[ -L "$prefix/$libdir/libzrtproxy.so" ] || fail "no development link libzrtproxy.so"
[ -f "$prefix/include/zrtproxy/zrtproxy.h" ] || fail "no C header"
[ -f "$prefix/include/zrtproxy/proxy/core/CProxy.h" ] || fail "no C++ header"
[ -f "$prefix/$libdir/pkgconfig/zrtproxy.pc" ] || fail "no pkg-config file"
[ -f "$prefix/$libdir/cmake/zrtproxy/zrtproxyConfig.cmake" ] || fail "no CMake package"
[ -f "$prefix/$libdir/cmake/zrtproxy/armhf.cmake" ] || fail "no 32-bit ARM toolchain file"
for internal in proxy/core/SProxySettings.h proxy/core/CProxyStats.h host/SDirectHostSettings.h; do
    [ ! -e "$prefix/include/zrtproxy/$internal" ] || fail "an internal header is installed: $internal"
done
"$prefix/bin/zrt-proxy" --version | grep -q '^zrt-proxy [0-9]' || fail "the installed daemon does not run"
for folder in runtime transport proxy host; do
    [ ! -e "$prefix/include/$folder" ] || fail "headers in a generic folder include/$folder"
done

# The service: the unit runs this prefix's daemon on this prefix's configuration, which the
# daemon accepts; logrotate tells the daemon to reopen its logs.
unit=$prefix/lib/systemd/system/zrt-proxy.service
grep -qx "ExecStart=$prefix/bin/zrt-proxy --config $prefix/etc/zrt-proxy.conf" "$unit" ||
    fail "unit: $(grep ExecStart "$unit")"
"$prefix/bin/zrt-proxy" --check-config --config "$prefix/etc/zrt-proxy.conf" >/dev/null ||
    fail "the installed sample configuration does not check"
grep -q "SIGUSR1" "$prefix/etc/logrotate.d/zrt-proxy" || fail "no logrotate snippet that reopens the logs"
if [ -x /usr/bin/systemd-analyze ]; then
    /usr/bin/systemd-analyze verify --man=no "$unit" >"$work/verify.log" 2>&1 || fail "unit: $(cat "$work/verify.log")"
fi
stage=$work/stage
DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null
for file in usr/bin/zrt-proxy usr/lib/systemd/system/zrt-proxy.service etc/zrt-proxy.conf etc/logrotate.d/zrt-proxy; do
    [ -f "$stage/$file" ] || fail "staged install: no $file"
done
grep -qx "ExecStart=/usr/bin/zrt-proxy --config /etc/zrt-proxy.conf" "$stage/usr/lib/systemd/system/zrt-proxy.service" ||
    fail "staged unit: $(grep ExecStart "$stage/usr/lib/systemd/system/zrt-proxy.service")"
[ -z "$(find "$stage" -path "$stage$stage*" -print -quit)" ] || fail "staged install: DESTDIR applied twice"
! grep -rq "$stage" "$stage/etc" "$stage/usr/lib/systemd" || fail "staged install: the stage named in a file"
echo "ok: service files"

# A destination on 127.0.0.2 (the HTTP side refuses this machine's own addresses).
mkdir -p "$work/site"
echo "hello from the destination" >"$work/site/index.html"
/usr/bin/python3 -m http.server 0 --bind 127.0.0.2 --directory "$work/site" >"$work/site.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
    dport=$(grep -o 'port [0-9]*' "$work/site.log" | head -1 | cut -d' ' -f2 || true)
    [ -n "$dport" ] && break
    sleep 0.05
done
[ -n "$dport" ] || fail "the destination did not start"

# Starts a host, waits for its "port N" line, runs the checks given, stops it with SIGINT.
run_host() {
    local name=$1
    shift
    "$@" >"$work/$name.out" 2>"$work/$name.err" &
    local pid=$!
    pids+=($pid)
    local port=""
    for _ in $(seq 100); do
        port=$(grep -o '^port [0-9]*' "$work/$name.out" | cut -d' ' -f2 || true)
        [ -n "$port" ] && break
        sleep 0.05
    done
    [ -n "$port" ] || fail "$name did not start: $(cat "$work/$name.err")"
    echo "$port" >"$work/$name.port"
}
stop_host() {
    local name=$1 pid=$2
    kill -INT "$pid"
    wait "$pid" || fail "$name did not exit cleanly"
}
fetch() { curl -sS --max-time 10 "$@"; }

check_c_host() {
    local name=$1 binary=$2
    run_host "$name" "$binary"
    local pid=${pids[-1]} port
    port=$(cat "$work/$name.port")
    fetch --socks5 "127.0.0.1:$port" "http://127.0.0.2:$dport/" | grep -q "hello from" || fail "$name: SOCKS5"
    fetch --proxy "http://127.0.0.1:$port" "http://127.0.0.2:$dport/" | grep -q "hello from" || fail "$name: HTTP"
    stop_host "$name" "$pid"
    grep -q "connections 2 (socks5 1, http 1)" "$work/$name.out" || fail "$name: counters $(cat "$work/$name.out")"
    echo "ok: $name"
}

# 1. CMake package.
cmake -S "$source/examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
check_c_host c-host-cmake "$work/examples/c-host"
run_host cpp-host "$work/examples/cpp-host" 0 example.test=127.0.0.2
cpp_pid=${pids[-1]}
cpp_port=$(cat "$work/cpp-host.port")
fetch --socks5-hostname "127.0.0.1:$cpp_port" "http://example.test:$dport/" | grep -q "hello from" ||
    fail "cpp-host: a name from its own resolver"
if fetch --socks5-hostname "127.0.0.1:$cpp_port" "http://unknown.test:$dport/" >/dev/null 2>&1; then
    fail "cpp-host: a name its resolver does not know was reached"
fi
stop_host cpp-host "$cpp_pid"
grep -q "connections 2" "$work/cpp-host.out" || fail "cpp-host: counters $(cat "$work/cpp-host.out")"
echo "ok: cpp-host"

# 2. pkg-config, with the C compiler and with clang.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
flags=$(pkg-config --cflags --libs zrtproxy)
rpath="-Wl,-rpath,$prefix/$libdir"
cc "$source/examples/c-host/main.c" -o "$work/c-host-pc" $flags $rpath
check_c_host c-host-pkgconfig "$work/c-host-pc"
if command -v clang >/dev/null; then
    clang "$source/examples/c-host/main.c" -o "$work/c-host-clang" $flags $rpath
    check_c_host c-host-clang "$work/c-host-clang"
fi

# 3. zrtproxy.hpp alone suffices to implement every host interface and drive a CProxy.
c++ -std=c++17 -Wall -Wextra -Werror "$source/tests/install/host_interfaces.cpp" -o "$work/host-interfaces" $flags $rpath
"$work/host-interfaces" >"$work/host-interfaces.out" || fail "host_interfaces: $(cat "$work/host-interfaces.out")"
grep -q "^started [1-9]" "$work/host-interfaces.out" && grep -q "^connections 0" "$work/host-interfaces.out" ||
    fail "host_interfaces: $(cat "$work/host-interfaces.out")"
echo "ok: zrtproxy.hpp alone"

# 4. Another C++ standard library: the C interface does not care; the C++ one refuses to compile.
if command -v clang++-14 >/dev/null && [ -e /usr/lib/llvm-14/include/c++/v1/string ]; then
    if clang++-14 -stdlib=libc++ -std=c++17 -c "$source/tests/install/host_interfaces.cpp" -o "$work/libcxx.o" \
        $flags 2>"$work/libcxx.err"; then
        fail "zrtproxy.hpp accepted libc++ against a libstdc++ library"
    fi
    grep -q "another C++ standard library" "$work/libcxx.err" || fail "libc++ refused unclearly: $(head -5 "$work/libcxx.err")"
    clang++-14 -stdlib=libc++ -x c++ "$source/examples/c-host/main.c" -o "$work/c-host-libcxx" $flags $rpath
    ldd "$work/c-host-libcxx" >"$work/libcxx.ldd" # grep -q in a pipe would cut ldd short (pipefail)
    grep -q 'libc++.so' "$work/libcxx.ldd" || fail "the libc++ build does not use libc++"
    check_c_host c-host-libcxx "$work/c-host-libcxx"
else
    echo "skipped: libc++ (libc++-14-dev not installed)"
fi
echo "all install checks passed"
