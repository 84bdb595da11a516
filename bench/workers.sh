#!/usr/bin/env bash
# bench/workers.sh: what more cores and more workers give, side by side.
#
#   bash bench/workers.sh   (BUILD_DIR=... to choose the build directory, WORKERS="1 2 4 8",
#                            DOCS_PER_WORKER=40, BIG_DOCS_PER_WORKER=4, HASH_FILE_MIB=512)
#
# 1. Parallel hashing: the 4 files of HASH_FILE_MIB MiB of one document, read
#    from the page cache, hashed one after the other and side by side on the
#    usable cores (bench/files_bench), and the peak memory of each.
# 2. Workers under one KV: scripts/run-workers.sh runs N workers (KV mode under
#    kvmini) against the test Timestamp Server holding each answer 50 ms, over
#    DOCS_PER_WORKER x N one-file documents, and over BIG_DOCS_PER_WORKER x N
#    documents of 4 files of 64 MiB each (the same 4 cached files, named by
#    absolute path), hashed side by side and with TS_HASH_THREADS=1. The time
#    is kvmini's, from the first order (once all N have registered) to the
#    last report; documents/s is printed with its ratio to one worker.
# The documents live on tmpfs (/dev/shm) unless NO_TMPFS=1, so that the
# figures show the workers and not the disk's fsyncs.
# Not a test: it prints figures and exits 0 unless something could not run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
workers_list=${WORKERS:-1 2 4 8}
per_worker=${DOCS_PER_WORKER:-40}
big_per_worker=${BIG_DOCS_PER_WORKER:-4}
hash_mib=${HASH_FILE_MIB:-512}

# shellcheck source=bench/build-bench.sh
source "$root/bench/build-bench.sh"
build_bench clockette testtsa kvmini files_bench

work=$(mktemp -d "${TMPDIR:-/tmp}/clockette-bench-XXXXXX")
trees=$work
if [ -z "${NO_TMPFS:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  trees=$(mktemp -d /dev/shm/clockette-bench-XXXXXX)
fi
cleanup() {
  rm -rf "$work"
  [ "$trees" = "$work" ] || rm -rf "$trees"
}
trap cleanup EXIT
unset TS_HASH_THREADS TS_PARALLEL LOGLEVEL KV_PROTOCOL || true

echo "== machine: $(nproc) usable cores ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 |
  sed 's/^ *//')), $(free -g | awk '/^Mem:/ { print $2 }') GiB, load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "   documents on $(df -T "$trees" | awk 'NR == 2 { print $2 }') ($trees), big files in $work"

echo "== 1. one document of 4 x $hash_mib MiB, hashed from the page cache"
for i in 1 2 3 4; do
  head -c "$((hash_mib << 20))" /dev/urandom >"$work/h$i"
done
"$build/bench/files_bench" --rounds 3 "$work"/h[1-4] >"$work/files.out"
rm -f "$work"/h[1-4]
declare -A f
while read -r k v; do f[$k]=$v; done <"$work/files.out"
printf '  %-10s %10s %10s %14s\n' threads seconds "of 1 thread" "peak RSS MiB"
for ((t = 1; ; t++)); do
  [ -n "${f[seconds_$t]:-}" ] || break
  printf '  %-10s %10s %10s %14s\n' "$t" "${f[seconds_$t]}" \
    "$(awk -v a="${f[seconds_$t]}" -v b="${f[seconds_1]}" 'BEGIN { printf "%.2f", a / b }')" \
    "$(awk -v k="${f[maxrss_kib_$t]}" 'BEGIN { printf "%.1f", k / 1024 }')"
done
echo "  (target on 2 cores: 2 threads at most 0.60 of 1 thread; memory at most 16 MiB + 8 MiB per extra thread)"

# The same 4 files of 64 MiB, named by every big document.
for i in 1 2 3 4; do head -c $((64 << 20)) /dev/urandom >"$work/big$i"; done

# make_docs DIR COUNT small|big
make_docs() {
  local dir=$1 count=$2 kind=$3 d i
  rm -rf "$dir"
  mkdir -p "$dir"
  for ((d = 0; d < count; d++)); do
    mkdir "$dir/$(printf 'doc%04d' "$d")"
    if [ "$kind" = small ]; then
      echo "one file of document $d" >"$dir/$(printf 'doc%04d' "$d")/a.txt"
      echo "TIMESTAMP_FILE a.txt a.tst" >"$dir/$(printf 'doc%04d' "$d")/COMMANDS"
    else
      for i in 1 2 3 4; do echo "TIMESTAMP_FILE $work/big$i f$i.tst"; done \
        >"$dir/$(printf 'doc%04d' "$d")/COMMANDS"
    fi
  done
}

# docs_per_second N DOCS KIND [VAR=VALUE...]: runs N workers over DOCS documents.
docs_per_second() {
  local n=$1 count=$2 kind=$3 out seconds
  shift 3
  make_docs "$trees/docs" "$count" "$kind"
  out=$work/run.out
  if ! NO_BUILD=1 BUILD_DIR=$build TSA_ARGS="--delay-ms 50" ORDER_TIMEOUT=600 WORKER_ENV="$*" \
    bash "$root/scripts/run-workers.sh" "$n" "$trees/docs" >"$out" 2>&1; then
    echo "run-workers.sh $n failed:" >&2
    tail -5 "$out" >&2
    exit 1
  fi
  rm -rf "$(sed -n 's/^kvmini log and worker logs: //p' "$out")"
  seconds=$(sed -n 's/^SUMMARY .* seconds=\([0-9.]*\).*/\1/p' "$out")
  awk -v n="$count" -v s="$seconds" 'BEGIN { printf "%.1f", n / s }'
}

echo "== 2. documents/s with N workers under kvmini, answers held 50 ms"
printf '  %-8s %22s %24s %24s\n' workers "1 file/doc (x one)" "4x64 MiB/doc (x one)" \
  "same, 1 hash thread (x one)"
declare -A one
for n in $workers_list; do
  small=$(docs_per_second "$n" $((per_worker * n)) small)
  # The big files lie outside the documents: the workers may read them there.
  big=$(docs_per_second "$n" $((big_per_worker * n)) big "TS_ALLOWED_ROOTS=$work")
  big1=$(docs_per_second "$n" $((big_per_worker * n)) big "TS_ALLOWED_ROOTS=$work" \
    TS_HASH_THREADS=1)
  [ -n "${one[small]:-}" ] || one=([small]=$small [big]=$big [big1]=$big1)
  x() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
  printf '  %-8s %14s (%5s) %16s (%5s) %16s (%5s)\n' "$n" "$small" "$(x "$small" "${one[small]}")" \
    "$big" "$(x "$big" "${one[big]}")" "$big1" "$(x "$big1" "${one[big1]}")"
done
echo "  (target: 8 workers at least 7x the documents/s of one, one-file documents)"
