#!/usr/bin/env bash
# rtf2old: old-format text, pictures saved with --attachments, table tags, and
# a framework exception reported as one line with the byte offset.
source "$(dirname "$0")/lib.sh"

png='89504e470d0a1a0a0000000d49484452'
printf '{\\rtf1{\\fonttbl{\\f0\\fswiss Arial;}}\\f0\\fs24 Hi{\\pict\\pngblip %s}x\\cell y\\row}' "$png" >"$TMP/doc.rtf"

# The folder is created, the picture saved as 00.png with its bytes, and the
# attachment command with index 00 stands in the text.
expect_status 0 "$RTFCONV" rtf2old --attachments "$TMP/att/new" "$TMP/doc.rtf"
[ -f "$TMP/att/new/00.png" ] || fail "--attachments: no 00.png in $(ls -R "$TMP/att" 2>&1)"
printf '\211PNG\r\n\032\n\000\000\000\rIHDR' | cmp -s - "$TMP/att/new/00.png" || fail "00.png bytes: $(od -An -c "$TMP/att/new/00.png")"
grep -qa "$(printf '\001A')" "$TMP/out" || fail "no attachment command in $(od -An -c "$TMP/out" | head -c 300)"

# Without a filter the picture is dropped; cells and rows give tabs and
# paragraph marks, or table tags with --table-tags.
expect_status 0 "$RTFCONV" rtf2old "$TMP/doc.rtf"
grep -qa "$(printf 'Hix\ty\r')" "$TMP/out" || fail "cells as tabs: $(od -An -c "$TMP/out")"
expect_status 0 "$RTFCONV" rtf2old --table-tags --source ptr "$TMP/doc.rtf"
grep -qa "$(printf '\001CT:EndCell\002y')" "$TMP/out" || fail "--table-tags: $(od -An -c "$TMP/out")"

# A colour index of -1 raises out of the library with --exact: exit 1, one
# line naming the input and the offset reached, for both sources. Without
# --exact it is ignored and the text is kept.
printf '{\\rtf1 a\\cf-1 b}' >"$TMP/bad.rtf"
for source in stream ptr; do
    expect_status 1 "$RTFCONV" rtf2old --exact --source "$source" "$TMP/bad.rtf"
    expect_one_error_line "bad.rtf: invalid argument at byte offset"
    expect_status 0 "$RTFCONV" rtf2old --source "$source" "$TMP/bad.rtf"
    [ "$(cat "$TMP/out")" = "ab" ] || fail "lossless --source $source: $(od -An -c "$TMP/out")"
done

# A character no Windows code page holds becomes '?', with one warning that
# counts them; Cyrillic goes into a RUSSIAN_CHARSET font command. --exact
# reads the fallbacks and says nothing.
printf '{\\rtf1 \\u1055?a\\u-10179?\\u-8704?b\\u-10179?\\u-8703?}' >"$TMP/chars.rtf"
expect_status 0 "$RTFCONV" rtf2old --raw "$TMP/chars.rtf"
expect_file_bytes "$TMP/out" '\001F---\312:-\002\317a?b?'
expect_one_error_line "chars.rtf: 2 characters that no Windows code page holds became '?'"
expect_status 0 "$RTFCONV" rtf2old --raw --exact "$TMP/chars.rtf"
expect_file_bytes "$TMP/out" '?a??b??'
[ -s "$TMP/err" ] && fail "--exact warned: $(cat "$TMP/err")"

# Every corpus file (the few that are not RTF read with --force) converts
# without hanging under both sources, with 64-byte and 65536-byte buffers, and
# with status 0: without --exact no exception leaves the library. The time
# limit only catches a hang: a sanitizer build on a loaded machine is slow.
# The texts differ by design: each buffer after the first opens with the
# current layout and font commands again.
corpus=${2:-}
if [ -n "$corpus" ]; then
    for rtf in "$corpus"/*.rtf; do
        name=$(basename "$rtf")
        for source in stream ptr; do
            timeout 60 "$RTFCONV" -q rtf2old --force --source "$source" "$rtf" >"$TMP/big" 2>"$TMP/err"
            big=$?
            timeout 60 "$RTFCONV" -q rtf2old --force --source "$source" --buffer 64 "$rtf" >"$TMP/small" 2>"$TMP/err"
            small=$?
            case "$big$small" in
            00) ;;
            *) fail "$name ($source): status $big with 65536, $small with 64 ($(head -c 200 "$TMP/err"))" ;;
            esac
        done
    done
fi
finish
