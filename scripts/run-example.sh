#!/usr/bin/env bash
# Timestamps the example documents of examples/documents once, in test mode
# (no KV): builds the programs if needed, starts the test Timestamp Server on
# loopback, runs "clockette -test" over a working copy of the documents,
# prints the result lines, the changed COMMANDS and protocol files, verifies
# every timestamp file with "openssl ts -verify" against the test CA and the
# data file, and stops the server. Exit code 0 when every document was done
# and every timestamp verified.
#
#   bash scripts/run-example.sh            (BUILD_DIR=... to pick the build directory)
set -euo pipefail
# shellcheck source=scripts/example-common.sh
source "$(dirname "$0")/example-common.sh"

build_programs
make_workdir
trap 'stop_tsa' EXIT
start_tsa

echo "== clockette -test over ${work}/documents"
set +e
"$clockette" -test -testpath "$work/documents" -logfile clockette.log \
  -host 127.0.0.1 -port "$tsa_port" -protocol http -url_path /
rc=$?
set -e
echo "clockette exit code: $rc (log: $work/logs/clockette.log)"

show_documents
echo "== verification with openssl ts -verify"
verify_documents
stop_tsa
if [ -s "$KV_NOTIFY_FILE" ]; then
  echo "== operator notifications"
  cat "$KV_NOTIFY_FILE"
fi
echo "working copy kept in $work"
[ "$rc" -eq 0 ] && [ "$verify_failures" -eq 0 ]
