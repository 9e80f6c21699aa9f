#!/usr/bin/env bash
# Side-by-side benchmark: zrt-proxy against the proxies people use (microsocks, Dante, tinyproxy,
# and Squid for HTTP keep-alive and page loads), plus the direct path as the physical limit.
# Everything runs on loopback; each peer runs in the foreground as a child of this script with a
# config file in a temp dir, and is killed at the end.
#
# usage: bench/run.sh BUILD_DIR [--quick] [--runs N] [--note TEXT] [--out FILE] [--no-peers]
#                    [--tests LIST]
#   --quick     small sizes, 1 run, no Chromium and no package installs for the HTTP groups: a
#               smoke test (writes no results file unless --out is given); exits non-zero when
#               a run of the direct path or of zrt-proxy failed
#   --runs N    runs per figure (default 5; the median is reported)
#   --note TEXT one more line for the results header (e.g. that the machine was shared)
#   --out FILE  where the results go (default bench/RESULTS.md for a full run)
#   --no-peers  measure only zrt-proxy and the direct path (no peer packages needed)
#   --tests L   only these groups, comma-separated: zrt-loadgen's (bulk, upload, tx, txclose, idle,
#               used, udp, ttfb, burst, bystander, stall, headers, rssend) and keepalive, page
#   ZRT_EXTRA (environment): more options for zrt-proxy, to compare settings (e.g. "--threads 2")
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
COMMAND_LINE="bench/run.sh $*"
BUILD=${1:-}
if [ -z "$BUILD" ] || [ "${BUILD#--}" != "$BUILD" ]; then
  sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//' >&2
  exit 2
fi
shift
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac

QUICK=0
RUNS=5
NOTE=""
OUT=""
PEERS=1
TESTS=bulk,upload,tx,txclose,idle,used,udp,ttfb,burst,bystander,stall,headers,rssend,keepalive,page
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) QUICK=1 ;;
    --runs) RUNS=$2; shift ;;
    --note) NOTE=$2; shift ;;
    --out) OUT=$2; shift ;;
    --no-peers) PEERS=0 ;;
    --tests) TESTS=$2; shift ;;
    *) echo "run.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

if [ "$QUICK" = 1 ]; then
  [ "$RUNS" = 5 ] && RUNS=1
  SIZES=(--bulk-bytes $((128 << 20)) --tx-seconds 0.3 --idle-tunnels 100 --idle-seconds 1
         --udp-seconds 0.3 --ttfb-samples 20 --burst-clients 200 --bystander-samples 30
         --bystander-seconds 2 --used-tunnels 50 --stalled-downloads 8 --held-headers 100)
else
  SIZES=(--bulk-bytes $((1 << 30)) --tx-seconds 1 --idle-tunnels 1000 --idle-seconds 10
         --udp-seconds 1 --ttfb-samples 200 --burst-clients 2000 --bystander-samples 200
         --bystander-seconds 5 --used-tunnels 200 --stalled-downloads 32 --held-headers 2000)
  [ -z "$OUT" ] && OUT="$ROOT/bench/RESULTS.md"
fi

log() { echo "run.sh: $*" >&2; }
NOTES=()

# --- build -------------------------------------------------------------------------------------
if [ ! -f "$BUILD/CMakeCache.txt" ]; then
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRT_BUILD_BENCH=ON \
        -DZRT_BUILD_TESTS=OFF >&2
fi
cmake --build "$BUILD" --target zrt-loadgen zrt-bench-dest -j "$(nproc)" >&2
TOOLS="$BUILD/bench/load"
OURS_BIN="$BUILD/zrt-proxy"
if ! cmake --build "$BUILD" --target zrt-proxy -j "$(nproc)" >"$BUILD/zrt-proxy-build.log" 2>&1; then
  log "zrt-proxy did not build (see $BUILD/zrt-proxy-build.log)"
  OURS_BIN=""
  NOTES+=("zrt-proxy was not measured: it did not build at this commit.")
fi

# --- peers -------------------------------------------------------------------------------------
have_peer_binaries() { command -v microsocks >/dev/null && command -v danted >/dev/null &&
                       command -v tinyproxy >/dev/null; }
if [ "$PEERS" = 1 ] && ! have_peer_binaries; then
  if [ "$(id -u)" = 0 ]; then
    log "installing microsocks dante-server tinyproxy"
    export DEBIAN_FRONTEND=noninteractive
    apt-get install -y -qq microsocks dante-server tinyproxy >&2 ||
      { apt-get update -qq >&2 && apt-get install -y -qq microsocks dante-server tinyproxy >&2; } ||
      log "could not install the peers"
  else
    log "peers missing and not root: they are skipped"
  fi
fi

# shellcheck source=bench/web.sh
. "$ROOT/bench/web.sh"
web_packages

# The 1,000-tunnel test needs two descriptors per tunnel in the proxy and one in the client.
ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
if [ "$(ulimit -n)" != unlimited ] && [ "$(ulimit -n)" -lt 4096 ]; then
  NOTES+=("descriptor limit only $(ulimit -n): the idle-tunnel test may fail.")
fi

WORK=$(mktemp -d /tmp/zrt-bench.XXXXXX)
chmod 0755 "$WORK"
mkdir -m 0777 "$WORK/logs"  # tinyproxy drops to nobody before it opens its log
PIDS=()
cleanup() {
  local pid
  for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${PIDS[@]}"; do
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  done
  rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

freeport() { "$TOOLS/zrt-loadgen" freeport; }
wait_port() { "$TOOLS/zrt-loadgen" wait "127.0.0.1:$1" 10 >/dev/null 2>&1; }

# --- destinations ------------------------------------------------------------------------------
# HTTP destinations live on 127.0.0.2: the host name resolves to 127.0.0.1, which zrt-proxy's HTTP
# handler refuses as the machine itself.
"$TOOLS/zrt-bench-dest" --http 127.0.0.2:0 --udp 127.0.0.2:0 --max-seconds 3000 \
  >"$WORK/dest.out" 2>"$WORK/logs/dest.err" &
PIDS+=($!)
for _ in $(seq 1 100); do grep -q '^ready' "$WORK/dest.out" 2>/dev/null && break; sleep 0.1; done
HTTP_DEST=$(awk '/^http /{print $2}' "$WORK/dest.out")
UDP_DEST=$(awk '/^udp /{print $2}' "$WORK/dest.out")
[ -n "$HTTP_DEST" ] && [ -n "$UDP_DEST" ] || { log "destination server did not start"; exit 1; }
# The bystander's destination is a process of its own, so the bulk downloads' sender cannot delay it.
"$TOOLS/zrt-bench-dest" --http 127.0.0.2:0 --udp 127.0.0.2:0 --max-seconds 3000 \
  >"$WORK/side.out" 2>"$WORK/logs/side.err" &
PIDS+=($!)
for _ in $(seq 1 100); do grep -q '^ready' "$WORK/side.out" 2>/dev/null && break; sleep 0.1; done
SIDE_DEST=$(awk '/^http /{print $2}' "$WORK/side.out")
[ -n "$SIDE_DEST" ] || { log "second destination server did not start"; exit 1; }

PROXIES=()
PROXY_PIDS=()
note_once() { local n; for n in "${NOTES[@]}"; do [ "$n" = "$1" ] && return 0; done; NOTES+=("$1"); }
start_proxy() {  # NAME CAPS PORT LOGNAME COMMAND...
  local name=$1 caps=$2 port=$3 logname=$4
  shift 4
  "$@" >"$WORK/logs/$logname.log" 2>&1 &
  local pid=$!
  PIDS+=("$pid")
  PROXY_PIDS+=("$pid")
  if wait_port "$port" && kill -0 "$pid" 2>/dev/null; then
    PROXIES+=(--proxy "$name:$caps:127.0.0.1:$port:$pid")
    log "$name listening on 127.0.0.1:$port (pid $pid)"
  else
    log "$name did not start:"; tail -5 "$WORK/logs/$logname.log" >&2 || true
    note_once "$name was not measured: it did not start."
  fi
}

# Every proxy under test, freshly started on new ports: the memory groups each get processes
# whose heaps no earlier load has grown.
start_proxies() {
  local port
  PROXIES=()
  PROXY_PIDS=()
  if [ -n "$OURS_BIN" ]; then
    port=$(freeport)
    start_proxy zrt-proxy shcu "$port" zrt-proxy "$OURS_BIN" --port "$port" --listen 127.0.0.1 ${ZRT_EXTRA:-}
  fi

  if [ "$PEERS" = 1 ] && command -v microsocks >/dev/null; then
    port=$(freeport)
    start_proxy microsocks s "$port" microsocks microsocks -i 127.0.0.1 -p "$port"
  fi

  if [ "$PEERS" = 1 ] && command -v danted >/dev/null; then
    port=$(freeport)
    cat >"$WORK/danted.conf" <<EOF
logoutput: stderr
errorlog: stderr
internal: 127.0.0.1 port = $port
external: 127.0.0.1
clientmethod: none
socksmethod: none
user.privileged: root
user.unprivileged: nobody
client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }
socks pass { from: 127.0.0.0/8 to: 0.0.0.0/0 command: connect udpassociate }
socks pass { from: 0.0.0.0/0 to: 127.0.0.0/8 command: udpreply }
EOF
    start_proxy dante su "$port" danted danted -f "$WORK/danted.conf" -p "$WORK/danted.pid"
  fi

  if [ "$PEERS" = 1 ] && command -v tinyproxy >/dev/null; then
    port=$(freeport)
    # MaxClients leaves room for the 2,000 clients of the burst and unfinished-header tests.
    cat >"$WORK/tinyproxy.conf" <<EOF
User nobody
Group nogroup
Port $port
Listen 127.0.0.1
Timeout 600
MaxClients 4096
LogFile "$WORK/logs/tinyproxy-own.log"
LogLevel Critical
PidFile "$WORK/logs/tinyproxy.pid"
DisableViaHeader Yes
EOF
    start_proxy tinyproxy hc "$port" tinyproxy tinyproxy -d -c "$WORK/tinyproxy.conf"
  fi
}

stop_proxies() {
  local pid
  for pid in "${PROXY_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${PROXY_PIDS[@]}"; do
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true  # reaped, so its CPU counts as this script's
  done
  PROXY_PIDS=()
}

# --- measure -----------------------------------------------------------------------------------
# How much CPU went to processes other than the benchmark's own: the machine may be shared.
HZ=$(getconf CLK_TCK)
# user + nice + system: interrupt time is not charged to any process, so it is left out.
busy_ticks() { awk '/^cpu /{print $2 + $3 + $4}' /proc/stat; }
# `times` must run in this shell, not in a command substitution's subshell (which has no children).
children_ticks() {  # sets CHILDREN_TICKS: CPU of this script's reaped children
  times >"$WORK/times.txt"
  CHILDREN_TICKS=$(awk -v hz="$HZ" 'NR == 2 {
    split($1, u, /[ms]/); split($2, s, /[ms]/); printf "%d", (u[1] * 60 + u[2] + s[1] * 60 + s[2]) * hz }' "$WORK/times.txt")
}
started_ticks() {  # CPU of the processes this script started, with their reaped children
  local pid total=0
  for pid in "${PIDS[@]}"; do
    [ -r "/proc/$pid/stat" ] || continue
    total=$(( total + $(sed 's/.*) //' "/proc/$pid/stat" | awk '{print $12 + $13 + $14 + $15}') ))
  done
  echo "$total"
}
LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)
START=$(date +%s)
children_ticks
BUSY0=$(busy_ticks); OWN0=$(( CHILDREN_TICKS + $(started_ticks) ))
BENCH_RC=0
# The memory groups get freshly started proxies for every run (a heap grown by an earlier run would
# hide the cost); the load groups run all their runs on one set, which stays up for the HTTP groups.
run_phase() {  # GROUPS RUNS
  local wanted="" t
  for t in ${1//,/ }; do
    case ",$TESTS," in *,"$t",*) wanted="$wanted,$t" ;; esac
  done
  [ -n "$wanted" ] || return 0
  stop_proxies
  start_proxies
  "$TOOLS/zrt-loadgen" bench --http-dest "$HTTP_DEST" --udp-dest "$UDP_DEST" --side-dest "$SIDE_DEST" \
    --ours zrt-proxy --strict "$QUICK" --runs "$2" --tests "${wanted#,}" --format figures \
    "${SIZES[@]}" "${PROXIES[@]}" >>"$WORK/figures.tsv" || BENCH_RC=$?
}
: >"$WORK/figures.tsv"
for phase in "idle,used" stall headers; do
  for _ in $(seq 1 "$RUNS"); do run_phase "$phase" 1; done
done
run_phase "bulk,upload,tx,txclose,udp,ttfb,burst,bystander,rssend" "$RUNS"
[ ${#PROXY_PIDS[@]} -gt 0 ] || start_proxies
TABLE_COLUMNS=direct
for p in "${PROXIES[@]}"; do
  [ "$p" = --proxy ] || TABLE_COLUMNS="$TABLE_COLUMNS,${p%%:*}"
done
"$TOOLS/zrt-loadgen" table --columns "$TABLE_COLUMNS" --ours zrt-proxy <"$WORK/figures.tsv" >"$WORK/table.md"
web_run
WEB_COLUMNS=direct
for t in "${WEB_TARGETS[@]}"; do
  [ "${t%%:*}" = direct ] || WEB_COLUMNS="$WEB_COLUMNS,${t%%:*}"
done
"$TOOLS/zrt-loadgen" table --columns "$WEB_COLUMNS" --ours zrt-proxy <"$WEB_TSV" >"$WORK/web.md"
children_ticks
BUSY1=$(busy_ticks); OWN1=$(( CHILDREN_TICKS + $(started_ticks) ))
ELAPSED=$(( $(date +%s) - START ))
LOAD_AFTER=$(cut -d' ' -f1-3 /proc/loadavg)
OTHER_S=$(( (BUSY1 - BUSY0 - (OWN1 - OWN0)) / HZ ))
[ "$OTHER_S" -lt 0 ] && OTHER_S=0
AVAIL_S=$(( $(nproc) * (ELAPSED > 0 ? ELAPSED : 1) ))
if [ $(( OTHER_S * 20 )) -gt "$AVAIL_S" ]; then
  NOTES+=("The machine was shared: other processes used about ${OTHER_S} CPU-seconds of the ${AVAIL_S} available during the run.")
else
  NOTES+=("Other processes used about ${OTHER_S} CPU-seconds of the ${AVAIL_S} available during the run.")
fi

version() { dpkg-query -W -f='${Version}' "$1" 2>/dev/null || echo "not installed"; }
CPU=$(awk -F': ' '/^model name/{print $2; exit}' /proc/cpuinfo)
OURS_REV=$(git -C "$ROOT" rev-parse --short HEAD 2>/dev/null || echo unknown)
if ! git -C "$ROOT" diff --quiet HEAD -- daemon proxy runtime transport host 2>/dev/null; then
  OURS_REV="$OURS_REV (with uncommitted changes)"
fi

{
  echo "# Side-by-side benchmark results"
  echo
  echo "- Command: \`$COMMAND_LINE\`"
  echo "- Date: $(date -u '+%Y-%m-%d %H:%M UTC'); the run took ${ELAPSED} s"
  echo "- Machine: $(nproc) CPUs, $CPU, kernel $(uname -r)"
  echo "- Load average (1/5/15 min) before: $LOAD_BEFORE, after: $LOAD_AFTER"
  [ "$QUICK" = 1 ] && echo "- Quick mode: a smoke test with small sizes; its figures are not comparable to a full run."
  echo "- Build: $(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$BUILD/CMakeCache.txt") ($BUILD)"
  echo "- zrt-proxy at commit $OURS_REV; microsocks $(version microsocks), dante-server $(version dante-server), tinyproxy $(version tinyproxy)"
  echo "- HTTP groups: nginx $(nginx -v 2>&1 | sed "s|.*/||" || echo "not installed"), squid $(version squid), apache2-utils $(version apache2-utils), chromium $(version chromium)"
  [ -n "$NOTE" ] && echo "- Note: $NOTE"
  for n in "${NOTES[@]}"; do echo "- $n"; done
  echo
  echo "Each figure is the median of $RUNS run(s); within a run the targets take turns (direct, zrt-proxy,"
  echo "peers, then again). \"direct\" talks to the destination without a proxy: the physical limit."
  echo "The proxies are started afresh for every run of the idle and used tunnels, of the stalled"
  echo "downloads and of the unfinished headers (in that order), then once for all runs of the rest."
  echo "Ratio columns divide zrt-proxy's median by the other column's; read them with the \"better\" column"
  echo "(rows whose \"better\" is \"-\" are context, with no ratio). These are readings of one run on a"
  echo "shared machine, not assertions. MB = 10^6 bytes, MiB/KiB = 2^20/2^10 bytes."
  echo "Destinations: HTTP on $HTTP_DEST (GET /bytes/N, POST /upload, POST /echo), UDP echo on $UDP_DEST;"
  echo "a second HTTP destination process on $SIDE_DEST serves the bystander."
  echo
  echo "- **Idle tunnels**: CPU is utime+stime of the proxy and its child processes while the tunnels"
  echo "  stay idle; wake-ups are voluntary context switches of all their threads per second. The idle"
  echo "  test comes first; RSS/PSS per tunnel is the footprint while holding the tunnels minus the"
  echo "  footprint of the freshly started proxy, divided by their number (RSS counts shared pages once"
  echo "  per process, so PSS is the fairer figure for Dante's child processes)."
  echo "- **Tunnels that carried 1 MiB each way**: each tunnel posts 1 MiB to the destination's echo and"
  echo "  reads 1 MiB back, then stays open and idle; right after the idle test, RSS while holding them"
  echo "  minus the fresh process's, and descriptors (all processes) minus those just before, per tunnel."
  echo "  SOCKS5 for the SOCKS5 proxies, HTTP CONNECT for tinyproxy; zrt-proxy both ways."
  echo "- **Proxy CPU per transaction / per GiB**: utime+stime of the proxy (every thread, child processes"
  echo "  and reaped children included) from /proc/PID/stat over one transaction measurement, divided by"
  echo "  the transactions completed in it (us), or over one bulk transfer divided by the GiB relayed (s)."
  echo "  Kernel share: stime over that total (clock ticks of 10 ms: coarse for short quick runs)."
  echo "- **Bystander**: K SOCKS5 downloads of an endless body (read as fast as they come, all on one"
  echo "  thread of the load generator) run through the proxy; meanwhile one client runs its samples one"
  echo "  after another: connect, greeting, CONNECT, GET 100 B from the second destination, read to the"
  echo "  end, close; each sample is timed from connect to the last byte (samples stop after 5 s, 2 s in"
  echo "  quick runs). \"Together\" is the K downloads' bytes over the sampling time."
  echo "- **Stalled downloads**: downloads of an endless body whose client never reads; once the system's"
  echo "  TCP buffer memory stops growing, memory tied up = its growth (/proc/net/sockstat \"mem\" pages:"
  echo "  every socket, the client's and destination's too) + the proxy's RSS growth + bytes waiting in"
  echo "  the proxy's pipes (read through pidfd_getfd), per download. The direct column is the client's"
  echo "  and destination's part alone. SOCKS5 for the SOCKS5 proxies, HTTP GET for tinyproxy."
  echo "- **Unfinished headers**: each client sends an HTTP proxy request whose header block has 2 KiB,"
  echo "  then (once those clients have gone) 60 KiB, and never ends; 1 s after the last one, the proxy's"
  echo "  RSS growth over just before, per client, and the system's TCP buffer memory growth per client"
  echo "  (what the proxy has not read waits there)."
  echo "- **RSS once every client has gone**: the proxy's RSS (all processes) 1 s after the last run of"
  echo "  the unfinished headers, and 1 s after the bystander test, the last of the load tests."
  echo
  cat "$WORK/table.md"
  if [ -s "$WEB_TSV" ]; then  # unless the HTTP groups did not run
    echo
    echo "## HTTP keep-alive and page load"
    echo
    echo "An nginx origin (one worker, keep-alive) on 127.0.0.2 serves a 100-byte and a 20 KB file, and a"
    echo "page on 127.0.0.2, 127.0.0.3 and 127.0.0.4 with 40 images (1x1 PNG) and 20 async scripts (8 KB)"
    echo "spread over the three. zrt-proxy runs a second instance here (with --metrics, a DNS server on a"
    echo "loopback port where nothing answers and --allow-destination 127.0.0.0/8); Squid runs with keep-alive"
    echo "on both sides, no cache (\"cache deny all\", no cache_dir), listening on 127.0.0.1 only."
    echo "- **ab**: \`ab -k -r -c C -n N -X 127.0.0.1:PORT\` (no -X for direct); requests/s as ab reports it;"
    echo "  failed = ab's failed requests plus non-2xx answers. A proxy without client keep-alive makes ab"
    echo "  reconnect for each request."
    echo "- **Page load**: headless Chromium with a new profile (\`--headless --no-sandbox --disable-gpu"
    echo "  --disable-quic --no-first-run --disable-background-networking --disable-component-update"
    echo "  --disable-sync\`, \`--proxy-server=http://127.0.0.1:PORT --proxy-bypass-list=<-loopback>\` so that"
    echo "  loopback goes through the proxy, and host-resolver rules that fail every name) loads the page"
    echo "  with \`--dump-dom\`; the page writes performance.now() at its load event into the DOM. Connections:"
    echo "  zrt-proxy's zrtproxy_connections_total before and after (every accepted connection); Squid's"
    echo "  distinct client address:port pairs in its access log (connections that carried a request);"
    echo "  direct: distinct nginx connection numbers."
    echo
    cat "$WORK/web.md"
  fi
} >"$WORK/results.md"
cat "$WORK/results.md"
if [ -n "$OUT" ]; then
  cp "$WORK/results.md" "$OUT"
  log "results written to $OUT"
fi
if [ "$BENCH_RC" != 0 ]; then
  log "a run of the direct path or of zrt-proxy failed (exit $BENCH_RC)"
  exit "$BENCH_RC"
fi
