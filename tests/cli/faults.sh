#!/usr/bin/env bash
# The tool under faults: interrupted mid-write, a full disk, an output folder
# removed mid-run, one bad input among many converted in parallel. None may
# leave a partial output file behind or spoil the other outputs.
source "$(dirname "$0")/lib.sh"
trap 'umount "$TMP/small" 2>/dev/null; rm -rf "$TMP"' EXIT
# Background jobs in a script of their own process group, so that SIGINT
# reaches them rather than being ignored as in a non-interactive shell.
set -m

# A document whose text (about 300 KB) is larger than the output buffer, so
# that part of it is on disk while the run goes on.
{
    printf '{\\rtf1\\ansi '
    for i in $(seq 1 3000); do printf 'Paragraph %d holds a line of ordinary words to fill the output.\\par\n' "$i"; done
    printf '}'
} >"$TMP/big.rtf"
printf '{\\rtf1\\ansi small\\par}' >"$TMP/small.rtf"

# wait_for TEST...: waits (up to about 20 s) until the test holds; false if it never does.
wait_for() {
    for _ in $(seq 1 1000); do
        "$@" && return 0
        sleep 0.02
    done
    return 1
}
# temp_files DIR: the temporary output files in DIR.
temp_files() { find "$1" -maxdepth 1 -name '.*.??????' -type f; }
has_written_temp() { [ -n "$(find "$1" -maxdepth 1 -name '.*.??????' -type f -size +0)" ]; }
has_temp_files() { [ "$(temp_files "$1" | wc -l)" -ge "$2" ]; }

# Interrupted mid-write: the tool has written the big input's text to its
# temporary file and waits to open a FIFO (no writer yet) as the next input.
# SIGINT and SIGTERM leave the old target as it was, and no temporary file.
for signal in INT TERM; do
    want=$((128 + $(kill -l "$signal")))
    mkdir -p "$TMP/sig"
    rm -f "$TMP/fifo" && mkfifo "$TMP/fifo"
    printf 'OLD' >"$TMP/sig/target.txt"
    "$RTFCONV" rtf2txt -o "$TMP/sig/target.txt" "$TMP/big.rtf" "$TMP/fifo" 2>"$TMP/err" &
    pid=$!
    wait_for has_written_temp "$TMP/sig" || fail "SIG$signal: the tool never started writing"
    kill -"$signal" "$pid"
    wait "$pid" 2>/dev/null
    status=$?
    [ "$status" -eq "$want" ] || fail "SIG$signal: status $status, expected $want"
    expect_file_bytes "$TMP/sig/target.txt" 'OLD'
    [ -z "$(temp_files "$TMP/sig")" ] || fail "SIG$signal left: $(temp_files "$TMP/sig")"
done

# The same with -j 2 and --output-dir: both outputs being written are removed.
mkdir "$TMP/sigdir"
rm -f "$TMP/fifo" && mkfifo "$TMP/fifo" "$TMP/fifo2"
"$RTFCONV" rtf2txt -j 2 --output-dir "$TMP/sigdir" "$TMP/fifo" "$TMP/fifo2" 2>"$TMP/err" &
pid=$!
wait_for has_temp_files "$TMP/sigdir" 2 || fail "-j 2: the tool never opened both outputs"
kill -INT "$pid"
wait "$pid" 2>/dev/null
status=$?
[ "$status" -eq 130 ] || fail "-j 2 SIGINT: status $status, expected 130"
[ -z "$(ls -A "$TMP/sigdir")" ] || fail "-j 2 SIGINT left: $(ls -A "$TMP/sigdir")"

# A full disk: status 3, the file named.
expect_status 3 "$RTFCONV" rtf2txt -o /dev/full "$TMP/small.rtf"
[ "$(cat "$TMP/err")" = "rtfconv: cannot write /dev/full: No space left on device" ] || fail "/dev/full: $(cat "$TMP/err")"
"$RTFCONV" rtf2txt "$TMP/small.rtf" >/dev/full 2>"$TMP/err"
status=$?
[ "$status" -eq 3 ] && [ "$(cat "$TMP/err")" = "rtfconv: cannot write standard output: No space left on device" ] ||
    fail "standard output on /dev/full: status $status, $(cat "$TMP/err")"

# A small file system that fills up (when this run may mount one): the output
# that does not fit fails and leaves nothing; the one before it stays whole.
mkdir "$TMP/small"
if mount -t tmpfs -o size=64k tmpfs "$TMP/small" 2>/dev/null; then
    expect_status 3 "$RTFCONV" rtf2txt -o "$TMP/small/out.txt" "$TMP/big.rtf"
    [ "$(cat "$TMP/err")" = "rtfconv: $TMP/big.rtf: cannot write $TMP/small/out.txt: No space left on device" ] ||
        fail "full tmpfs: $(cat "$TMP/err")"
    [ -z "$(ls -A "$TMP/small")" ] || fail "full tmpfs left: $(ls -A "$TMP/small")"
    expect_status 3 "$RTFCONV" rtf2txt -j 1 --output-dir "$TMP/small" "$TMP/small.rtf" "$TMP/big.rtf"
    [ "$(tail -n 1 "$TMP/err")" = "rtfconv: 1 of 2 inputs failed: $TMP/big.rtf" ] || fail "full tmpfs: $(cat "$TMP/err")"
    [ "$(ls -A "$TMP/small")" = "small.txt" ] || fail "full tmpfs, --output-dir: $(ls -A "$TMP/small")"
    expect_file_bytes "$TMP/small/small.txt" 'small\n'
    umount "$TMP/small"
else
    echo "skipped: cannot mount a tmpfs here"
fi

# The output folder removed mid-run: the input being converted and those after
# it fail, each naming the folder; the summary names them.
rm -f "$TMP/fifo" && mkfifo "$TMP/fifo"
"$RTFCONV" rtf2txt -j 1 --output-dir "$TMP/gone" "$TMP/small.rtf" "$TMP/fifo" "$TMP/big.rtf" 2>"$TMP/err" &
pid=$!
wait_for has_temp_files "$TMP/gone" 1 || fail "the tool never opened the FIFO's output"
rm -rf "$TMP/gone"
printf '{\\rtf1 late}' >"$TMP/fifo"
wait "$pid" 2>/dev/null
status=$?
[ "$status" -eq 3 ] || fail "vanished folder: status $status, expected 3"
cat >"$TMP/expected" <<EOF
rtfconv: $TMP/fifo: cannot write $TMP/gone/fifo.txt: the folder $TMP/gone does not exist
rtfconv: $TMP/big.rtf: cannot write $TMP/gone/big.txt: the folder $TMP/gone does not exist
rtfconv: 2 of 3 inputs failed: $TMP/fifo, $TMP/big.rtf
EOF
cmp -s "$TMP/err" "$TMP/expected" || fail "vanished folder: $(cat "$TMP/err")"
[ ! -e "$TMP/gone" ] || fail "the vanished folder came back: $(ls -A "$TMP/gone")"

# With -j 3 a failing input stops nothing else and spoils no other output.
printf 'not RTF\n' >"$TMP/words.txt"
cp "$TMP/small.rtf" "$TMP/c.rtf"
expect_status 3 "$RTFCONV" rtf2txt -j 3 --output-dir "$TMP/many" \
    "$TMP/big.rtf" "$TMP/words.txt" "$TMP/small.rtf" "$TMP/missing.rtf" "$TMP/c.rtf"
[ "$(tail -n 1 "$TMP/err")" = "rtfconv: 2 of 5 inputs failed: $TMP/words.txt, $TMP/missing.rtf" ] ||
    fail "-j 3 summary: $(cat "$TMP/err")"
grep -qxF "rtfconv: $TMP/words.txt: not RTF (looks like plain text)" "$TMP/err" || fail "-j 3: $(cat "$TMP/err")"
[ "$(ls -A "$TMP/many" | tr '\n' ' ')" = "big.txt c.txt small.txt " ] || fail "-j 3 wrote: $(ls -A "$TMP/many")"
for name in big small c; do
    "$RTFCONV" rtf2txt "$TMP/$name.rtf" >"$TMP/single"
    cmp -s "$TMP/single" "$TMP/many/$name.txt" || fail "-j 3: $name.txt differs from a single run"
done

finish
