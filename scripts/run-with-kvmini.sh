#!/usr/bin/env bash
# Runs clockette as a real worker registered with kvmini, the small KV
# emulator: builds the programs if needed, starts the test Timestamp Server and
# kvmini on loopback, starts clockette with KVHOST/KVPORT pointing at kvmini,
# lets kvmini hand it every example document as a work order, prints kvmini's
# log of the calls (registration, orders, the "ok"/"error" reports), stops
# clockette with SIGTERM (it says goodbye to the KV), verifies every timestamp
# file with "openssl ts -verify" and stops the servers.
#
#   bash scripts/run-with-kvmini.sh        (BUILD_DIR=... to pick the build directory)
set -euo pipefail
# shellcheck source=scripts/example-common.sh
source "$(dirname "$0")/example-common.sh"

build_programs
make_workdir
kv_pid=
worker_pid=
cleanup() {
  if [ -n "$worker_pid" ]; then kill -TERM "$worker_pid" 2>/dev/null || true; fi
  if [ -n "$kv_pid" ]; then kill -TERM "$kv_pid" 2>/dev/null || true; fi
  stop_tsa
}
trap cleanup EXIT
start_tsa

"$kvmini" serve --bind 127.0.0.1 --port 0 --worker-host 127.0.0.1 \
  --queue "$work/documents" --exit-on-bye </dev/null >"$work/kvmini.out" 2>&1 &
kv_pid=$!
for _ in $(seq 100); do
  grep -q '^kvmini listening' "$work/kvmini.out" && break
  sleep 0.1
done
kv_port=$(sed -n 's/^kvmini listening port=\([0-9]*\).*/\1/p' "$work/kvmini.out")
[ -n "$kv_port" ] || { echo "kvmini did not start" >&2; cat "$work/kvmini.out" >&2; exit 1; }
echo "kvmini: udp 127.0.0.1:$kv_port"

echo "== clockette registered with kvmini"
KVHOST=127.0.0.1 KVPORT=$kv_port "$clockette" -type clockette -logfile clockette.log \
  -host 127.0.0.1 -port "$tsa_port" &
worker_pid=$!
for _ in $(seq 600); do
  grep -q '^QUEUE done' "$work/kvmini.out" && break
  kill -0 "$worker_pid" 2>/dev/null || break
  sleep 0.1
done
# SIGTERM: the worker says goodbye to the KV and ends; kvmini ends on the goodbye.
kill -TERM "$worker_pid" 2>/dev/null || true
set +e
wait "$worker_pid"
echo "clockette exit code: $? (1 after SIGTERM and its goodbye to the KV; log: $work/logs/clockette.log)"
worker_pid=
for _ in $(seq 50); do kill -0 "$kv_pid" 2>/dev/null || break; sleep 0.1; done
set -e
echo "== kvmini's log"
cat "$work/kvmini.out"

show_documents
echo "== verification with openssl ts -verify"
verify_documents
cleanup
trap - EXIT
echo "working copy kept in $work"
grep -q '^QUEUE done' "$work/kvmini.out" && [ "$verify_failures" -eq 0 ]
