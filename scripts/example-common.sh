# shellcheck shell=bash disable=SC2034
# Shared steps of run-example.sh and run-with-kvmini.sh: build, a working copy
# of the example documents, the test Timestamp Server, and the OpenSSL check of
# every timestamp file. Sourced, not run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
[[ $build = /* ]] || build=$root/$build
clockette=$build/app/clockette
testtsa=$build/tools/testtsa/testtsa
kvmini=$build/tools/kvmini/kvmini

# Builds the three programs (configuring the build directory when new).
build_programs() {
  echo "== building clockette, testtsa and kvmini in $build"
  if [ ! -f "$build/CMakeCache.txt" ]; then
    local generator=()
    command -v ninja >/dev/null && generator=(-G Ninja)
    cmake -S "$root" -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  fi
  cmake --build "$build" --target clockette testtsa kvmini -j "$(nproc)" >/dev/null
}

# A fresh working directory: the example documents, an empty configuration
# directory, a log directory. The shipped tree stays untouched.
make_workdir() {
  work=$(mktemp -d "${TMPDIR:-/tmp}/clockette-example-XXXXXX")
  cp -R "$root/examples/documents" "$work/documents"
  mkdir -p "$work/config/setup" "$work/logs"
  export CONFIG=$work/config
  export ZEPH_SRV_LOG=$work/logs
  export KV_NOTIFY_FILE=$work/notifications
  export KV_PROTOCOL=on
}

tsa_pid=
stop_tsa() {
  if [ -n "$tsa_pid" ]; then
    kill -TERM "$tsa_pid" 2>/dev/null || true
    wait "$tsa_pid" 2>/dev/null || true
    tsa_pid=
  fi
}

# Starts the test Timestamp Server on loopback with its certificates in
# $work/pki (and the options of TSA_ARGS); sets tsa_port, tsa_ca and tsa_cert.
start_tsa() {
  mkdir -p "$work/pki"
  # shellcheck disable=SC2086  # TSA_ARGS: further testtsa options, split on blanks
  "$testtsa" --dir "$work/pki" --https-port -1 --tcp-port -1 ${TSA_ARGS:-} >"$work/tsa.out" \
    2>"$work/tsa.log" &
  tsa_pid=$!
  for _ in $(seq 100); do
    grep -qx ready "$work/tsa.out" 2>/dev/null && break
    sleep 0.1
  done
  grep -qx ready "$work/tsa.out" || { echo "test Timestamp Server did not start" >&2; exit 1; }
  tsa_port=$(sed -n 's/^http_port=//p' "$work/tsa.out")
  tsa_ca=$(sed -n 's/^ca_file=//p' "$work/tsa.out")
  tsa_cert=$(sed -n 's/^tsa_cert=//p' "$work/tsa.out")
  echo "test Timestamp Server: http://127.0.0.1:$tsa_port/ (CA $tsa_ca)"
}

# The arguments of a COMMANDS value, one a line (double quotes group blanks).
tokens() { printf '%s\n' "$1" | xargs -n1 printf '%s\n'; }

# A file token: absolute as it is, otherwise inside the document directory.
doc_path() { case $2 in /*) echo "$2" ;; *) echo "$1/$2" ;; esac; }

# Checks one timestamp file (one BASE64 line) with openssl ts -verify against
# the data file and the test CA. Counts failures in verify_failures.
verify_failures=0
verify_one() {
  local tst=$1 data=$2 tsr
  tsr=$(mktemp "$work/tsr-XXXXXX")
  if openssl base64 -d -A -in "$tst" -out "$tsr" 2>/dev/null &&
    openssl ts -verify -in "$tsr" -data "$data" -CAfile "$tsa_ca" -untrusted "$tsa_cert" \
      >/dev/null 2>&1; then
    echo "  verified: ${tst#"$work/"} <- ${data#"$work/"}"
  else
    echo "  NOT verified: ${tst#"$work/"} <- ${data#"$work/"}"
    verify_failures=$((verify_failures + 1))
  fi
}

# Verifies every timestamp file the documents' COMMANDS name: those of
# TIMESTAMP_FILE statements and those of COMP_TIMESTAMP_FILE statements
# (matched to their COMP statement's file).
verify_documents() {
  local doc key value
  for doc in "$work"/documents/*/; do
    doc=${doc%/}
    echo "${doc#"$work/"}:"
    declare -A comp_file=()
    while IFS= read -r line || [ -n "$line" ]; do
      key=${line%%[ 	]*}
      value=${line#"$key"}
      value=${value#"${value%%[! 	]*}"}
      mapfile -t t < <(tokens "$value")
      case $key in
        TIMESTAMP_FILE)
          [ "${#t[@]}" -ge 2 ] && [ -e "$(doc_path "$doc" "${t[1]}")" ] &&
            verify_one "$(doc_path "$doc" "${t[1]}")" "$(doc_path "$doc" "${t[0]}")"
          ;;
        COMP) [ "${#t[@]}" -ge 3 ] && comp_file[${t[0]}]=$(doc_path "$doc" "${t[2]}") ;;
        COMP_TIMESTAMP_FILE)
          [ "${#t[@]}" -ge 2 ] && [ -n "${comp_file[${t[0]}]:-}" ] &&
            verify_one "$doc/${t[1]}" "${comp_file[${t[0]}]}"
          ;;
      esac
    done <"$doc/COMMANDS"
    unset comp_file
  done
}

show_documents() {
  local doc
  for doc in "$work"/documents/*/; do
    echo "---- ${doc#"$work/"}COMMANDS"
    cat "$doc/COMMANDS"
    if [ -f "$doc/KVprotocol" ]; then
      echo "---- ${doc#"$work/"}KVprotocol"
      cat "$doc/KVprotocol"
    fi
  done
}
