#!/usr/bin/env bash
# Runs the libFuzzer targets of a build for a while, one after the other or
# several at once.
#
# Usage: fuzz/run.sh BUILD_FUZZ_DIR SECONDS [NAME...]
#   BUILD_FUZZ_DIR  the fuzz/ directory of a build configured with clang and
#                   -DRTFCONV_LIBFUZZER=ON (e.g. build-fuzz/fuzz)
#   SECONDS         fuzzing time per target
#   NAME...         only these targets (rtf2txt for fuzz_rtf2txt); default all
# Environment:
#   FUZZ_JOBS=N     fuzz N targets at once (default 1: in turn)
#   FUZZ_MAX_LEN=N  the largest input to try (default 8192: real documents
#                   are cut there, which keeps their headers and tables and
#                   the runs fast)
#   FUZZ_TIMEOUT=S  an input running longer is a hang (default 60: the
#                   campaign runs at the lowest priority on a busy machine,
#                   where wall-clock time says little)
#   FUZZ_CAMPAIGN=1 also start the targets that read RTF from the real-world
#                   documents (../shared/corpus/rtf when present, and
#                   tests/corpus/rtf), and merge what each run found into its
#                   committed seeds fuzz/corpus/<name>/, minimised (-merge=1;
#                   inputs under 4 KiB only, to keep the repository small)
#
# Target fuzz_<name> starts from its seeds fuzz/corpus/<name>/ plus the saved
# crashers fuzz/findings/<name>/, copied into the scratch corpus
# fuzz/work/<name>/corpus/ (git-ignored, kept between runs so that later runs
# go on from what earlier ones found; delete fuzz/work/ to start afresh). It
# uses the dictionary fuzz/<name>.dict when there is one, else fuzz/rtf.dict.
# Crashes, leaks, timeouts and out-of-memory inputs are saved in
# fuzz/findings/<name>/, which `make test` replays; at the end a table gives
# each target's executions, and the script exits 1 when any target found
# something.
set -euo pipefail
if [ $# -lt 2 ]; then
  sed -n '4,20p' "$0" >&2
  exit 2
fi
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="$1"
seconds="$2"
shift 2
jobs="${FUZZ_JOBS:-1}"
campaign="${FUZZ_CAMPAIGN:-0}"
timeout="${FUZZ_TIMEOUT:-60}"
max_len="${FUZZ_MAX_LEN:-8192}"
merge_max_kb=4  # inputs merged into the committed seeds are smaller than this

# The targets whose input is an RTF document, which real documents seed.
rtf_targets=" rtf2old rtf2txt rtf2utf8 import_sources buffer_sizes text_agree "
# Both folders hold mostly the same files: one copy of each, by name.
documents="$here/work/documents"
if [ "$campaign" = 1 ]; then
  mkdir -p "$documents"
  for dir in "$here/../../shared/corpus/rtf" "$here/../tests/corpus/rtf"; do
    [ -d "$dir" ] && find "$dir" -maxdepth 1 -type f -name '*.rtf' -exec cp -n {} "$documents/" \;
  done
fi

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

# fuzz_one NAME: fuzzes one target; its report goes to fuzz/work/NAME/report
# and its status (0, or 1 for a finding) is its exit status.
fuzz_one() {
  local name=$1
  local bin="$build/fuzz_$name"
  local work="$here/work/$name"
  local findings="$here/findings/$name"
  mkdir -p "$work/corpus" "$work/artifacts" "$findings"
  rm -f "$work/artifacts"/*
  exec >"$work/report"
  if [ ! -x "$bin" ]; then
    echo "run.sh: $bin is missing"
    return 1
  fi
  for dir in "$here/corpus/$name" "$findings"; do
    [ -d "$dir" ] && find "$dir" -maxdepth 1 -type f ! -name '.*' -exec cp -f {} "$work/corpus/" \;
  done
  # Real documents are read, not copied: new inputs go to the first folder only.
  local seed_dirs=()
  if [ "$campaign" = 1 ] && [[ "$rtf_targets" == *" $name "* ]]; then
    seed_dirs=("$documents")
  fi
  local dict="$here/$name.dict"
  [ -f "$dict" ] || dict="$here/rtf.dict"

  echo "== fuzz_$name: ${seconds}s, corpus $work/corpus ($(ls "$work/corpus" | wc -l) inputs)" \
       "+ ${#seed_dirs[@]} document folder(s), dictionary $(basename "$dict")"
  local status=0
  "$bin" "$work/corpus" "${seed_dirs[@]}" -dict="$dict" -max_total_time="$seconds" -max_len="$max_len" -timeout="$timeout" \
    -rss_limit_mb=2048 -artifact_prefix="$work/artifacts/" -print_final_stats=1 >"$work/log" 2>&1 || status=$?

  # libFuzzer names its artifacts crash-, leak-, timeout-, oom- and slow-unit-
  # followed by the input's SHA-1; slow units are not faults.
  local saved=0
  for artifact in "$work/artifacts"/crash-* "$work/artifacts"/leak-* "$work/artifacts"/timeout-* "$work/artifacts"/oom-*; do
    [ -f "$artifact" ] || continue
    cp -f "$artifact" "$findings/"
    echo "   saved fuzz/findings/$name/$(basename "$artifact")"
    saved=1
  done
  grep -E '^stat::(number_of_executed_units|new_units_added|peak_rss_mb)' "$work/log" | sed 's/^/   /' || true
  grep -E '^#[0-9]+.*(DONE|cov:)' "$work/log" | tail -n 1 | sed 's/^/   /' || true
  if [ "$campaign" = 1 ]; then
    local before after
    before=$(ls "$here/corpus/$name" 2>/dev/null | wc -l)
    mkdir -p "$here/corpus/$name"
    # Only small inputs are candidates, so that the committed seeds stay small
    # (the scratch corpus keeps the large ones, mostly cut real documents).
    rm -rf "$work/small"
    mkdir -p "$work/small"
    find "$work/corpus" -maxdepth 1 -type f -size -"$merge_max_kb"k -exec cp -f {} "$work/small/" \;
    "$bin" -merge=1 -timeout="$timeout" -rss_limit_mb=2048 "$here/corpus/$name" "$work/small" \
      >"$work/merge.log" 2>&1 || echo "   the merge failed; see $work/merge.log"
    after=$(ls "$here/corpus/$name" | wc -l)
    echo "   merged into fuzz/corpus/$name: $((after - before)) new input(s), $after in all"
  fi
  if [ $saved -ne 0 ] || [ $status -ne 0 ]; then
    echo "   FAILED (exit $status); the end of $work/log:"
    tail -n 40 "$work/log" | sed 's/^/   | /'
    return 1
  fi
  return 0
}

for name in "${names[@]}"; do
  bin="$build/fuzz_$name"
  if [ -x "$bin" ] && [[ "$("$bin" -help=1 2>&1 || true)" != *max_total_time* ]]; then
    echo "run.sh: $bin is not a libFuzzer binary (configure with clang and -DRTFCONV_LIBFUZZER=ON)" >&2
    exit 2
  fi
done

found=0
if [ "$jobs" -le 1 ]; then
  for name in "${names[@]}"; do
    (fuzz_one "$name") || found=1
    cat "$here/work/$name/report"
  done
else
  pids=()
  for name in "${names[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do sleep 5; done
    (fuzz_one "$name") &
    pids+=($!)
  done
  for pid in "${pids[@]}"; do
    wait "$pid" || found=1
  done
  for name in "${names[@]}"; do cat "$here/work/$name/report"; done
fi

echo "== executions per target"
for name in "${names[@]}"; do
  runs=$(grep -hE '^stat::number_of_executed_units' "$here/work/$name/log" 2>/dev/null | awk '{print $2}' | tail -n 1)
  printf '   %-16s %s\n' "$name" "${runs:-?}"
done
exit $found
