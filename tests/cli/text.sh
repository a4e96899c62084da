#!/usr/bin/env bash
# rtf2txt text: UTF-8 with LF by default, the library's bytes with --raw, the
# code page from \ansicpgN or --codepage, and the same text whatever --buffer.
source "$(dirname "$0")/lib.sh"

# cp1252: 0x81 is undefined there and becomes U+FFFD; 0x80 is the euro sign.
printf '{\\rtf1\\ansi\\ansicpg1252 caf\\'"'"'e9\\par na\\'"'"'efve\\line x\\'"'"'81y\\'"'"'80}' >"$TMP/cp1252.rtf"
expect_status 0 "$RTFCONV" rtf2txt --raw "$TMP/cp1252.rtf"
expect_file_bytes "$TMP/out" 'caf\351\rna\357ve\nx\201y\200'
expect_status 0 "$RTFCONV" rtf2txt "$TMP/cp1252.rtf"
expect_file_bytes "$TMP/out" 'caf\303\251\nna\303\257ve\nx\357\277\275y\342\202\254\n'
expect_status 0 "$RTFCONV" rtf2txt --utf8 "$TMP/cp1252.rtf"
expect_file_bytes "$TMP/out" 'caf\303\251\nna\303\257ve\nx\357\277\275y\342\202\254\n'

# cp1251: "Привет", "мир".
printf '{\\rtf1\\ansi\\ansicpg1251 \\'"'"'cf\\'"'"'f0\\'"'"'e8\\'"'"'e2\\'"'"'e5\\'"'"'f2\\par \\'"'"'ec\\'"'"'e8\\'"'"'f0}' >"$TMP/cp1251.rtf"
expect_status 0 "$RTFCONV" rtf2txt --raw "$TMP/cp1251.rtf"
expect_file_bytes "$TMP/out" '\317\360\350\342\345\362\r\354\350\360'
expect_status 0 "$RTFCONV" rtf2txt "$TMP/cp1251.rtf"
expect_file_bytes "$TMP/out" '\320\237\321\200\320\270\320\262\320\265\321\202\n\320\274\320\270\321\200\n'

# Without \ansicpg the text is cp1252 unless --codepage names another page.
printf '{\\rtf1\\ansi \\'"'"'e9}' >"$TMP/nocp.rtf"
expect_status 0 "$RTFCONV" rtf2txt "$TMP/nocp.rtf"
expect_file_bytes "$TMP/out" '\303\251\n'
expect_status 0 "$RTFCONV" rtf2txt --codepage 1251 "$TMP/nocp.rtf"
expect_file_bytes "$TMP/out" '\320\271\n'
expect_status 0 "$RTFCONV" rtf2txt --codepage KOI8-R "$TMP/cp1251.rtf"
expect_file_bytes "$TMP/out" '\320\276\320\237\320\245\320\221\320\225\320\240\n\320\233\320\245\320\237\n' # KOI8-R reads it as "оПХБЕР", "ЛХП"
expect_status 0 "$RTFCONV" rtf2txt --codepage 20866 "$TMP/cp1251.rtf"
expect_file_bytes "$TMP/out" '\320\276\320\237\320\245\320\221\320\225\320\240\n\320\233\320\245\320\237\n' # the same page by number

# \uN with its fallback, a Cyrillic font in a cp1252 document, and --newline.
printf '{\\rtf1\\ansi\\ansicpg1252{\\fonttbl{\\f1\\fcharset204 A;}}\\u8212\\'"'"'97{\\f1 \\'"'"'cf}\\par x}' >"$TMP/unicode.rtf"
expect_status 0 "$RTFCONV" rtf2txt --newline crlf "$TMP/unicode.rtf"
expect_file_bytes "$TMP/out" '\342\200\224\320\237\r\nx\r\n'

# A code page iconv does not know: read as cp1252, with one warning unless -q.
printf '{\\rtf1\\ansi\\ansicpg99999 \\'"'"'e9}' >"$TMP/oddcp.rtf"
expect_status 0 "$RTFCONV" rtf2txt "$TMP/oddcp.rtf"
expect_file_bytes "$TMP/out" '\303\251\n'
expect_one_error_line "99999"
expect_status 0 "$RTFCONV" -q rtf2txt "$TMP/oddcp.rtf"
[ ! -s "$TMP/err" ] || fail "-q still warned: $(cat "$TMP/err")"

# A double-byte character split between two Read buffers (cp932 "あ").
printf '{\\rtf1\\ansi\\ansicpg932 \\'"'"'82\\'"'"'a0!}' >"$TMP/cp932.rtf"
expect_status 0 "$RTFCONV" rtf2txt --buffer 1 "$TMP/cp932.rtf"
expect_file_bytes "$TMP/out" '\343\201\202!\n'

# Headers and footers only with --headers; footnotes after the body.
printf '{\\rtf1 {\\header Head\\par}Body{\\footnote Note}\\par}' >"$TMP/notes.rtf"
expect_status 0 "$RTFCONV" rtf2txt "$TMP/notes.rtf"
expect_file_bytes "$TMP/out" 'Body[1]\n\n[1] Note\n'
expect_status 0 "$RTFCONV" rtf2txt --headers "$TMP/notes.rtf"
expect_file_bytes "$TMP/out" 'Head\nBody[1]\n\n[1] Note\n'

# --buffer 1 and 7 give the bytes of the default buffer where no number is due.
printf '{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}{\\info{\\title T}}\\trowd\\cellx100\\cellx200 a\\cell b\\cell\\row {\\field{\\*\\fldinst HYPERLINK "x"}{\\fldrslt link}}\\par tab\\tab line\\line end\\par}' >"$TMP/mixed.rtf"
for doc in cp1252 cp1251 mixed; do
    "$RTFCONV" rtf2txt --raw "$TMP/$doc.rtf" >"$TMP/default"
    for size in 1 7; do
        "$RTFCONV" rtf2txt --raw --buffer "$size" "$TMP/$doc.rtf" >"$TMP/small"
        cmp -s "$TMP/default" "$TMP/small" || fail "$doc: --buffer $size differs from the default"
    done
done
expect_file_bytes "$TMP/default" 'a\tb\t\rlink\rtab\tline\nend\r'

# A number text longer than the buffer: the tool grows the buffer instead of
# looping, and the text is the same as with the default buffer.
long=$(printf 'x%.0s' $(seq 300))
printf '{\\rtf1\\ansi\\pard{\\*\\pn\\pnlvl1\\pnstart1\\pndec{\\pntxtb %s}{\\pntxta .}}Item\\par}' "$long" >"$TMP/numbered.rtf"
expect_status 0 timeout 10 "$RTFCONV" rtf2txt --raw --buffer 1 "$TMP/numbered.rtf"
expect_file_bytes "$TMP/out" "${long}1.\\tItem\\r"

finish
