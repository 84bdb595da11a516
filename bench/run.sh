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
# 6. System calls per one-file document (when strace is installed), and the
#    share of their time spent in fsync.
# Where the document trees live is printed: the work directory under TMPDIR
# (usually a disk), and for 2, 3 and 5 also a tree on tmpfs (/dev/shm; not
# with NO_TMPFS=1). Every document's timestamp files, their directory and
# its protocol are synced before the document counts as done; on a disk
# these waits dominate, on tmpfs they cost nothing. Both are printed, each
# under its file system; neither hides the other.
# Not a test: it prints figures and exits 0 unless something could not run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
hash_mib=${HASH_MIB:-1024}
docs=${DOCS:-1000}
tls_docs=${TLS_DOCS:-300}

# shellcheck source=bench/build-bench.sh
source "$root/bench/build-bench.sh"
build_bench clockette testtsa kvmini hash_bench
clockette=$build/app/clockette
testtsa=$build/tools/testtsa/testtsa
kvmini=$build/tools/kvmini/kvmini

work=$(mktemp -d "${TMPDIR:-/tmp}/clockette-bench-XXXXXX")
shm=
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
  [ -z "$shm" ] || rm -rf "$shm"
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

fs_of() { df --output=fstype "$1" 2>/dev/null | tail -1 | tr -d ' '; }
# The document trees: the work directory, and one on tmpfs when there is one.
trees=("$work")
if [ -z "${NO_TMPFS:-}" ] && [ "$(fs_of /dev/shm)" = tmpfs ] && [ -w /dev/shm ]; then
  shm=$(mktemp -d /dev/shm/clockette-bench-XXXXXX)
  trees+=("$shm")
fi
where() { echo "documents on $(fs_of "$1") ($1)"; }

echo "== machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
echo "   load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"
for tree in "${trees[@]}"; do echo "   $(where "$tree")"; done

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
# The server's answers per second to one client on a kept connection.
capacity() {
  local start end
  start=$(now)
  curl -s -K "$work/urls" --data-binary @"$work/req.tsq" \
    -H 'Content-Type: application/timestamp-query' >/dev/null
  end=$(now)
  rate "$capacity_requests" "$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')"
}

echo
echo "$docs one-file documents in test mode, HTTP on loopback:"
for tree in "${trees[@]}"; do
  make_docs "$tree/one" "$docs" 1
  capacity=$(capacity)
  t1=$(run_docs "$tree/one" http "$tsa_http")
  t2=$(run_docs "$tree/one" http "$tsa_http" -jobs 2)
  echo "  $(where "$tree"):"
  printf '    %-32s %8s answers/s\n' "testtsa capacity (1 client)" "$capacity"
  printf '    %-32s %8s docs/s   %s of capacity (target >= 0.70)\n' "clockette -jobs 1" \
    "$(rate "$docs" "$t1")" "$(ratio "$(rate "$docs" "$t1")" "$capacity")"
  printf '    %-32s %8s docs/s   %s of capacity\n' "clockette -jobs 2" "$(rate "$docs" "$t2")" \
    "$(ratio "$(rate "$docs" "$t2")" "$capacity")"
done

# --- 3. a far-away server ---
start_tsa slow --delay-ms 50
echo
echo "20 documents x 8 files, each answer held 50 ms:"
for tree in "${trees[@]}"; do
  make_docs "$tree/eight" 20 8
  tp=$(run_docs "$tree/eight" http "$slow_http")
  printf '  %-34s %8s s   (target <= 1.5)\n' "default TS_PARALLEL (8), $(fs_of "$tree")" "$tp"
done
ts=$(TS_PARALLEL=1 run_docs "$work/eight" http "$slow_http")
printf '  %-34s %8s s\n' "TS_PARALLEL=1, $(fs_of "$work")" "$ts"

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
# The server's own answer time, on a kept connection as the worker has it.
for ((i = 0; i < 50; i++)); do
  printf 'url = "http://127.0.0.1:%s/"\noutput = "/dev/null"\n' "$kvtsa_http"
done >"$work/urls"
answer_ms=$(curl -s -K "$work/urls" --data-binary @"$work/req.tsq" \
  -H 'Content-Type: application/timestamp-query' -w '%{time_total}\n' |
  tail -n +2 | sort -n | awk '{ t[NR] = $1 } END { printf "%.1f", t[int((NR + 1) / 2)] * 1000 }')
# order_to_report QUEUE: the median milliseconds from a work order to its
# report, for the documents of QUEUE handed out one at a time by kvmini.
order_to_report() {
  local queue=$1 out=$work/kv.out worker kv_port
  # Every line of kvmini gets the time it was read.
  "$kvmini" serve --bind 127.0.0.1 --port 0 --worker-host 127.0.0.1 --queue "$queue" \
    --exit-on-bye </dev/null 2>&1 |
    while IFS= read -r line; do echo "$EPOCHREALTIME $line"; done >"$out" &
  local kv=$!
  for _ in $(seq 100); do
    grep -q ' kvmini listening' "$out" 2>/dev/null && break
    sleep 0.1
  done
  kv_port=$(sed -n 's/^[0-9.]* kvmini listening port=\([0-9]*\).*/\1/p' "$out")
  [ -n "$kv_port" ] || { echo "kvmini did not start" >&2; exit 1; }
  KVHOST=127.0.0.1 KVPORT=$kv_port "$clockette" -type clockette -logfile clockette.log \
    -host 127.0.0.1 -port "$kvtsa_http" &
  worker=$!
  for _ in $(seq 1200); do
    grep -q ' QUEUE done' "$out" && break
    kill -0 "$worker" 2>/dev/null || break
    sleep 0.1
  done
  kill -TERM "$worker" 2>/dev/null || true
  wait "$worker" 2>/dev/null || true
  wait "$kv" 2>/dev/null || true
  awk '$2 == "SEND" && $3 == "WORK" { sent = $1 }
    $2 == "OP" && sent != "" { printf "%.3f\n", ($1 - sent) * 1000; sent = "" }' "$out" |
    sort -n | awk '{ t[NR] = $1 } END { if (NR == 0) print "none"; else print t[int((NR + 1) / 2)] }'
}
echo
echo "$kv_docs one-file documents under kvmini, each answer held 20 ms:"
printf '  %-34s %8s ms\n' "server answer time (median)" "$answer_ms"
for tree in "${trees[@]}"; do
  make_docs "$tree/kvq" "$kv_docs" 1
  order_ms=$(order_to_report "$tree/kvq")
  printf '  %-34s %8s ms, %s ms more (target <= 2)\n' \
    "order to report, $(fs_of "$tree")" "$order_ms" \
    "$(awk -v a="$order_ms" -v b="$answer_ms" 'BEGIN { printf "%.1f", a - b }')"
done

# --- 6. system calls per document ---
if command -v strace >/dev/null; then
  make_docs "$work/sys" 100 1
  strace -f -c -w -o "$work/strace.txt" "$clockette" -test -testpath "$work/sys" \
    -host 127.0.0.1 -port "$tsa_http" -protocol http -logfile clockette.log >/dev/null
  echo
  echo "system calls of 100 one-file documents ($(where "$work"), strace -f -c -w):"
  awk '$NF == "total" { calls = $4 } $NF == "fsync" { fsyncs = $4; share = $1 }
    END { printf "  %-34s %8.1f\n  %-34s %8.1f\n  %-34s %7.0f%%\n",
      "calls per document", calls / 100, "fsyncs per document", fsyncs / 100,
      "share of their time in fsync", share }' "$work/strace.txt"
fi

echo
echo "   load average at end: $(cut -d' ' -f1-3 /proc/loadavg)"
