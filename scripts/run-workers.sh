#!/usr/bin/env bash
# Runs N clockette workers under one KV (kvmini) over the documents of DIR, in
# place: starts the test Timestamp Server and kvmini on loopback, then N
# workers, each announcing its own loopback address (127.0.0.2 and up) as its
# host, so that the KV tells them apart as it tells hosts apart. kvmini hands
# each idle worker the next document and, when the queue is done, orders every
# worker to end (control code 0). Prints per worker the documents it reported.
# Exit code 0 only when every document of DIR was reported "ok" exactly once.
#
#   bash scripts/run-workers.sh N DIR
# BUILD_DIR picks the build directory; TSA_ARGS adds testtsa options (say
# "--delay-ms 50"); ORDER_TIMEOUT (seconds, default 120) gives back the
# document of a worker that does not report; WORKER_ENV adds variables to every
# worker ("TS_HASH_THREADS=1"). kvmini's log and the workers' logs stay in the
# work directory it names.
set -euo pipefail
# shellcheck source=scripts/example-common.sh
source "$(dirname "$0")/example-common.sh"

if ! { [ $# -eq 2 ] && [ "$1" -ge 1 ] 2>/dev/null && [ "$1" -le 250 ] && [ -d "$2" ]; }; then
  echo "usage: $0 N DIR   (1 <= N <= 250 workers over the documents of DIR)" >&2
  exit 64
fi
workers=$1
docs=$(cd "$2" && pwd)

[ -n "${NO_BUILD:-}" ] || build_programs >/dev/null
work=$(mktemp -d "${TMPDIR:-/tmp}/clockette-workers-XXXXXX")
mkdir -p "$work/config/setup" "$work/logs"
export CONFIG=$work/config ZEPH_SRV_LOG=$work/logs KV_NOTIFY_FILE=$work/notifications KV_PROTOCOL=on
kv_pid=
worker_pids=()
cleanup() {
  local pid
  for pid in "${worker_pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${worker_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [ -n "$kv_pid" ]; then kill -TERM "$kv_pid" 2>/dev/null || true; fi
  stop_tsa
}
trap cleanup EXIT
start_tsa >/dev/null

# The first order waits until all N have registered, so that they share the queue from the start.
"$kvmini" serve --bind 127.0.0.1 --port 0 --queue "$docs" --final-ctrl 0 --wait-workers "$workers" \
  --order-timeout "${ORDER_TIMEOUT:-120}" </dev/null >"$work/kvmini.out" 2>&1 &
kv_pid=$!
for _ in $(seq 100); do
  grep -q '^kvmini listening' "$work/kvmini.out" 2>/dev/null && break
  sleep 0.1
done
kv_port=$(sed -n 's/^kvmini listening port=\([0-9]*\).*/\1/p' "$work/kvmini.out")
[ -n "$kv_port" ] || { echo "kvmini did not start" >&2; cat "$work/kvmini.out" >&2; exit 1; }

for i in $(seq "$workers"); do
  # shellcheck disable=SC2086  # WORKER_ENV: assignments split on blanks
  env ${WORKER_ENV:-} MY_HOST_NAME="127.0.0.$((i + 1))" KVHOST=127.0.0.1 KVPORT="$kv_port" \
    "$clockette" -type clockette -logfile "worker$i.log" -host 127.0.0.1 -port "$tsa_port" &
  worker_pids+=($!)
done
for _ in $(seq "${RUN_TIMEOUT:-600}0"); do
  grep -q '^SUMMARY' "$work/kvmini.out" && break
  sleep 0.1
done
# The last order (control code 0) ends each worker with exit code 0.
for pid in "${worker_pids[@]}"; do
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
done
cleanup
trap - EXIT

echo "kvmini log and worker logs: $work"
# Reports: worker name, status, document (one a line).
sed -n 's/^OP .* document="\(.*\)" text2="\([^"]*\)" text3=.* worker=\(.*\)$/\3 \2 \1/p' \
  "$work/kvmini.out" >"$work/reports"
awk '{ n[$1]++; if ($2 == "ok") ok[$1]++; else err[$1]++ } END {
  for (w in n) printf "worker %s: %d documents reported, %d ok, %d error\n", w, n[w], ok[w], err[w] }' \
  "$work/reports" | sort
sed 's/^\([^ ]*\) \([^ ]*\) /  \1 \2 /' "$work/reports"
grep '^SUMMARY' "$work/kvmini.out" || { echo "kvmini did not finish the queue" >&2; exit 1; }

failures=0
for doc in "$docs"/*/; do
  doc=${doc%/}
  oks=$(awk -v d="$doc" '$2 == "ok" && substr($0, length($1) + length($2) + 3) == d' \
    "$work/reports" | wc -l)
  all=$(awk -v d="$doc" 'substr($0, length($1) + length($2) + 3) == d' "$work/reports" | wc -l)
  if [ "$oks" -ne 1 ] || [ "$all" -ne 1 ]; then
    echo "document $doc: reported $all times, $oks of them ok" >&2
    failures=$((failures + 1))
  fi
done
[ "$failures" -eq 0 ]
