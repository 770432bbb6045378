#!/usr/bin/env bash
# Transport benchmark: ZRBURLSession against plain libcurl, side by side in the same run, both
# talking to one nginx on loopback. Prints one table of baseline, ours and their ratio per case.
# The "json" cases are the third side: GETs of a 200-byte JSON body through ZRBHS_HTTPSessionManager
# (JSON response serializer, completion queue) against libcurl parsing each body with the same JSON
# library; in those rows "ours" is the session manager.
# The "agent" cases run the json GETs as request objects through the network agent; over HTTPS
# with the agent's own pinning on and a warm hash cache. Their baseline is the json case's, and an
# "extra CPU" row gives the agent's CPU per request over the session manager's (the json row's
# "ours") in microseconds.
# Every side of a case sends the same request, byte for byte; one probe request per side checks it
# (nginx logs their lengths) and a mismatch stops the run. In the json and agent cases that request
# is the one the session manager and the agent really send: their request serializer's default
# fields (Accept-Language, and a User-Agent made from an information map this script writes, so
# that both programs have the same one), which transport_manager prints and the baseline sends as
# plain header lines, then the transport's Accept-Encoding. So our cost of those fields shows
# against libcurl's cost of sending the same lines. Over HTTPS the three sides all ask for the
# pinned name (bench.example.com, resolved to 127.0.0.1), so that their Host fields agree too.
# The "pinned" cases are HTTPS GETs to the pinned name through the shared pin guard's delegate
# proxy with a warm hash cache, against the same session program without pinning: in those rows
# "curl" is the unpinned session. Notes give the handshakes (server-trust decisions) each side
# needed.
#
#   bench/transport/run.sh [BUILD_DIR]
#
# Environment (for shorter runs):
#   BENCH_REQUESTS     small GETs per concurrency case (default 20000)
#   BENCH_CONCURRENCY  concurrency cases (default "1 16 64")
#   BENCH_BIG_BYTES    size of the download and of the upload (default 1 GiB)
#   BENCH_ROUNDS       runs of each side per request case, alternating; the best counts (default 5:
#                      a run takes well under a second, so a stray pause elsewhere weighs a lot)
#   BENCH_BIG_ROUNDS   the same for the download and the upload (default 3)
#   BENCH_RUN_TIMEOUT  seconds one run may take before it counts as failed (default 300)
#
# nginx runs as the current user from a throw-away directory (configuration, TLS key and
# certificates, files, logs), which is removed on exit. Only 127.0.0.1 is used.
set -euo pipefail

build="$(cd "${1:-build}" && pwd)"
requests="${BENCH_REQUESTS:-20000}"
concurrency="${BENCH_CONCURRENCY:-1 16 64}"
big_bytes="${BENCH_BIG_BYTES:-1073741824}"
request_rounds="${BENCH_ROUNDS:-5}"
big_rounds="${BENCH_BIG_ROUNDS:-3}"
run_timeout="${BENCH_RUN_TIMEOUT:-300}"

baseline_program="$build/bench/transport/transport_curl"
our_program="$build/bench/transport/transport_session"
manager_program="$build/bench/transport/transport_manager"
agent_program="$build/bench/transport/transport_agent"
[ -x "$agent_program" ] || agent_program=""
nginx_program="$(command -v nginx || true)"
[ -n "$nginx_program" ] || nginx_program=/usr/sbin/nginx
if [ ! -x "$nginx_program" ]; then
  echo "transport bench: nginx is not installed (scripts/install-deps.sh installs it)" >&2
  exit 1
fi
if [ ! -x "$baseline_program" ]; then
  echo "transport bench: $baseline_program is missing; build the transport_curl target" >&2
  exit 1
fi
if [ ! -x "$manager_program" ]; then
  echo "transport bench: $manager_program is not built; the json cases measure the baseline only" >&2
  manager_program=""
fi
if [ ! -x "$our_program" ]; then
  echo "transport bench: $our_program is not built; only the baseline is measured" >&2
  our_program=""
fi

work="$(mktemp -d "${TMPDIR:-/tmp}/orvelkit-transport.XXXXXX")"
nginx_pid=""
cleanup() {
  if [ -n "$nginx_pid" ] && kill -0 "$nginx_pid" 2>/dev/null; then
    kill -QUIT "$nginx_pid" 2>/dev/null || true
    wait "$nginx_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---- throw-away PKI: a CA and a server certificate for 127.0.0.1 and localhost ----
pki="$work/pki"
mkdir -p "$pki"
# The CA's key is RSA 2048: the agent's pinning pins keys of that kind (the CA's here).
openssl req -x509 -newkey rsa:2048 -nodes -days 2 \
  -keyout "$pki/ca.key" -out "$pki/ca.pem" -subj "/CN=orvelkit transport bench CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
  2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes \
  -keyout "$pki/server.key" -out "$pki/server.csr" -subj "/CN=localhost" 2>/dev/null
printf '%s\n' "subjectAltName=IP:127.0.0.1,DNS:localhost,DNS:bench.example.com" "basicConstraints=CA:FALSE" \
  "keyUsage=critical,digitalSignature" "extendedKeyUsage=serverAuth" >"$pki/server.ext"
openssl x509 -req -in "$pki/server.csr" -CA "$pki/ca.pem" -CAkey "$pki/ca.key" -CAcreateserial \
  -days 2 -extfile "$pki/server.ext" -out "$pki/server.pem" 2>/dev/null

# The pinning configuration of the pinned cases: the server key's pin and a spare, the CA an extra
# anchor, no reports.
server_pin="$(openssl x509 -in "$pki/server.pem" -pubkey -noout | openssl pkey -pubin -outform der |
  openssl dgst -sha256 -binary | base64)"
ca_json="$(awk '{printf "%s\\n", $0}' "$pki/ca.pem")"
cat >"$pki/pinning.json" <<EOF
{"PGDSwizzleNetworkDelegates": true, "PGDPinnedDomains": {"example.com": {
  "PGDIncludeSubdomains": true, "PGDPublicKeyAlgorithms": ["PGDAlgorithmEcDsaSecp256r1"],
  "PGDPublicKeyHashes": ["$server_pin", "$(head -c 32 /dev/zero | base64)"],
  "PGDAdditionalTrustAnchors": ["$ca_json"], "PGDDisableDefaultReportUri": true}}}
EOF

# The main bundle's information map of our json sides: their default User-Agent comes from it.
cat >"$work/Info.plist" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleExecutable</key><string>transport_bench</string>
<key>CFBundleShortVersionString</key><string>1.0</string>
</dict></plist>
EOF
export ORVELKIT_INFO_PLIST="$work/Info.plist"

# ---- content: the big file is sparse, so it costs neither disk nor time to make ----
mkdir -p "$work/www" "$work/logs" "$work/out"
truncate -s "$big_bytes" "$work/www/big.bin"
small_body="$(head -c 200 /dev/zero | tr '\0' 'x')"
# A JSON object of exactly 200 bytes: a few fields of each kind, padded with a string.
json_head='{"id":1234567,"name":"transport bench","active":true,"ratio":0.75,"tags":["a","b","c"],"owner":null,"pad":"'
json_pad="$(head -c $((200 - ${#json_head} - 2)) /dev/zero | tr '\0' 'x')"
json_body="$json_head$json_pad\"}"

write_config() {
  local http_port="$1" https_port="$2" user_line=""
  # A master started as root would hand the worker to "nobody", which cannot read the work dir.
  if [ "$(id -u)" -eq 0 ]; then user_line="user root;"; fi
  cat >"$work/nginx.conf" <<EOF
$user_line
worker_processes 1;
daemon off;
pid $work/nginx.pid;
error_log $work/logs/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  client_body_temp_path $work/body;
  proxy_temp_path $work/proxy;
  fastcgi_temp_path $work/fastcgi;
  uwsgi_temp_path $work/uwsgi;
  scgi_temp_path $work/scgi;
  sendfile on;
  tcp_nopush on;
  keepalive_timeout 300s;
  keepalive_requests 100000000;
  client_max_body_size 2g;
  # One line per upload: how many bytes nginx really read, checked after each upload case.
  log_format upload '\$request_length \$status';
  # The length of each side's request, to check that both send the same one.
  log_format probe '\$request_length';
  server {
    listen 127.0.0.1:$http_port;
    listen 127.0.0.1:$https_port ssl http2;
    ssl_certificate $pki/server.pem;
    ssl_certificate_key $pki/server.key;
    root $work/www;
    location = /small {
      default_type application/octet-stream;
      return 200 "$small_body";
    }
    location = /small.json {
      default_type application/json;
      return 200 '$json_body';
    }
    location = /probe.json {
      access_log $work/logs/probe.log probe;
      default_type application/json;
      return 200 '$json_body';
    }
    location = /probe {
      access_log $work/logs/probe.log probe;
      default_type application/octet-stream;
      return 200 "$small_body";
    }
    location = /big.bin {
      default_type application/octet-stream;
    }
    # A plain "return 200" would answer before the body arrives and drop the rest unread. The
    # mirror makes nginx read the whole body first (into a temp file that is deleted right away);
    # the static handler then refuses POST, which is turned into the 200.
    location = /upload {
      access_log $work/logs/upload.log upload;
      client_body_buffer_size 1m;
      mirror /discard;
      mirror_request_body on;
      log_not_found off;
      error_page 404 405 =200 @uploaded;
    }
    location @uploaded {
      access_log $work/logs/upload.log upload;
      default_type text/plain;
      return 200 "ok\n";
    }
    location = /discard {
      internal;
      return 204;
    }
  }
}
EOF
}

port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# ---- start nginx on two free ports (retried with other ports when one is taken) ----
for _ in 1 2 3 4 5 6 7 8; do
  http_port=$((20000 + RANDOM % 20000))
  https_port=$((http_port + 1))
  if port_open "$http_port" || port_open "$https_port"; then continue; fi
  write_config "$http_port" "$https_port"
  "$nginx_program" -p "$work" -c "$work/nginx.conf" -e "$work/logs/error.log" &
  nginx_pid=$!
  for _ in $(seq 50); do
    if port_open "$http_port" && port_open "$https_port"; then break 2; fi
    kill -0 "$nginx_pid" 2>/dev/null || break
    sleep 0.1
  done
  kill "$nginx_pid" 2>/dev/null || true
  wait "$nginx_pid" 2>/dev/null || true
  nginx_pid=""
done
if [ -z "$nginx_pid" ]; then
  echo "transport bench: nginx did not start" >&2
  cat "$work/logs/error.log" >&2 || true
  exit 1
fi

http_url="http://127.0.0.1:$http_port"
https_url="https://127.0.0.1:$https_port"
pinned_url="https://bench.example.com:$https_port"
pinned_resolve="bench.example.com:$https_port:127.0.0.1"

# The json sides' default header fields, for the baseline to send as well.
header_lines=""
if [ -n "$manager_program" ]; then
  if ! header_lines="$("$manager_program" header-lines)"; then
    echo "transport bench: $manager_program header-lines failed" >&2
    exit 1
  fi
fi

# ---- measuring ----
# value KEY LINE: the number after KEY= in a report line.
value() { tr ' ' '\n' <<<"$2" | sed -n "s/^$1=//p"; }

# run SIDE ARGS...: one report line, or "failed" (the program's error goes to stderr).
run() {
  local program="$1"
  shift
  if [ -z "$program" ]; then
    echo "absent"
    return
  fi
  local line
  # A program that hangs fails its case instead of stopping the whole run.
  if line="$(timeout "$run_timeout" "$program" "$@" 2>"$work/logs/program.err")"; then
    echo "$line"
  else
    echo "transport bench: $(basename "$program") $*: $(tail -n 3 "$work/logs/program.err")" >&2
    echo "failed"
  fi
}

# check_upload SIDE: nginx must have read the whole body of the last upload (the log is emptied
# before each one). Its log line may come a moment after the client has its answer.
check_upload() {
  local length="" _
  for _ in $(seq 100); do
    length="$(head -n 1 "$work/logs/upload.log" 2>/dev/null | cut -d' ' -f1)"
    [ -z "$length" ] || break
    sleep 0.05
  done
  if [ -z "$length" ] || [ "$length" -lt "$big_bytes" ]; then
    echo "transport bench: $1 upload: nginx read ${length:-no} request bytes, expected $big_bytes+" >&2
    return 1
  fi
}

# check_download SIDE: the whole body arrived; then the copy goes.
download_file="$work/out/download.bin"
check_download() {
  local size
  size="$(stat -c %s "$download_file" 2>/dev/null || echo 0)"
  rm -f "$download_file"
  if [ "$size" -ne "$big_bytes" ]; then
    echo "transport bench: $1 download: the file has $size bytes, expected $big_bytes" >&2
    return 1
  fi
}

# measure_json ROUNDS ARGS...: as measure, for the json cases: the baseline (sending the json
# sides' header lines) against the manager, and with WITH_AGENT=1 the agent too, into agent_lines.
measure_json() {
  local rounds="$1" side
  shift
  baseline_lines=()
  our_lines=()
  agent_lines=()
  for _ in $(seq "$rounds"); do
    for side in curl manager agent; do
      case "$side" in
        curl) baseline_lines+=("$(run_json "$baseline_program" "$@")") ;;
        manager) our_lines+=("$(run_json "$manager_program" "$@")") ;;
        agent) if [ "${WITH_AGENT:-0}" = 1 ]; then agent_lines+=("$(run_json "$agent_program" "$@")"); fi ;;
      esac
    done
  done
}

# run_json PROGRAM ARGS...: run for a json side, with what every json side gets: the header lines
# (only the baseline reads them), the pinned name's address and the agent's hash cache.
run_json() {
  local program="$1"
  shift
  if [ -z "$program" ]; then
    echo "absent"
    return
  fi
  run env "BENCH_HEADER_LINES=$header_lines" "BENCH_RESOLVE=$pinned_resolve" "XDG_CACHE_HOME=$work/cache" \
    "$program" "$@"
}

# measure ROUNDS CHECK ARGS...: runs the baseline and ours ROUNDS times each, alternating so that
# both see the same machine, and leaves the report lines in baseline_lines and our_lines.
measure() {
  local rounds="$1" check="$2" line side
  shift 2
  baseline_lines=()
  our_lines=()
  for _ in $(seq "$rounds"); do
    for side in curl session; do
      if [ "$check" = check_upload ]; then : >"$work/logs/upload.log"; fi
      if [ "$side" = curl ]; then line="$(run "$baseline_program" "$@")"; else line="$(run "$our_program" "$@")"; fi
      if [ "$check" != none ] && [ "$line" != absent ] && [ "$line" != failed ]; then
        "$check" "$side" || line="failed"
      fi
      if [ "$side" = curl ]; then baseline_lines+=("$line"); else our_lines+=("$line"); fi
    done
  done
}

# measure_pinned ROUNDS ARGS...: the session program without and with pinning, alternating; the
# unpinned lines go to baseline_lines.
measure_pinned() {
  local rounds="$1"
  shift
  baseline_lines=()
  our_lines=()
  [ -n "$our_program" ] || return 0
  for _ in $(seq "$rounds"); do
    baseline_lines+=("$(run env "BENCH_RESOLVE=$pinned_resolve" "$our_program" "$@")")
    our_lines+=("$(run env "BENCH_RESOLVE=$pinned_resolve" "BENCH_PINNING_CONFIG=$pki/pinning.json" \
      "XDG_CACHE_HOME=$work/cache" "$our_program" "$@")")
  done
}

# best KEY max|min LINE...: the best value of KEY over the rounds; empty when a round failed.
best() {
  local key="$1" order="$2" line v values=()
  shift 2
  for line in "$@"; do
    v="$(value "$key" "$line")"
    if [ -z "$v" ]; then return; fi
    values+=("$v")
  done
  if [ "$order" = max ]; then printf '%s\n' "${values[@]}" | sort -g | tail -n 1; else
    printf '%s\n' "${values[@]}" | sort -g | head -n 1; fi
}

notes=()
# same_protocol CASE: notes a case where the two sides spoke different HTTP versions.
same_protocol() {
  local ours theirs
  theirs="$(value protocol "${baseline_lines[0]}" | sed 's/\.0$//')"
  ours="$(value protocol "${our_lines[0]}" | sed 's/\.0$//')"
  if [ -n "$theirs" ] && [ -n "$ours" ] && [ "$theirs" != "$ours" ]; then
    notes+=("$1: curl spoke $theirs, ours $ours")
  fi
}

# same_request CASE BASE CA...: one request of each side to /probe (/probe.json for the json
# sides), whose length nginx logs; a case whose sides send requests of different lengths stops the
# run, as its figures would compare different work.
same_request() {
  local name="$1" base="$2" lengths expected=0 program
  shift 2
  : >"$work/logs/probe.log"
  if [ "${name% json}" != "$name" ]; then
    for program in "$baseline_program" "$manager_program" "$agent_program"; do
      [ -n "$program" ] || continue
      expected=$((expected + 1))
      run_json "$program" json-requests "$base/probe.json" 1 1 "$@" >/dev/null
    done
  else
    [ -n "$our_program" ] || return 0
    expected=2
    run "$baseline_program" requests "$base/probe" 1 1 "$@" >/dev/null
    run "$our_program" requests "$base/probe" 1 1 "$@" >/dev/null
  fi
  [ "$expected" -ge 2 ] || return 0
  # A log line may come a moment after the client has its answer.
  for _ in $(seq 100); do
    [ "$(wc -l <"$work/logs/probe.log")" -lt "$expected" ] || break
    sleep 0.05
  done
  lengths="$(tr '\n' ' ' <"$work/logs/probe.log")"
  # shellcheck disable=SC2086 # numbers
  set -- $lengths
  if [ "$#" -ne "$expected" ] || [ "$(printf '%s\n' "$@" | sort -u | wc -l)" -ne 1 ]; then
    echo "transport bench: $name: the sides sent different requests (lengths, curl first:" \
      "${lengths:-none})" >&2
    exit 1
  fi
}

rows=()
# row CASE METRIC BASELINE OURS KIND TARGET
#   KIND "higher": ratio = ours/baseline, the target is a minimum ratio;
#   KIND "lower": ratio = ours/baseline, the target is a maximum ratio;
#   KIND "limit": no ratio, the target is a maximum for ours;
#   KIND "extra": no baseline and no ratio, ours is a difference to show.
row() { rows+=("$1|$2|$3|$4|$5|$6"); }

# Each figure is the best of the rounds (the highest rate, the lowest CPU time), except peak RSS,
# the highest.
status=0
for scheme in http https; do
  if [ "$scheme" = http ]; then base="$http_url"; ca=(); else base="$https_url"; ca=("$pki/ca.pem"); fi
  same_request "$scheme" "$base" "${ca[@]}"
  for c in $concurrency; do
    measure "$request_rounds" none requests "$base/small" "$requests" "$c" "${ca[@]}"
    same_protocol "$scheme c=$c"
    row "$scheme c=$c" "requests/s" "$(best requests_per_s max "${baseline_lines[@]}")" \
      "$(best requests_per_s max "${our_lines[@]}")" higher 0.9
    row "$scheme c=$c" "CPU us/request" "$(best cpu_us_per_request min "${baseline_lines[@]}")" \
      "$(best cpu_us_per_request min "${our_lines[@]}")" lower 1.2
  done
  json_base="$base"
  if [ "$scheme" = https ]; then json_base="$pinned_url"; fi
  same_request "$scheme json" "$json_base" "${ca[@]}"
  for c in $concurrency; do
    WITH_AGENT=0
    if [ -n "$agent_program" ]; then WITH_AGENT=1; fi
    measure_json "$request_rounds" json-requests "$json_base/small.json" "$requests" "$c" "${ca[@]}"
    same_protocol "$scheme c=$c json"
    row "$scheme c=$c json" "requests/s" "$(best requests_per_s max "${baseline_lines[@]}")" \
      "$(best requests_per_s max "${our_lines[@]}")" higher 0.9
    row "$scheme c=$c json" "CPU us/request" "$(best cpu_us_per_request min "${baseline_lines[@]}")" \
      "$(best cpu_us_per_request min "${our_lines[@]}")" lower 1.2
    if [ "${WITH_AGENT:-0}" = 1 ]; then
      agent_cpu="$(best cpu_us_per_request min "${agent_lines[@]}")"
      manager_cpu="$(best cpu_us_per_request min "${our_lines[@]}")"
      row "$scheme c=$c agent" "requests/s" "$(best requests_per_s max "${baseline_lines[@]}")" \
        "$(best requests_per_s max "${agent_lines[@]}")" higher 0.85
      row "$scheme c=$c agent" "CPU us/request" "$(best cpu_us_per_request min "${baseline_lines[@]}")" \
        "$agent_cpu" lower 1.35
      extra_cpu=""
      if [ -n "$agent_cpu" ] && [ -n "$manager_cpu" ]; then
        extra_cpu="$(awk -v a="$agent_cpu" -v m="$manager_cpu" 'BEGIN { printf "%.2f", a - m }')"
      fi
      row "$scheme c=$c agent" "extra CPU us/req" "" "$extra_cpu" extra ""
      if [ "$scheme" = https ]; then
        notes+=("https c=$c agent: handshakes per run $(value handshakes "${agent_lines[0]}")")
      fi
    fi
  done
done

for c in $concurrency; do
  measure_pinned "$request_rounds" requests "https://bench.example.com:$https_port/small" "$requests" "$c" \
    "$pki/ca.pem"
  row "https pinned c=$c" "requests/s" "$(best requests_per_s max "${baseline_lines[@]}")" \
    "$(best requests_per_s max "${our_lines[@]}")" higher 0.95
  row "https pinned c=$c" "CPU us/request" "$(best cpu_us_per_request min "${baseline_lines[@]}")" \
    "$(best cpu_us_per_request min "${our_lines[@]}")" lower 1.05
  notes+=("https pinned c=$c: handshakes per run, unpinned $(value handshakes "${baseline_lines[0]}"), pinned $(value handshakes "${our_lines[0]}")")
done

measure "$big_rounds" check_download download "$http_url/big.bin" "$download_file"
same_protocol download
row "download" "MB/s" "$(best mb_per_s max "${baseline_lines[@]}")" "$(best mb_per_s max "${our_lines[@]}")" \
  higher 1.5
row "download" "peak RSS MiB" "$(best peak_rss_kib max "${baseline_lines[@]}")" \
  "$(best peak_rss_kib max "${our_lines[@]}")" limit 64

measure "$big_rounds" check_upload upload "$http_url/upload" "$work/www/big.bin"
same_protocol upload
row "upload" "MB/s" "$(best mb_per_s max "${baseline_lines[@]}")" "$(best mb_per_s max "${our_lines[@]}")" \
  higher ""
row "upload" "peak RSS MiB" "$(best peak_rss_kib max "${baseline_lines[@]}")" \
  "$(best peak_rss_kib max "${our_lines[@]}")" limit 64

# ---- the table ----
echo
echo "transport: $requests requests per case (best of $request_rounds rounds), $big_bytes bytes down and up" \
  "(best of $big_rounds), nginx on 127.0.0.1"
printf '%s\n' "${rows[@]}" | awk -F'|' '
  function shown(v, kind) {
    if (v == "") return kind == "extra" ? "-" : "n/a";
    if (kind == "limit") return sprintf("%.1f", v / 1024);  # KiB -> MiB
    return sprintf("%.1f", v);
  }
  BEGIN {
    printf "%-17s %-16s %12s %12s %8s  %-18s %s\n", "case", "metric", "curl", "ours", "ratio", "target", "met"
  }
  {
    kind = $5; target = $6; ratio = "-"; met = "-"; goal = "-";
    if (kind == "higher" && target != "") goal = ">= " target "x";
    if (kind == "lower") goal = "<= " target "x";
    if (kind == "limit") goal = "ours < " target " MiB";
    if ((kind == "higher" || kind == "lower") && $3 != "" && $4 != "" && $3 > 0) {
      r = $4 / $3; ratio = sprintf("%.2f", r);
      if (target != "") met = (kind == "higher" ? (r >= target) : (r <= target)) ? "yes" : "NO";
    }
    if (kind == "limit" && $4 != "") met = ($4 / 1024 < target) ? "yes" : "NO";
    printf "%-17s %-16s %12s %12s %8s  %-18s %s\n", $1, $2, shown($3, kind), shown($4, kind), ratio, goal, met
  }'

for note in "${notes[@]}"; do echo "note: $note"; done

for r in "${rows[@]}"; do
  IFS='|' read -r _ _ baseline_value our_value kind _ <<<"$r"
  # An extra-CPU row has no baseline; its value is checked through the two rows it comes from.
  [ "$kind" = extra ] && continue
  [ -n "$baseline_value" ] || status=1
  [ -z "$our_program" ] || [ -z "$manager_program" ] || [ -n "$our_value" ] || status=1
done
exit $status
