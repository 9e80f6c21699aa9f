# shellcheck shell=bash
# Sourced by run.sh: HTTP keep-alive (ab) and page load (headless Chromium) against an nginx
# origin on 127.0.0.2-4, through zrt-proxy, Squid and tinyproxy, beside the direct path. Uses
# run.sh's WORK, PIDS, PROXIES, QUICK, RUNS, PEERS, TESTS, OURS_BIN, TOOLS, NOTES, log, freeport,
# start_proxy.
# Figures go to $WORK/web.tsv as "KEY<TAB>BETTER<TAB>LABEL<TAB>COLUMN<TAB>VALUE" lines for
# `zrt-loadgen table`; a group whose tools are missing is left out with a note.

WEB_TSV=""
WEB_TARGETS=()  # NAME:PORT, the proxies of these groups ("direct" has no port)
ZRT_METRICS=""

web_note() { printf 'note\t%s\n' "$*" >>"$WEB_TSV"; }
web_figure() { printf '%s\t%s\t%s\t%s\t%s\n' "$@" >>"$WEB_TSV"; }

web_install() {  # COMMAND:PACKAGE... : installs the packages of missing commands, as root in a full run
  local missing=() pair
  for pair in "$@"; do command -v "${pair%%:*}" >/dev/null || missing+=("${pair#*:}"); done
  [ ${#missing[@]} = 0 ] && return 0
  if [ "$QUICK" = 1 ] || [ "$(id -u)" != 0 ]; then return 0; fi
  log "installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >&2 ||
    { apt-get update -qq >&2 && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >&2; } ||
    log "could not install ${missing[*]}"
}

# --- the origin: a 100-byte and a 20 KB file for ab, a page of 60 resources on three addresses --
web_origin() {
  ORIGIN_PORT=$(freeport)
  PAGE_PORT=$(freeport)
  mkdir -p "$WORK/www/img" "$WORK/www/js" "$WORK/nginx-tmp"
  head -c 100 /dev/zero | tr '\0' 'a' >"$WORK/www/100b"
  head -c 20000 /dev/zero | tr '\0' 'b' >"$WORK/www/20k"
  local png i host
  png='iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg=='
  {
    echo '<!doctype html><html><head><title>bench page</title></head><body><pre id="result">pending</pre>'
    for i in $(seq 0 59); do
      host="127.0.0.$(( 2 + i % 3 ))"
      if [ $(( i % 3 )) = 2 ]; then
        echo "<script async src=\"http://$host:$PAGE_PORT/js/$i.js\"></script>"
        { echo "window.scriptsRun = (window.scriptsRun || 0) + 1;"
          head -c 8000 /dev/zero | tr '\0' 'x' | sed 's/^/\/\/ /'; echo; } >"$WORK/www/js/$i.js"
      else
        echo "<img src=\"http://$host:$PAGE_PORT/img/$i.png\" width=\"8\" height=\"8\">"
        echo "$png" | base64 -d >"$WORK/www/img/$i.png"
      fi
    done
    # The load time as the page saw it, written where --dump-dom shows it.
    echo '<script>window.addEventListener("load", function () {'
    echo '  var images = Array.prototype.filter.call(document.images, function (i) { return i.naturalWidth > 0; });'
    echo '  document.getElementById("result").textContent = "LOADMS=" + Math.round(performance.now()) +'
    echo '    " LOADED=" + (images.length + (window.scriptsRun || 0));'
    echo '});</script></body></html>'
  } >"$WORK/www/page.html"
  cat >"$WORK/nginx.conf" <<EOF
# One process, so run.sh's CPU accounting sees all of it.
master_process off;
worker_processes 1;
user nobody nogroup;
pid $WORK/logs/nginx.pid;
error_log $WORK/logs/nginx-error.log;
events { worker_connections 8192; }
http {
  access_log off;
  keepalive_timeout 60;
  keepalive_requests 1000000;
  client_body_temp_path $WORK/nginx-tmp/body;
  proxy_temp_path $WORK/nginx-tmp/proxy;
  fastcgi_temp_path $WORK/nginx-tmp/fastcgi;
  uwsgi_temp_path $WORK/nginx-tmp/uwsgi;
  scgi_temp_path $WORK/nginx-tmp/scgi;
  types { text/html html; image/png png; application/javascript js; }
  default_type application/octet-stream;
  log_format conn '\$connection \$remote_addr:\$remote_port \$request_uri';
  server { listen 127.0.0.2:$ORIGIN_PORT; root $WORK/www; }
  server {
    listen 127.0.0.2:$PAGE_PORT; listen 127.0.0.3:$PAGE_PORT; listen 127.0.0.4:$PAGE_PORT;
    root $WORK/www;
    access_log $WORK/logs/page-access.log conn;
  }
}
EOF
  nginx -c "$WORK/nginx.conf" -g 'daemon off;' >"$WORK/logs/nginx.log" 2>&1 &
  PIDS+=($!)
  if ! "$TOOLS/zrt-loadgen" wait "127.0.0.2:$ORIGIN_PORT" 10 >/dev/null 2>&1 ||
     ! "$TOOLS/zrt-loadgen" wait "127.0.0.4:$PAGE_PORT" 10 >/dev/null 2>&1; then
    log "nginx did not start:"
    tail -5 "$WORK/logs/nginx.log" "$WORK/logs/nginx-error.log" >&2 || true
    return 1
  fi
  log "nginx origin on 127.0.0.2:$ORIGIN_PORT, page on 127.0.0.2-4:$PAGE_PORT"
}

# --- the proxies --------------------------------------------------------------------------------
web_start() {  # NAME PORT COMMAND... : start_proxy, and whether it came up
  local count=${#PROXIES[@]}
  start_proxy "$1" - "$2" "$1" "${@:3}"
  [ "${#PROXIES[@]}" -gt "$count" ]
}

web_proxies() {
  WEB_TARGETS=(direct)
  local port opts=()
  if [ -n "$OURS_BIN" ]; then
    port=$(freeport)
    local mport
    mport=$(freeport)
    # Its own instance: metrics for the connection count, no name lookups (a DNS server on a
    # loopback port where nothing answers) and no destination off loopback, whatever the browser asks.
    opts=(--port "$port" --listen 127.0.0.1 --metrics "127.0.0.1:$mport" --dns-server 127.0.0.1:9
          --allow-destination 127.0.0.0/8)
    if "$OURS_BIN" --help 2>&1 | grep -q -- '--http-keep-alive'; then
      opts+=(--http-keep-alive 60)
      NOTES+=("zrt-proxy ran the keep-alive and page-load groups with --http-keep-alive 60.")
    else
      NOTES+=("zrt-proxy has no --http-keep-alive option at this commit: it closes each HTTP client after one request.")
    fi
    if web_start zrt-proxy-web "$port" "$OURS_BIN" "${opts[@]}"; then
      WEB_TARGETS+=("zrt-proxy:$port")
      ZRT_METRICS="127.0.0.1:$mport"
    fi
  fi
  if [ "$PEERS" = 1 ] && command -v squid >/dev/null; then
    port=$(freeport)
    cat >"$WORK/squid.conf" <<EOF
http_port 127.0.0.1:$port
acl bench_clients src 127.0.0.0/8
acl loopback_urls url_regex ^http://127\\.[0-9]+\\.[0-9]+\\.[0-9]+(:[0-9]+)?/
http_access deny !loopback_urls
http_access allow bench_clients
http_access deny all
cache deny all
cache_mem 8 MB
client_persistent_connections on
server_persistent_connections on
dns_nameservers 127.0.0.1
visible_hostname zrt-bench
via off
forwarded_for delete
max_filedescriptors 16384
shutdown_lifetime 1 seconds
cache_effective_user proxy
pinger_enable off
pid_filename $WORK/logs/squid.pid
cache_log $WORK/logs/squid-cache.log
logformat bench %>a:%>p %rm %ru %>Hs
access_log stdio:$WORK/logs/squid-access.log logformat=bench buffer-size=64KB
coredump_dir $WORK/logs
EOF
    web_start squid "$port" squid -N -f "$WORK/squid.conf" && WEB_TARGETS+=("squid:$port")
  elif [ "$PEERS" = 1 ]; then
    web_note "Squid is not installed: its columns are empty."
  fi
  local t
  for t in "${PROXIES[@]}"; do
    case "$t" in tinyproxy:*) WEB_TARGETS+=("tinyproxy:$(echo "$t" | cut -d: -f4)") ;; esac
  done
}

# --- HTTP keep-alive: ab -k through each proxy --------------------------------------------------
ab_once() {  # TARGET CLIENTS FILE REQUESTS : prints "RATE FAILED" (nan nan when ab failed)
  local name=${1%%:*} port=${1#*:} proxy=()
  [ "$name" != direct ] && proxy=(-X "127.0.0.1:$port")
  local out
  if out=$(timeout 120 ab -k -r -q -s 10 -c "$2" -n "$4" "${proxy[@]}" "http://127.0.0.2:$ORIGIN_PORT/$3" 2>&1); then
    echo "$out" | awk '/^Requests per second:/{rate=$4} /^Failed requests:/{failed+=$3}
      /^Non-2xx responses:/{failed+=$3} END{if (rate == "") print "nan nan"; else print rate, failed + 0}'
  else
    echo "nan nan"
  fi
}

web_keepalive() {
  local requests=$1 run file clients t rate failed key what
  for run in $(seq 1 "$RUNS"); do
    for file in 100b 20k; do
      for clients in 16 64; do
        key="ka-$file-$clients"
        what="ab -k -c $clients, $requests requests for a $([ "$file" = 100b ] && echo 100-byte || echo 20 KB) file"
        for t in "${WEB_TARGETS[@]}"; do
          # Through a file, not a process substitution: the shell then reaps ab and counts its CPU.
          ab_once "$t" "$clients" "$file" "$requests" >"$WORK/ab.out"
          read -r rate failed <"$WORK/ab.out"
          web_figure "$key-rate" higher "$what (requests/s)" "${t%%:*}" "$rate"
          web_figure "$key-failed" lower "$what: failed or not 2xx (requests)" "${t%%:*}" "$failed"
          log "[keep-alive $file c=$clients] run $run ${t%%:*}: $rate requests/s, $failed failed"
        done
      done
    done
  done
}

# --- page load: headless Chromium, 60 resources from 3 hosts ---------------------------------
zrt_connections() {
  curl -s --noproxy '*' --max-time 5 "http://$ZRT_METRICS/metrics" |
    awk '$1 == "zrtproxy_connections_total" {print $2; found=1} END{if (!found) print "nan"}'
}

page_once() {  # TARGET : prints "MS LOADED CONNECTIONS"
  local name=${1%%:*} port=${1#*:} profile proxy=() before=0 ms loaded conns
  profile=$(mktemp -d "$WORK/chromium.XXXXXX")
  # Loopback is not proxied unless <-loopback> says so; no host name is ever resolved.
  [ "$name" != direct ] && proxy=(--proxy-server="http://127.0.0.1:$port" --proxy-bypass-list='<-loopback>')
  case "$name" in
    zrt-proxy) before=$(zrt_connections) ;;
    squid) before=$(wc -l <"$WORK/logs/squid-access.log" 2>/dev/null || echo 0) ;;
    direct) before=$(wc -l <"$WORK/logs/page-access.log" 2>/dev/null || echo 0) ;;
  esac
  timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync \
    --host-resolver-rules='MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE 127.0.0.2, EXCLUDE 127.0.0.3, EXCLUDE 127.0.0.4' --user-data-dir="$profile" "${proxy[@]}" \
    --dump-dom "http://127.0.0.2:$PAGE_PORT/page.html" >"$profile.dom" 2>"$profile.err" || true
  ms=$(sed -n 's/.*LOADMS=\([0-9]*\).*/\1/p' "$profile.dom" | head -1)
  loaded=$(sed -n 's/.*LOADED=\([0-9]*\).*/\1/p' "$profile.dom" | head -1)
  sleep 0.5  # the logs and counters catch up with the last requests
  case "$name" in
    zrt-proxy) conns=$(awk -v a="$before" -v b="$(zrt_connections)" 'BEGIN{print (a == "nan" || b == "nan") ? "nan" : b - a}') ;;
    squid) conns=$(tail -n +"$(( before + 1 ))" "$WORK/logs/squid-access.log" | awk '{print $1}' | sort -u | wc -l) ;;
    direct) conns=$(tail -n +"$(( before + 1 ))" "$WORK/logs/page-access.log" | awk '{print $1}' | sort -u | wc -l) ;;
    *) conns=nan ;;
  esac
  rm -rf "$profile"
  echo "${ms:-nan} ${loaded:-0} $conns"
}

web_pageload() {
  local run t name ms loaded conns label="Page of 60 resources (40 images, 20 scripts) from 3 hosts, headless Chromium"
  for run in $(seq 1 "$RUNS"); do
    for t in "${WEB_TARGETS[@]}"; do
      name=${t%%:*}
      [ "$name" = tinyproxy ] && continue
      page_once "$t" >"$WORK/page.out"
      read -r ms loaded conns <"$WORK/page.out"
      [ "$loaded" = 60 ] || { web_note "$name, page load run $run: $loaded of 60 resources loaded."; ms=nan; }
      web_figure page-ms lower "$label: load time (ms)" "$name" "$ms"
      web_figure page-conns lower "$label: connections the browser opened (to the proxy; direct: to the origins)" "$name" "$conns"
      log "[page load] run $run $name: $ms ms, $loaded resources, $conns connections"
    done
  done
}

# Before the measurements start: ab and nginx always, Squid with the peers, Chromium in a full run.
web_packages() {
  web_install ab:apache2-utils nginx:nginx-light
  if [ "$PEERS" = 1 ]; then web_install squid:squid; fi
  if [ "$QUICK" = 0 ]; then web_install chromium:chromium; fi
}

web_run() {
  WEB_TSV="$WORK/web.tsv"
  : >"$WEB_TSV"
  if ! command -v nginx >/dev/null || ! command -v ab >/dev/null; then
    NOTES+=("The keep-alive and page-load groups were skipped: nginx or ab (apache2-utils) is missing.")
    return 0
  fi
  case ",$TESTS," in *,keepalive,* | *,page,*) ;; *) return 0 ;; esac
  web_origin || { NOTES+=("The keep-alive and page-load groups were skipped: nginx did not start."); return 0; }
  web_proxies
  case ",$TESTS," in
    *,keepalive,*) if [ "$QUICK" = 1 ]; then web_keepalive 2000; else web_keepalive 10000; fi ;;
  esac
  case ",$TESTS," in *,page,*) ;; *) return 0 ;; esac
  if [ "$QUICK" = 1 ]; then
    web_note "Page load with Chromium is left out of quick runs."
    return 0
  fi
  if ! command -v chromium >/dev/null; then
    web_note "Chromium is not installed: no page-load rows."
    return 0
  fi
  web_pageload
}
