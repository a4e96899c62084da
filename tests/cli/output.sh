#!/usr/bin/env bash
# Output files: -o replaces its target only on success, --output-dir names the
# outputs after their inputs, -j converts several files at once.
source "$(dirname "$0")/lib.sh"

printf '{\\rtf1\\ansi first\\par}' >"$TMP/a.rtf"
printf '{\\rtf1\\ansi second\\line two}' >"$TMP/b.rtf"
printf '{\\rtf1\\ansi third\\tab 3\\par}' >"$TMP/c.RTF"

# -o: a failed run leaves the old target as it was, with no temporary file beside it.
mkdir "$TMP/o"
printf 'OLD' >"$TMP/o/target.txt"
chmod 640 "$TMP/o/target.txt"
expect_status 3 "$RTFCONV" rtf2txt -o "$TMP/o/target.txt" "$TMP/missing.rtf"
expect_file_bytes "$TMP/o/target.txt" 'OLD'
expect_status 2 "$RTFCONV" rtf2txt -o "$TMP/o/target.txt" --codepage nosuchcodepage "$TMP/a.rtf"
expect_file_bytes "$TMP/o/target.txt" 'OLD'
[ "$(ls -A "$TMP/o")" = "target.txt" ] || fail "left behind in the output folder: $(ls -A "$TMP/o")"

# -o: a successful run replaces the target and keeps its permissions; nothing goes to stdout.
expect_status 0 "$RTFCONV" rtf2txt -o "$TMP/o/target.txt" "$TMP/a.rtf"
expect_file_bytes "$TMP/o/target.txt" 'first\n'
[ ! -s "$TMP/out" ] || fail "-o also wrote to stdout"
[ "$(stat -c %a "$TMP/o/target.txt")" = 640 ] || fail "replacing changed the mode to $(stat -c %a "$TMP/o/target.txt")"
[ "$(ls -A "$TMP/o")" = "target.txt" ] || fail "left behind in the output folder: $(ls -A "$TMP/o")"
expect_status 0 "$RTFCONV" rtf2txt -o - "$TMP/a.rtf"
expect_file_bytes "$TMP/out" 'first\n'
expect_status 0 "$RTFCONV" rtf2txt -o /dev/null "$TMP/a.rtf"

# --output-dir with several inputs and -j 2: NAME.txt per input, each as a single run writes it.
expect_status 0 "$RTFCONV" rtf2txt -j 2 --output-dir "$TMP/outdir" "$TMP/a.rtf" "$TMP/b.rtf" "$TMP/c.RTF"
[ "$(ls "$TMP/outdir" | tr '\n' ' ')" = "a.txt b.txt c.txt " ] || fail "--output-dir wrote: $(ls -A "$TMP/outdir")"
for name in a b c; do
    "$RTFCONV" rtf2txt "$TMP/$name".[rR][tT][fF] >"$TMP/single"
    cmp -s "$TMP/single" "$TMP/outdir/$name.txt" || fail "--output-dir $name.txt differs from a single run"
done
expect_file_bytes "$TMP/outdir/b.txt" 'second\ntwo\n'

# One unreadable input among several: status 3, the others still converted,
# and a last line that names the failure again.
expect_status 3 "$RTFCONV" rtf2txt -j 2 --output-dir "$TMP/outdir2" "$TMP/a.rtf" "$TMP/missing.rtf" "$TMP/b.rtf"
[ "$(head -n 1 "$TMP/err")" = "rtfconv: $TMP/missing.rtf: cannot read: No such file or directory" ] &&
    [ "$(tail -n +2 "$TMP/err")" = "rtfconv: 1 of 3 inputs failed: $TMP/missing.rtf" ] ||
    fail "the failure and the summary: $(cat "$TMP/err")"
[ "$(ls "$TMP/outdir2" | tr '\n' ' ')" = "a.txt b.txt " ] || fail "--output-dir after a failure: $(ls -A "$TMP/outdir2")"

# Two inputs that would write the same output name: wrong usage, nothing written.
mkdir "$TMP/sub"
cp "$TMP/a.rtf" "$TMP/sub/a.rtf"
expect_status 2 "$RTFCONV" rtf2txt --output-dir "$TMP/outdir3" "$TMP/a.rtf" "$TMP/sub/a.rtf"
[ ! -e "$TMP/outdir3/a.txt" ] || fail "a name clash still wrote a.txt"

# --progress draws on stderr and leaves the output alone.
expect_status 0 "$RTFCONV" rtf2txt --progress "$TMP/a.rtf"
expect_file_bytes "$TMP/out" 'first\n'
grep -q '100%' "$TMP/err" && grep -q 'MiB/s' "$TMP/err" || fail "--progress drew: $(cat "$TMP/err")"
# For a batch it counts files.
expect_status 0 "$RTFCONV" rtf2txt --progress --output-dir "$TMP/outdir4" "$TMP/a.rtf" "$TMP/b.rtf" "$TMP/c.RTF"
grep -q '100%  3 / 3 files' "$TMP/err" && grep -q 'files/s' "$TMP/err" || fail "--progress on a batch drew: $(cat "$TMP/err")"
# Not asked for and not on a terminal: no bar.
expect_status 0 "$RTFCONV" rtf2txt "$TMP/a.rtf"
[ ! -s "$TMP/err" ] || fail "a bar without --progress: $(cat "$TMP/err")"

finish
