#!/usr/bin/env bash
# Every corpus file (with --force, the few that are not RTF too) converts with
# rtf2txt --raw within 10 seconds and without a crash (malformed RTF is not a
# failure: status 0), and a 7-byte read buffer
# gives the same bytes as the default 65536.
# Usage: corpus.sh path/to/rtfconv path/to/corpus/rtf
source "$(dirname "$0")/lib.sh"
CORPUS=${2:?usage: $0 path/to/rtfconv path/to/corpus}
count=0
for rtf in "$CORPUS"/*.rtf; do
    count=$((count + 1))
    name=$(basename "$rtf")
    timeout 60 "$RTFCONV" -q rtf2txt --raw --force "$rtf" >"$TMP/default" 2>"$TMP/err"
    status=$?
    if [ "$status" -ne 0 ]; then
        fail "$name: status $status ($(head -c 200 "$TMP/err"))"
        continue
    fi
    timeout 60 "$RTFCONV" -q rtf2txt --raw --force --buffer 7 "$rtf" >"$TMP/small" 2>"$TMP/err"
    status=$?
    if [ "$status" -ne 0 ]; then
        fail "$name --buffer 7: status $status ($(head -c 200 "$TMP/err"))"
        continue
    fi
    cmp -s "$TMP/default" "$TMP/small" || fail "$name: --buffer 7 differs from --buffer 65536 ($(cmp "$TMP/default" "$TMP/small" 2>&1))"
done
[ "$count" -gt 0 ] || fail "no corpus files in $CORPUS"
echo "$count files"
finish
