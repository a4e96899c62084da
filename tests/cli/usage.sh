#!/usr/bin/env bash
# Exit statuses, error lines, --help and --version.
source "$(dirname "$0")/lib.sh"

printf '{\\rtf1\\ansi Hello\\par World}' >"$TMP/doc.rtf"
mkdir "$TMP/dir"

# --help and --version succeed and say what they should.
expect_status 0 "$RTFCONV" --help
grep -q "rtf2txt" "$TMP/out" || fail "--help does not list rtf2txt"
expect_status 0 "$RTFCONV" rtf2txt --help
grep -q -- "--buffer" "$TMP/out" && grep -q -- "--raw" "$TMP/out" || fail "rtf2txt --help lacks its options"
expect_status 0 "$RTFCONV" --version
grep -Eq '^rtfconv [0-9]+\.[0-9]+\.[0-9]+ \(library rtfconverter [0-9]+\.[0-9]+\.[0-9]+\)$' "$TMP/out" ||
    fail "--version printed: $(cat "$TMP/out")"

# Wrong usage: 2.
expect_status 2 "$RTFCONV"
expect_status 2 "$RTFCONV" nosuchcommand
expect_status 2 "$RTFCONV" rtf2txt --nosuchoption "$TMP/doc.rtf"
expect_status 2 "$RTFCONV" rtf2txt --codepage nosuchcodepage "$TMP/doc.rtf"
expect_status 2 "$RTFCONV" rtf2txt --raw --utf8 "$TMP/doc.rtf"
expect_status 2 "$RTFCONV" rtf2txt --buffer 0 "$TMP/doc.rtf"
expect_status 2 "$RTFCONV" rtf2txt -q -v "$TMP/doc.rtf"
expect_status 2 "$RTFCONV" rtf2txt -o "$TMP/x.txt" --output-dir "$TMP/out.d" "$TMP/doc.rtf"

# A run naming its command first defines that command alone (a faster start);
# with a tool option first it defines them all. Both runs must say the same.
while read -r args; do
    run "$RTFCONV" $args </dev/null
    first="$status $(cat "$TMP/out" "$TMP/err")"
    run "$RTFCONV" -q $args </dev/null
    [ "$first" = "$status $(cat "$TMP/out" "$TMP/err")" ] || fail "'$args' differs from '-q $args'"
done <<EOF
rtf2txt --help
rtf2txt --nosuchoption $TMP/doc.rtf
rtf2txt --rwa $TMP/doc.rtf
rtf2txt show $TMP/doc.rtf
rtf2txt rtf2old
rtf2old --exact $TMP/doc.rtf -o -
old2rtf --eol bad $TMP/doc.rtf
txt2rtf --bogus
show --help
EOF
# The generated documents list every command whichever one a run names.
run "$RTFCONV" --generate man
cp "$TMP/out" "$TMP/man.all"
expect_status 0 "$RTFCONV" rtf2txt --generate man
cmp -s "$TMP/out" "$TMP/man.all" || fail "'rtf2txt --generate man' is not the whole man page"

# Unreadable input or unwritable output: 3, one line naming the file.
expect_status 3 "$RTFCONV" rtf2txt "$TMP/missing.rtf"
expect_one_error_line "$TMP/missing.rtf"
expect_status 3 "$RTFCONV" rtf2txt "$TMP/dir"
expect_one_error_line "$TMP/dir"
expect_status 3 "$RTFCONV" rtf2txt -o "$TMP/missing-dir/out.txt" "$TMP/doc.rtf"
expect_one_error_line "$TMP/missing-dir/out.txt"
expect_status 3 "$RTFCONV" rtf2txt -o "$TMP/dir" "$TMP/doc.rtf"
expect_one_error_line "$TMP/dir"
[ -z "$(ls -A "$TMP/dir")" ] || fail "a failed write left files behind: $(ls -A "$TMP/dir")"

# Malformed RTF is not a failure; -q keeps the library's reports off stderr.
printf '{\\rtf1 {{{\\b x}}} \\pndec y}}}}\\' >"$TMP/bad.rtf"
expect_status 0 "$RTFCONV" -q rtf2txt "$TMP/bad.rtf"
[ ! -s "$TMP/err" ] || fail "-q still printed: $(cat "$TMP/err")"
printf 'not rtf at all' >"$TMP/plain.txt"
expect_status 0 "$RTFCONV" rtf2txt --force - <"$TMP/plain.txt"

# -v shows the library's assertion reports (the 8-bit converter's full buffer at a paragraph end reports "bOk").
expect_status 0 "$RTFCONV" rtf2txt -v --raw --buffer 1 "$TMP/doc.rtf"
grep -q '"bOk"' "$TMP/err" || fail "-v did not show the library's assertion: $(cat "$TMP/err")"

finish
