#!/usr/bin/env bash
# Times rtfconv as a user does: the whole process, output to /dev/null, on the
# three bench inputs (bench/make_bench.sh), each command's runs interleaved
# with catdoc's on the same input and the median of N kept. Prints a table of
# MB/s (MB = 10^6 bytes of input; one decimal below 100) with each input's
# size, and a plain byte loop as the ceiling, then the peak resident memory of
# each command on a large input: the readers on the RTF, the writers on what
# the readers make of it, and how each command's time grows from inputs of N
# to 2N MB (linear cost is a ratio near 2.00). The library's own loop is timed
# by rtfconverter_bench (`make bench` runs both). An MB argument of 0 skips
# its section.
# Usage: whole_process.sh BUILD_DIR [runs=5] [big-input-MB=500] [linear-N-MB=100]
set -euo pipefail
build="$1"; runs="${2:-5}"; bigmb="${3:-500}"; linearmb="${4:-100}"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
data="${RTFCONV_BENCH_DATA:-$here/data}"
tool="$build/tools/rtfconv/rtfconv"
work="$(mktemp -d)"; trap 'rm -rf "$work"' EXIT
inputs=(text-heavy markup-heavy picture-heavy)
for f in "${inputs[@]}"; do [ -f "$data/$f.rtf" ] || bash "$here/make_bench.sh" 20 >/dev/null; done

# Seconds taken by one run of the command, read from bash's own clock: a
# `date` run to read the time would add its own start-up, about a millisecond,
# to every run, a third of a run on a small input.
seconds() {
  local t0 t1; t0=${EPOCHREALTIME/[.,]/}; "$@" >/dev/null 2>&1 || true; t1=${EPOCHREALTIME/[.,]/}
  awk -v us=$(( t1 - t0 )) 'BEGIN { printf("%.6f\n", us / 1e6) }'
}
median() { sort -g | awk '{v[NR]=$1} END {print (NR%2) ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2}'; }
# MB/s of BYTES in SECONDS: one decimal where small, whole numbers above 100.
mbps() { awk -v cb="$1" -v s="$2" 'BEGIN { r = s > 0 ? cb / 1e6 / s : 0; printf(r < 100 ? "%.1f" : "%.0f", r) }'; }
megabytes() { awk -v cb="$(stat -c %s "$1")" 'BEGIN { printf("%.1f", cb / 1e6) }'; }

# The writers' inputs: what the readers make of each bench input.
for f in "${inputs[@]}"; do
  "$tool" rtf2old "$data/$f.rtf" -o "$work/$f.old" 2>/dev/null
  "$tool" rtf2txt "$data/$f.rtf" -o "$work/$f.txt" 2>/dev/null
done

echo "load: $(cut -d' ' -f1-3 /proc/loadavg), $(nproc) cores, median of $runs"
printf '%-16s %-18s %9s %10s %10s\n' command input "size MB" rtfconv catdoc
row() {  # name input-file catdoc(yes/no) command...
  local name="$1" in="$2" withCatdoc="$3"; shift 3
  local a=() c=() size; size=$(stat -c %s "$in")
  for _ in $(seq "$runs"); do
    a+=("$(seconds "$@" "$in" -o /dev/null)")
    if [ "$withCatdoc" = yes ] && command -v catdoc >/dev/null; then c+=("$(seconds catdoc "$in")"); fi
  done
  local ta tc="-"; ta=$(printf '%s\n' "${a[@]}" | median)
  if [ ${#c[@]} -gt 0 ]; then tc=$(mbps "$size" "$(printf '%s\n' "${c[@]}" | median)"); fi
  printf '%-16s %-18s %9s %10s %10s\n' "$name" "$(basename "$in")" "$(megabytes "$in")" "$(mbps "$size" "$ta")" "$tc"
}
for f in "${inputs[@]}"; do
  row "rtf2txt --raw" "$data/$f.rtf" yes "$tool" rtf2txt --raw
  row "rtf2txt" "$data/$f.rtf" no "$tool" rtf2txt
  row "rtf2old" "$data/$f.rtf" no "$tool" rtf2old
  row "old2rtf" "$work/$f.old" no "$tool" old2rtf
  row "txt2rtf" "$work/$f.txt" no "$tool" txt2rtf
done

echo "ceiling, a plain byte loop over text-heavy.rtf (wc -l): $(mbps "$(stat -c %s "$data/text-heavy.rtf")" "$(seconds wc -l "$data/text-heavy.rtf")") MB/s"


if [ "$bigmb" -gt 0 ]; then
  big="$work/big"; mkdir -p "$big"
  RTFCONV_BENCH_DATA="$big" bash "$here/make_bench.sh" "$bigmb" >/dev/null
  rm -f "$big/markup-heavy.rtf" "$big/picture-heavy.rtf"
  in="$big/text-heavy.rtf"
  "$tool" rtf2old "$in" -o "$big/text-heavy.old" 2>/dev/null
  "$tool" rtf2txt "$in" -o "$big/text-heavy.txt" 2>/dev/null
  echo "peak resident memory on a $(( $(stat -c %s "$in") / 1000000 )) MB input (the writers' on what the readers make of it):"
  printf '  %-14s %-16s %9s %10s %10s\n' command input "size MB" "output MB" "peak MB"
  # peak COMMAND INPUT: the command's peak resident memory, its input's and its output's size.
  peak() {
    local cmd="$1" input="$2" kib
    # time's own report goes to a file: the command's stderr is thrown away.
    /usr/bin/time -o "$big/peak" -f %M $cmd "$input" -o "$big/out" >/dev/null 2>/dev/null || true
    kib=$(tail -1 "$big/peak")
    printf '  %-14s %-16s %9s %10s %10s\n' "${cmd#"$tool" }" "$(basename "$input")" "$(megabytes "$input")" \
      "$(megabytes "$big/out")" "$(awk -v k="$kib" 'BEGIN { printf("%.1f", k * 1024 / 1e6) }')"
    rm -f "$big/out"
  }
  for cmd in "rtf2txt --raw" rtf2txt rtf2old; do peak "$tool $cmd" "$in"; done
  peak "$tool old2rtf" "$big/text-heavy.old"
  peak "$tool txt2rtf" "$big/text-heavy.txt"
  if command -v catdoc >/dev/null; then
    /usr/bin/time -o "$big/peak" -f %M catdoc "$in" >/dev/null 2>/dev/null || true
    printf '  %-14s %-16s %9s %10s %10s\n' catdoc "$(basename "$in")" "$(megabytes "$in")" - \
      "$(awk -v k="$(tail -1 "$big/peak")" 'BEGIN { printf("%.1f", k * 1024 / 1e6) }')"
  fi
fi

if [ "$linearmb" -gt 0 ]; then
  # Inputs large enough that start-up is lost in the noise, so the ratio shows
  # the cost per byte rather than the fixed cost of a process.
  lin="$work/linear"; mkdir -p "$lin/1" "$lin/2"
  RTFCONV_BENCH_DATA="$lin/1" bash "$here/make_bench.sh" "$linearmb" >/dev/null
  RTFCONV_BENCH_DATA="$lin/2" bash "$here/make_bench.sh" "$(( 2 * linearmb ))" >/dev/null
  for d in 1 2; do
    for f in text-heavy markup-heavy; do
      "$tool" rtf2old "$lin/$d/$f.rtf" -o "$lin/$d/$f.old" 2>/dev/null
      "$tool" rtf2txt "$lin/$d/$f.rtf" -o "$lin/$d/$f.txt" 2>/dev/null
    done
  done
  echo "linear cost: time on a $(( 2 * linearmb )) MB input over time on a $linearmb MB input (median of $runs; linear is 2.00):"
  printf '  %-14s %-16s %9s %9s %7s\n' command input "N s" "2N s" ratio
  # ratio NAME FILE COMMAND...: the median time on each size and their ratio.
  ratio() {
    local name="$1" file="$2"; shift 2
    local t1=() t2=() m1 m2
    for _ in $(seq "$runs"); do
      t1+=("$(seconds "$@" "$lin/1/$file" -o /dev/null)")
      t2+=("$(seconds "$@" "$lin/2/$file" -o /dev/null)")
    done
    m1=$(printf '%s\n' "${t1[@]}" | median); m2=$(printf '%s\n' "${t2[@]}" | median)
    printf '  %-14s %-16s %9.3f %9.3f %7.2f\n' "$name" "$file" "$m1" "$m2" "$(echo "$m2 / $m1" | bc -l)"
  }
  for f in text-heavy markup-heavy; do
    ratio "rtf2txt --raw" "$f.rtf" "$tool" rtf2txt --raw
    ratio "rtf2txt" "$f.rtf" "$tool" rtf2txt
    ratio "rtf2old" "$f.rtf" "$tool" rtf2old
    ratio "old2rtf" "$f.old" "$tool" old2rtf
    ratio "txt2rtf" "$f.txt" "$tool" txt2rtf
  done
fi
