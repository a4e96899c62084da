#!/usr/bin/env bash
# Runs every libFuzzer target of a build for a while, one after the other.
#
# Usage: fuzz/run.sh BUILD_FUZZ_DIR SECONDS [NAME...]
#   BUILD_FUZZ_DIR  the fuzz/ directory of a build configured with clang and
#                   -DRTFCONV_LIBFUZZER=ON (e.g. build-fuzz/fuzz)
#   SECONDS         fuzzing time per target
#   NAME...         only these targets (rtf2txt for fuzz_rtf2txt); default all
#
# Target fuzz_<name> starts from its seeds fuzz/corpus/<name>/ plus the saved
# crashers fuzz/findings/<name>/, copied into the scratch corpus
# fuzz/work/<name>/corpus/ (git-ignored, kept between runs so that later runs
# go on from what earlier ones found; delete fuzz/work/ to start afresh). It
# uses the dictionary fuzz/<name>.dict when there is one, else fuzz/rtf.dict.
# Crashes, leaks, timeouts and out-of-memory inputs are saved in
# fuzz/findings/<name>/; the script exits 1 when any target found something.
set -euo pipefail
if [ $# -lt 2 ]; then
  sed -n '4,9p' "$0" >&2
  exit 2
fi
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="$1"
seconds="$2"
shift 2

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for bin in "$build"/fuzz_*; do
    [ -x "$bin" ] && [ -f "$bin" ] && names+=("$(basename "$bin" | sed 's/^fuzz_//')")
  done
fi
if [ ${#names[@]} -eq 0 ]; then
  echo "run.sh: no fuzz targets in $build (configure with clang and -DRTFCONV_LIBFUZZER=ON)" >&2
  exit 2
fi

# Leaks and undefined behaviour count as crashes; a stack trace helps.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

found=0
for name in "${names[@]}"; do
  bin="$build/fuzz_$name"
  if [ ! -x "$bin" ]; then
    echo "run.sh: $bin is missing" >&2
    found=1
    continue
  fi
  help="$("$bin" -help=1 2>&1 || true)"
  if [[ "$help" != *max_total_time* ]]; then
    echo "run.sh: $bin is not a libFuzzer binary (configure with clang and -DRTFCONV_LIBFUZZER=ON)" >&2
    exit 2
  fi
  work="$here/work/$name"
  findings="$here/findings/$name"
  mkdir -p "$work/corpus" "$work/artifacts" "$findings"
  rm -f "$work/artifacts"/*
  for dir in "$here/corpus/$name" "$findings"; do
    [ -d "$dir" ] && find "$dir" -maxdepth 1 -type f ! -name '.*' -exec cp -f {} "$work/corpus/" \;
  done
  dict="$here/$name.dict"
  [ -f "$dict" ] || dict="$here/rtf.dict"

  echo "== fuzz_$name: ${seconds}s, corpus $work/corpus ($(ls "$work/corpus" | wc -l) inputs), dictionary $(basename "$dict")"
  status=0
  "$bin" "$work/corpus" -dict="$dict" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$work/artifacts/" -print_final_stats=1 >"$work/log" 2>&1 || status=$?

  # libFuzzer names its artifacts crash-, leak-, timeout-, oom- and slow-unit-
  # followed by the input's SHA-1; slow units are not faults.
  saved=0
  for artifact in "$work/artifacts"/crash-* "$work/artifacts"/leak-* "$work/artifacts"/timeout-* "$work/artifacts"/oom-*; do
    [ -f "$artifact" ] || continue
    cp -f "$artifact" "$findings/"
    echo "   saved fuzz/findings/$name/$(basename "$artifact")"
    saved=1
  done
  if [ $saved -ne 0 ] || [ $status -ne 0 ]; then
    found=1
    echo "   FAILED (exit $status); the end of $work/log:"
    tail -n 40 "$work/log" | sed 's/^/   | /'
  else
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$work/log" | sed 's/^/   /'
    grep -E '^#[0-9]+.*DONE' "$work/log" | tail -n 1 | sed 's/^/   /'
  fi
done
exit $found
