#!/usr/bin/env bash
# bench/run.sh: the speed figures of clockette, side by side, in one run.
#
#   bash bench/run.sh            (BUILD_DIR=... to choose the build directory,
#                                 HASH_MIB, DOCS, TLS_DOCS to change the sizes)
#
# 1. Hashing a cached file (1 GiB): computeHash against the digest's own
#    limit on 1 MiB blocks in memory and against `openssl dgst -sha256`;
#    peak memory of a process that only hashes.
# 2. Documents per second in test mode (one-file documents, -jobs 1 and 2)
#    against the test Timestamp Server's own capacity, measured just before
#    by one client sending requests one after the other on a kept connection.
# 3. 20 documents of 8 files against a server that holds each answer 50 ms,
#    with the default TS_PARALLEL and with TS_PARALLEL=1.
# 4. HTTPS against HTTP, documents per second.
# 5. Under a KV (kvmini): the median time from a work order to its report,
#    against the median answer time of the server (holding answers 20 ms).
# Not a test: it prints figures and exits 0 unless something could not run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build-bench}
hash_mib=${HASH_MIB:-1024}
docs=${DOCS:-1000}
tls_docs=${TLS_DOCS:-300}

echo "== building in $build (Release, with benchmarks)"
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DCLOCKETTE_BENCH=ON >/dev/null
else
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCLOCKETTE_BENCH=ON \
    -DCLOCKETTE_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target clockette testtsa kvmini hash_bench -j 2 >/dev/null
clockette=$build/app/clockette
testtsa=$build/tools/testtsa/testtsa
kvmini=$build/tools/kvmini/kvmini

work=$(mktemp -d "${TMPDIR:-/tmp}/clockette-bench-XXXXXX")
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/config/setup" "$work/logs" "$work/pki"
export CONFIG=$work/config ZEPH_SRV_LOG=$work/logs
unset KV_PROTOCOL TS_PARALLEL LOGLEVEL TIMESTAMP_LOGIN TIMESTAMP_PASSWORD || true

now() { date +%s.%N; }
# ratio A B: A/B with two decimals
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
rate() { awk -v n="$1" -v s="$2" 'BEGIN { printf "%.0f", n / s }'; }

# start_tsa NAME ARGS...: runs testtsa, sets NAME_http and NAME_https (ports).
start_tsa() {
  local name=$1
  shift
  "$testtsa" --dir "$work/pki" --tcp-port -1 "$@" >"$work/$name.out" 2>/dev/null &
  pids+=($!)
  for _ in $(seq 200); do
    grep -qx ready "$work/$name.out" 2>/dev/null && break
    sleep 0.05
  done
  grep -qx ready "$work/$name.out" || { echo "testtsa did not start" >&2; exit 1; }
  printf -v "${name}_http" '%s' "$(sed -n 's/^http_port=//p' "$work/$name.out")"
  printf -v "${name}_https" '%s' "$(sed -n 's/^https_port=//p' "$work/$name.out")"
}

# make_docs DIR COUNT FILES: COUNT documents of FILES small files each.
make_docs() {
  local dir=$1 count=$2 files=$3 d f
  mkdir -p "$dir"
  for ((d = 0; d < count; d++)); do
    local doc
    doc=$(printf '%s/doc%05d' "$dir" "$d")
    mkdir "$doc"
    : >"$doc/COMMANDS"
    for ((f = 0; f < files; f++)); do
      echo "document $d file $f" >"$doc/f$f.txt"
      echo "TIMESTAMP_FILE f$f.txt f$f.tst" >>"$doc/COMMANDS"
    done
  done
}

# run_docs DIR PROTOCOL PORT [ARGS...]: seconds for clockette -test over DIR.
run_docs() {
  local dir=$1 protocol=$2 port=$3
  shift 3
  local start end
  start=$(now)
  if ! "$clockette" -test -testpath "$dir" -host 127.0.0.1 -port "$port" -protocol "$protocol" \
    -logfile clockette.log "$@" >"$work/test.out"; then
    echo "clockette -test failed:" >&2
    grep -v 'op=ok' "$work/test.out" | head >&2
    exit 1
  fi
  end=$(now)
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", b - a }'
}

echo "== machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
echo "   load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"

# --- 1. hashing ---
head -c $((hash_mib << 20)) /dev/urandom >"$work/big.bin"
cat "$work/big.bin" >/dev/null
declare -A h
while read -r key value; do h[$key]=$value; done < <("$build/bench/hash_bench" "$work/big.bin" 3)
best=
for _ in 1 2 3; do
  start=$(now)
  openssl dgst -sha256 "$work/big.bin" >/dev/null
  end=$(now)
  t=$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')
  if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN { exit !(t < b) }'; then best=$t; fi
done
openssl_mibs=$(rate "$hash_mib" "$best")
echo
echo "hashing a cached ${hash_mib} MiB file (SHA-256, best of 3):"
printf '  %-34s %8s MiB/s\n' "computeHash" "${h[hash_mibs]}" \
  "EVP limit (1 MiB blocks in memory)" "${h[evp_mibs]}" "openssl dgst -sha256" "$openssl_mibs"
printf '  %-34s %8s   (target >= 1.25)\n' "computeHash / openssl dgst" \
  "$(ratio "${h[hash_mibs]}" "$openssl_mibs")"
printf '  %-34s %8s   (1.00 is the limit)\n' "computeHash / EVP limit" \
  "$(ratio "${h[hash_mibs]}" "${h[evp_mibs]}")"
printf '  %-34s %8s MiB (target <= 16)\n' "peak RSS of a hashing process" \
  "$(awk -v k="${h[hash_maxrss_kib]}" 'BEGIN { printf "%.1f", k / 1024 }')"
rm -f "$work/big.bin"

# --- 2. documents per second against the server's capacity ---
start_tsa tsa
echo "a request" >"$work/req.data"
openssl ts -query -data "$work/req.data" -sha256 -cert -out "$work/req.tsq" 2>/dev/null
capacity_requests=$((docs / 2))
for ((i = 0; i < capacity_requests; i++)); do echo "url = \"http://127.0.0.1:$tsa_http/\""; done \
  >"$work/urls"
start=$(now)
curl -s -K "$work/urls" --data-binary @"$work/req.tsq" \
  -H 'Content-Type: application/timestamp-query' >/dev/null
end=$(now)
capacity=$(rate "$capacity_requests" "$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')")

make_docs "$work/one" "$docs" 1
t1=$(run_docs "$work/one" http "$tsa_http")
t2=$(run_docs "$work/one" http "$tsa_http" -jobs 2)
echo
echo "$docs one-file documents in test mode, HTTP on loopback:"
printf '  %-34s %8s answers/s\n' "testtsa capacity (1 client)" "$capacity"
printf '  %-34s %8s docs/s   %s of capacity (target >= 0.70)\n' "clockette -jobs 1" \
  "$(rate "$docs" "$t1")" "$(ratio "$(rate "$docs" "$t1")" "$capacity")"
printf '  %-34s %8s docs/s   %s of capacity\n' "clockette -jobs 2" "$(rate "$docs" "$t2")" \
  "$(ratio "$(rate "$docs" "$t2")" "$capacity")"

# --- 3. a far-away server ---
start_tsa slow --delay-ms 50
make_docs "$work/eight" 20 8
tp=$(run_docs "$work/eight" http "$slow_http")
ts=$(TS_PARALLEL=1 run_docs "$work/eight" http "$slow_http")
echo
echo "20 documents x 8 files, each answer held 50 ms:"
printf '  %-34s %8s s   (target <= 1.5)\n' "default TS_PARALLEL (8)" "$tp"
printf '  %-34s %8s s\n' "TS_PARALLEL=1" "$ts"

# --- 4. HTTPS against HTTP ---
make_docs "$work/tls" "$tls_docs" 1
th=$(run_docs "$work/tls" http "$tsa_http")
tt=$(run_docs "$work/tls" https "$tsa_https")
echo
echo "$tls_docs one-file documents, HTTPS against HTTP:"
printf '  %-34s %8s docs/s\n' "HTTP" "$(rate "$tls_docs" "$th")" "HTTPS" "$(rate "$tls_docs" "$tt")"
printf '  %-34s %8s   (target >= 0.8)\n' "HTTPS / HTTP" "$(ratio "$th" "$tt")"
# --- 5. order to report under a KV ---
start_tsa kvtsa --delay-ms 20
kv_docs=${KV_DOCS:-100}
make_docs "$work/kvq" "$kv_docs" 1
# The server's own answer time, on a kept connection as the worker has it.
for ((i = 0; i < 50; i++)); do
  printf 'url = "http://127.0.0.1:%s/"\noutput = "/dev/null"\n' "$kvtsa_http"
done >"$work/urls"
answer_ms=$(curl -s -K "$work/urls" --data-binary @"$work/req.tsq" \
  -H 'Content-Type: application/timestamp-query' -w '%{time_total}\n' |
  tail -n +2 | sort -n | awk '{ t[NR] = $1 } END { printf "%.1f", t[int((NR + 1) / 2)] * 1000 }')
# Every line of kvmini gets the time it was read.
"$kvmini" serve --bind 127.0.0.1 --port 0 --worker-host 127.0.0.1 --queue "$work/kvq" \
  --exit-on-bye </dev/null 2>&1 |
  while IFS= read -r line; do echo "$EPOCHREALTIME $line"; done >"$work/kv.out" &
pids+=($!)
for _ in $(seq 100); do
  grep -q ' kvmini listening' "$work/kv.out" 2>/dev/null && break
  sleep 0.1
done
kv_port=$(sed -n 's/^[0-9.]* kvmini listening port=\([0-9]*\).*/\1/p' "$work/kv.out")
[ -n "$kv_port" ] || { echo "kvmini did not start" >&2; exit 1; }
KVHOST=127.0.0.1 KVPORT=$kv_port "$clockette" -type clockette -logfile clockette.log \
  -host 127.0.0.1 -port "$kvtsa_http" &
worker=$!
pids+=($worker)
for _ in $(seq 1200); do
  grep -q ' QUEUE done' "$work/kv.out" && break
  kill -0 "$worker" 2>/dev/null || break
  sleep 0.1
done
kill -TERM "$worker" 2>/dev/null || true
wait "$worker" 2>/dev/null || true
order_ms=$(awk '$2 == "SEND" && $3 == "WORK" { sent = $1 }
  $2 == "OP" && sent != "" { printf "%.3f\n", ($1 - sent) * 1000; sent = "" }' "$work/kv.out" |
  sort -n | awk '{ t[NR] = $1 } END { if (NR == 0) print "none"; else print t[int((NR + 1) / 2)] }')
echo
echo "$kv_docs one-file documents under kvmini, each answer held 20 ms:"
printf '  %-34s %8s ms\n' "server answer time (median)" "$answer_ms" \
  "order to report (median)" "$order_ms"
printf '  %-34s %8s ms (target <= 2)\n' "difference" \
  "$(awk -v a="$order_ms" -v b="$answer_ms" 'BEGIN { printf "%.1f", a - b }')"
echo
echo "   load average at end: $(cut -d' ' -f1-3 /proc/loadavg)"
