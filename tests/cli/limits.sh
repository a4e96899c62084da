#!/usr/bin/env bash
# The readers' limits from the command line: one warning per kind of limit a
# document reached, naming it, none within the limits, and memory that stays
# bounded for 10 million nested groups through every reader.
source "$(dirname "$0")/lib.sh"
SANITIZERS=${2:-}  # the sanitizers the tool was built with, if any

# peak_kb CMD...: runs CMD (output in $TMP/out, stderr in $TMP/err) and
# prints its peak resident set in KiB, as the kernel accounts it.
peak_kb() {
    TMP="$TMP" python3 - "$@" <<'PY'
import os, resource, subprocess, sys
tmp = os.environ["TMP"]
with open(tmp + "/out", "wb") as out, open(tmp + "/err", "wb") as err:
    subprocess.run(sys.argv[1:], stdout=out, stderr=err)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
PY
}

# expect_limit_warning LIMIT-NAME CMD...: succeeds with one warning naming the limit.
expect_limit_warning() {
    local name=$1
    shift
    expect_status 0 "$@"
    expect_one_error_line "$name limit reached"
}
# expect_no_warning CMD...
expect_no_warning() {
    expect_status 0 "$@"
    [ ! -s "$TMP/err" ] || fail "no warning expected from $*, got: $(cat "$TMP/err")"
}

nest() { # nest N TEXT: TEXT inside N groups
    printf '%*s' "$1" '' | tr ' ' '{'
    printf '%s' "$2"
    printf '%*s' "$1" '' | tr ' ' '}'
}

# Group depth: at, below and above --max-depth, through every reader.
nest 4 x >"$TMP/depth4.rtf"
for cmd in "rtf2txt" "rtf2txt --raw" "rtf2old --source ptr" "rtf2old --source stream"; do
    for limit in 4 5; do
        expect_no_warning "$RTFCONV" $cmd --max-depth $limit "$TMP/depth4.rtf"
        expect_file_bytes "$TMP/out" 'x'
    done
    expect_limit_warning "group depth" "$RTFCONV" $cmd --max-depth 3 "$TMP/depth4.rtf"
    expect_file_bytes "$TMP/out" 'x'
    grep -qF "$TMP/depth4.rtf" "$TMP/err" || fail "the warning does not name the input: $(cat "$TMP/err")"
    expect_status 0 "$RTFCONV" $cmd -q --max-depth 3 "$TMP/depth4.rtf"
    [ ! -s "$TMP/err" ] || fail "-q should silence the limit warning: $(cat "$TMP/err")"
done

# Attachment size: a 4-byte picture is saved with --max-attachment 4, dropped with 3.
printf '{\\rtf1 a{\\pict\\pngblip 89504e47}b}' >"$TMP/pict.rtf"
expect_no_warning "$RTFCONV" rtf2old --attachments "$TMP/at" --max-attachment 4 "$TMP/pict.rtf"
expect_file_bytes "$TMP/out" 'a\001A00\002b'
expect_file_bytes "$TMP/at/00.png" '\211PNG'
expect_limit_warning "attachment size" "$RTFCONV" rtf2old --attachments "$TMP/above" --max-attachment 3 "$TMP/pict.rtf"
expect_file_bytes "$TMP/out" 'ab'
[ ! -e "$TMP/above/00.png" ] || fail "a picture above --max-attachment was saved"
expect_no_warning "$RTFCONV" rtf2old --attachments "$TMP/kb" --max-attachment 1KB "$TMP/pict.rtf"

# The table and text limits, each just above and at the document's need.
printf '{\\rtf1{\\fonttbl{\\f0 Arial;}{\\f1 Times;}}{\\colortbl;\\red255;}{\\field{\\*\\fldinst HYPERLINK a.b}{\\fldrslt go}}{\\pn\\pndec{\\pntxtb AB}}\\f1\\cf1 x}' >"$TMP/tables.rtf"
while read -r option above at name; do
    expect_limit_warning "$name" "$RTFCONV" rtf2old $option $above "$TMP/tables.rtf"
    expect_no_warning "$RTFCONV" rtf2old $option $at "$TMP/tables.rtf"
done <<'ROWS'
--max-fonts 1 2 font table entries
--max-font-name 4 5 font name length
--max-colors 2 3 colour table entries
--max-field-text 12 13 field text length
--max-numbering-text 1 2 numbering text length
ROWS
expect_limit_warning "font table entries" "$RTFCONV" rtf2txt --max-fonts 1 "$TMP/tables.rtf"
expect_status 2 "$RTFCONV" rtf2txt --max-depth 0 "$TMP/tables.rtf"

# 10 million nested groups: at most 64 MiB above the input's size, through
# every reader (the depth limit's whole point: unlimited, the readers took
# from 330 MB to 1.3 GB).
if [ -n "$SANITIZERS" ]; then
    echo "peak memory not measured: the tool runs under $SANITIZERS"
    finish
    exit 0
fi
nest 10000000 x >"$TMP/deep.rtf"
input_kb=$(($(stat -c %s "$TMP/deep.rtf") / 1024))
for cmd in "rtf2txt" "rtf2txt --raw" "rtf2old --source ptr" "rtf2old --source stream"; do
    peak=$(peak_kb "$RTFCONV" $cmd "$TMP/deep.rtf")
    expect_file_bytes "$TMP/out" 'x'
    [ "$peak" -le $((input_kb + 65536)) ] ||
        fail "$cmd: 10 M nested groups took $peak KiB, more than the input ($input_kb KiB) + 64 MiB"
done

finish
