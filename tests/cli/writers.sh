#!/usr/bin/env bash
# old2rtf and txt2rtf: the documents, --font, --attachments, UTF-8 input and usage errors.
source "$(dirname "$0")/lib.sh"

front='{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}}{\\colortbl;\\red0\\green0\\blue0;}'

# old2rtf --raw --exact: the library's document, old-format bytes taken as they are.
printf 'Hi \001F12-B:-\002bold\r\351' >"$TMP/note.old"
expect_status 0 "$RTFCONV" old2rtf --raw --exact "$TMP/note.old"
expect_file_bytes "$TMP/out" "$front"'{\\stylesheet{\\f0\\fs20 Normal;}}\\pard\\f0\\fs20\\cf1 Hi \\fs24\\cf1\\b bold\\par \351\\par }'
expect_status 0 "$RTFCONV" old2rtf --font 'Times New Roman:12:204' -o "$TMP/note.rtf" "$TMP/note.old"
grep -qF '{\f0\fcharset204\froman Times New Roman;}' "$TMP/note.rtf" || fail "--font: $(head -c 200 "$TMP/note.rtf")"
grep -qF '{\stylesheet{\f0\fs24 Normal;}}\pard\f0\fs24\cf1 Hi \cf1\b bold' "$TMP/note.rtf" || fail "--font size: $(cat "$TMP/note.rtf")"
# By default the text is UTF-8, converted to the code page first, and bytes
# above 0x7F are written as \'hh; --exact writes them as they are.
printf 'caf\303\251' | "$RTFCONV" old2rtf --utf8 >"$TMP/out" || fail "old2rtf --utf8"
grep -qF "caf\\'e9\\par }" "$TMP/out" || fail "old2rtf --utf8: $(cat "$TMP/out")"
printf 'caf\303\251' | "$RTFCONV" old2rtf --exact >"$TMP/out" || fail "old2rtf --exact"
grep -qF "$(printf 'caf\351\\par }')" "$TMP/out" || fail "old2rtf --exact: $(cat "$TMP/out")"
# Double-byte text in its font's character set, from UTF-8 (rtf2old writes it so) and from 8-bit bytes.
printf '\001F---\303\213:MS Gothic\002\350\241\250\345\261\244' | "$RTFCONV" old2rtf >"$TMP/out" || fail "old2rtf Shift-JIS"
grep -qF "{\\f1\\fcharset128\\fswiss MS Gothic;}" "$TMP/out" || fail "old2rtf Shift-JIS font: $(cat "$TMP/out")"
grep -qF "\\'95\\'5c\\'91\\'77\\par }" "$TMP/out" || fail "old2rtf Shift-JIS text: $(cat "$TMP/out")"
printf '\001F---\313:MS Gothic\002\225\134\221\167' | "$RTFCONV" old2rtf --raw >"$TMP/out2" || fail "old2rtf --raw Shift-JIS"
cmp -s "$TMP/out" "$TMP/out2" || fail "old2rtf --raw Shift-JIS: $(cat "$TMP/out2")"
# A character the page in force cannot hold is written in a font of a
# character set that holds it; one no page holds fails the conversion, or is
# '?' with --lossy.
printf '\320\226' >"$TMP/zhe.old"
expect_status 0 "$RTFCONV" old2rtf "$TMP/zhe.old"
grep -qF "{\\f1\\fcharset204\\fswiss Arial;}" "$TMP/out" || fail "old2rtf Cyrillic font: $(cat "$TMP/out")"
grep -qF "\\f1\\cf1 \\'c6\\f0 \\par }" "$TMP/out" || fail "old2rtf Cyrillic: $(cat "$TMP/out")"
expect_status 0 "$RTFCONV" old2rtf --codepage 1251 "$TMP/zhe.old"
grep -qF "\\cf1 \\'c6\\par }" "$TMP/out" || fail "old2rtf --codepage: $(cat "$TMP/out")"
printf '\360\237\230\200' >"$TMP/emoji.old"
expect_status 1 "$RTFCONV" old2rtf "$TMP/emoji.old"
expect_one_error_line "--lossy"
expect_status 0 "$RTFCONV" old2rtf --lossy "$TMP/emoji.old"
grep -qF '\cf1 ?\par }' "$TMP/out" || fail "old2rtf --lossy: $(cat "$TMP/out")"

# --attachments: 00.bmp a picture, 01.ole an object with 01.bmp as its picture,
# 02.link a link, 03 nothing (a placeholder). A 1x1 24-bit bitmap:
bmp='BM\072\000\000\000\000\000\000\000\066\000\000\000\050\000\000\000\001\000\000\000\001\000\000\000\001\000\030\000\000\000\000\000\004\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\377\000\000\000'
mkdir "$TMP/att"
printf "$bmp" >"$TMP/att/00.bmp"
printf "$bmp" >"$TMP/att/01.bmp"
printf 'OLE' >"$TMP/att/01.ole"
printf 'LNK' >"$TMP/att/02.link"
printf 'a\001A00\002b\001A01\002c\001A02\002d\001A03\002' >"$TMP/att.old"
expect_status 0 "$RTFCONV" old2rtf --attachments "$TMP/att" "$TMP/att.old"
dib='28000000010000000100000001001800000000000400000000000000000000000000000000000000ff000000'
pict="{\\pict\\dibitmap0\\wbmbitspixel24\\wbmplanes1\\wbmwidthbytes4\\picw1\\pich1 $dib}"
grep -qF "a${pict}b{\\object\\objemb{\\*\\objdata 4f4c45}{\\result${pict}}}c{\\object\\objlink{\\*\\objdata 4c4e4b}}d\\objattph\\'20\\par }" "$TMP/out" ||
    fail "--attachments: $(cat "$TMP/out")"
expect_status 0 "$RTFCONV" old2rtf "$TMP/att.old"
grep -qF '\pard\f0\fs20\cf1 abcd\par }' "$TMP/out" || fail "no --attachments: $(cat "$TMP/out")"
printf 'not a bitmap' >"$TMP/att/03.bmp"
expect_status 0 "$RTFCONV" old2rtf --attachments "$TMP/att" "$TMP/att.old"
expect_one_error_line "03.bmp"
grep -qF "d\\objattph\\'20" "$TMP/out" || fail "a bad bitmap is a placeholder: $(cat "$TMP/out")"

# rtf2old writes UTF-8 decoded with each font's character set, --raw the
# bytes; old2rtf reads either back to the same RTF.
printf '{\\rtf1{\\fonttbl{\\f0\\fswiss\\fcharset204 Arial;}}\\f0 \\'"'"'cf\\'"'"'f0\\'"'"'e8\\par}' >"$TMP/ru.rtf"
expect_status 0 "$RTFCONV" rtf2old -o "$TMP/ru.old" "$TMP/ru.rtf"
grep -qF "$(printf '\320\237\321\200\320\270')" "$TMP/ru.old" || fail "rtf2old UTF-8: $(od -An -c "$TMP/ru.old")"
expect_status 0 "$RTFCONV" rtf2old --raw -o "$TMP/ru.raw" "$TMP/ru.rtf"
grep -qF "$(printf '\317\360\350')" "$TMP/ru.raw" || fail "rtf2old --raw: $(od -An -c "$TMP/ru.raw")"
expect_status 0 "$RTFCONV" old2rtf -o "$TMP/ru1.rtf" "$TMP/ru.old"
expect_status 0 "$RTFCONV" old2rtf --raw -o "$TMP/ru2.rtf" "$TMP/ru.raw"
cmp -s "$TMP/ru1.rtf" "$TMP/ru2.rtf" || fail "old2rtf of UTF-8 and of --raw differ: $(cat "$TMP/ru1.rtf") $(cat "$TMP/ru2.rtf")"
grep -qF "\\'cf\\'f0\\'e8" "$TMP/ru1.rtf" || fail "old2rtf Cyrillic: $(cat "$TMP/ru1.rtf")"

# Pictures saved by rtf2old --attachments come back through old2rtf
# --attachments in their own format, byte for byte; --exact leaves them placeholders.
png='89504e470d0a1a0a0000000d494844520000000200000003080200000012345678'
printf '{\\rtf1{\\fonttbl{\\f0\\fswiss Arial;}}\\f0 a{\\pict\\pngblip %s}b{\\pict\\jpegblip ffd8ffd9}c\\par}' "$png" >"$TMP/pict.rtf"
expect_status 0 "$RTFCONV" rtf2old --attachments "$TMP/pict1" -o "$TMP/pict.old" "$TMP/pict.rtf"
expect_status 0 "$RTFCONV" old2rtf --attachments "$TMP/pict1" -o "$TMP/pict2.rtf" "$TMP/pict.old"
grep -qF "a{\\pict\\pngblip\\picw2\\pich3\\picwgoal30\\pichgoal45 $png}b{\\pict\\jpegblip ffd8ffd9}c" "$TMP/pict2.rtf" ||
    fail "old2rtf pictures: $(cat "$TMP/pict2.rtf")"
expect_status 0 "$RTFCONV" rtf2old --attachments "$TMP/pict2" -o "$TMP/pict2.old" "$TMP/pict2.rtf"
for f in 00.png 01.jpg; do
    cmp -s "$TMP/pict1/$f" "$TMP/pict2/$f" || fail "$f differs after the round trip"
done
expect_status 0 "$RTFCONV" old2rtf --exact --attachments "$TMP/pict1" "$TMP/pict.old"
grep -qF "a\\objattph\\'20b\\objattph\\'20c" "$TMP/out" || fail "old2rtf --exact pictures: $(cat "$TMP/out")"

# txt2rtf: UTF-8 lines become paragraphs, cp1252 characters as bytes and the
# rest as \uN; --raw keeps the bytes.
unicode_front='{\\rtf1\\ansi\\ansicpg1252\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}}{\\colortbl;\\red0\\green0\\blue0;}\\uc1'
printf 'a{b}\tc\nd\r\ncaf\303\251\n' >"$TMP/notes.txt"
expect_status 0 "$RTFCONV" txt2rtf "$TMP/notes.txt"
expect_file_bytes "$TMP/out" "$unicode_front"'\\pard\\f0\\fs20\\cf0 a\\{b\\}\\tab c\\par d\\par caf\\'"'"'e9\\par }'
expect_status 0 "$RTFCONV" txt2rtf --raw "$TMP/notes.txt"
expect_file_bytes "$TMP/out" "$front"'\\pard\\f0\\fs20\\cf0 a\\{b\\}\\tab c\\line d\\par \\line caf\303\251\\line \\par }'
expect_status 0 "$RTFCONV" txt2rtf --font Courier:8 "$TMP/notes.txt"
grep -qF '\pard\f0\fs16\cf0 ' "$TMP/out" || fail "txt2rtf --font: $(cat "$TMP/out")"
printf '\342\202\254 \320\226' >"$TMP/euro.txt"
expect_status 0 "$RTFCONV" txt2rtf "$TMP/euro.txt"
grep -qF "$(printf '\\cf0 \\'"'"'80 \\u1046?}')" "$TMP/out" || fail "txt2rtf keeps every character: $(cat "$TMP/out")"
# A page named for iconv is the library's page of that name: 28591 has no euro.
expect_status 0 "$RTFCONV" txt2rtf --codepage ISO-8859-1 "$TMP/euro.txt"
grep -qF '\cf0 \u8364? \u1046?}' "$TMP/out" || fail "txt2rtf --codepage ISO-8859-1: $(cat "$TMP/out")"
expect_status 0 "$RTFCONV" txt2rtf --lossy "$TMP/euro.txt"
grep -qF "$(printf '\\cf0 \\'"'"'80 ?\\par }')" "$TMP/out" || fail "txt2rtf --lossy: $(cat "$TMP/out")"

# Input encodings: strict UTF-8 (the error names the byte offset), --from,
# UTF-16 by its byte-order mark, a UTF-8 byte-order mark dropped; the RTF is
# 7-bit ASCII.
printf 'Gr\366\337e' >"$TMP/latin1.txt"
expect_status 1 "$RTFCONV" txt2rtf "$TMP/latin1.txt"
expect_one_error_line "not UTF-8 at byte offset 2 (use --from latin1"
expect_status 0 "$RTFCONV" txt2rtf --from latin1 "$TMP/latin1.txt"
grep -qF "\\cf0 Gr\\'f6\\'dfe}" "$TMP/out" || fail "txt2rtf --from latin1: $(cat "$TMP/out")"
printf '\377\376G\000r\000\366\000\337\000e\000' >"$TMP/utf16.txt"
expect_status 0 "$RTFCONV" txt2rtf "$TMP/utf16.txt"
grep -qF "\\cf0 Gr\\'f6\\'dfe}" "$TMP/out" || fail "txt2rtf UTF-16: $(cat "$TMP/out")"
printf '\357\273\277Gr\303\266\303\237e' >"$TMP/bom.txt"
expect_status 0 "$RTFCONV" txt2rtf "$TMP/bom.txt"
grep -qF "\\cf0 Gr\\'f6\\'dfe}" "$TMP/out" || fail "txt2rtf UTF-8 BOM: $(cat "$TMP/out")"
LC_ALL=C grep -q '[^ -~]' "$TMP/out" && fail "txt2rtf wrote bytes beyond 7-bit ASCII"
expect_status 2 "$RTFCONV" txt2rtf --from nonesuch "$TMP/latin1.txt"
# A text of many output blocks, every kind of character among them, comes
# back whole, the same to a file and to standard output; a bad byte at its
# very end fails it before anything is written.
LC_ALL=C awk 'BEGIN { for (i = 0; i < 12000; i++) printf "Zeile %d: Gr\303\274\303\237e {x} \\ \320\277\321\200\320\270\tab \316\261\316\262 \350\241\250 \360\237\230\200 |~\r\n", i; printf "end" }' >"$TMP/long.txt"
expect_status 0 "$RTFCONV" txt2rtf -o "$TMP/long.rtf" "$TMP/long.txt"
"$RTFCONV" txt2rtf <"$TMP/long.txt" | cmp -s - "$TMP/long.rtf" || fail "txt2rtf of a long text differs on standard output"
expect_status 0 "$RTFCONV" rtf2txt "$TMP/long.rtf"
{ tr -d '\r' <"$TMP/long.txt"; echo; } | cmp -s - "$TMP/out" || fail "a long text does not come back from txt2rtf and rtf2txt"
printf '\377' >>"$TMP/long.txt"
"$RTFCONV" txt2rtf <"$TMP/long.txt" >"$TMP/long.rtf" 2>/dev/null && fail "txt2rtf took a bad byte at the end of a long text"
[ -s "$TMP/long.rtf" ] && fail "txt2rtf wrote part of a text that is not UTF-8"

# Characters of other Windows code pages in a 1252 document come back as
# themselves through rtf2old, old2rtf and rtf2txt.
printf '{\\rtf1\\ansi\\ansicpg1252 Gr\\u252?\\u223?e \\u1055?\\u1088?\\u1080? \\u945?\\u946? \\u1513?\\u1500? \\u3652? \\u34920?\\u23652? \\u54620? \\u351?\\u287? \\u273?}' >"$TMP/scripts.rtf"
expect_status 0 "$RTFCONV" rtf2old -o "$TMP/scripts.old" "$TMP/scripts.rtf"
expect_status 0 "$RTFCONV" old2rtf -o "$TMP/scripts2.rtf" "$TMP/scripts.old"
expect_status 0 "$RTFCONV" rtf2txt "$TMP/scripts2.rtf"
grep -qF 'Grüße При αβ של ไ 表層 한 şğ đ' "$TMP/out" || fail "scripts after the round trip: $(cat "$TMP/out")"

# Usage errors come before any file is read.
expect_status 2 "$RTFCONV" old2rtf --font 'Arial:0' "$TMP/note.old"
expect_one_error_line "POINTS"
expect_status 2 "$RTFCONV" txt2rtf --font 'Arial:10:300' "$TMP/notes.txt"
expect_one_error_line "CHARSET"
expect_status 2 "$RTFCONV" txt2rtf --font ':10' "$TMP/notes.txt"
expect_status 2 "$RTFCONV" old2rtf --attachments "$TMP/missing" "$TMP/note.old"
expect_status 2 "$RTFCONV" txt2rtf --codepage nonesuch "$TMP/notes.txt"

finish
