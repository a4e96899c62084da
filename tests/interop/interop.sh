#!/usr/bin/env bash
# Does a word processor read the RTF we write as we mean it?
#
# Usage: tests/interop/interop.sh path/to/rtfconv OUTDIR
#
# Writes representative old-format texts (every command kind, attachments of
# every kind, a 100 KB body) and a plain text, converts them with rtfconv
# old2rtf / txt2rtf, and has LibreOffice read each document back to text
# (soffice --headless --convert-to txt). Its text is compared with ours
# (rtfconv rtf2txt of the same document): a sample passes when both agree
# line by line, ignoring trailing blanks. The showcase document is also
# rendered to PDF and its first page to OUTDIR/showcase.png, for a person to
# look at. Exit status 1 when a sample differs.
set -u
RTFCONV=${1:?usage: $0 path/to/rtfconv OUTDIR}
OUT=${2:?usage: $0 path/to/rtfconv OUTDIR}
mkdir -p "$OUT/samples" "$OUT/attachments" "$OUT/lo" "$OUT/ours"
S=$'\003'
cmd() { printf '\001%s\002' "$1"; }

# --- the samples -------------------------------------------------------------
# A 32x16 24-bit bitmap (stripes of red, green and blue) for pictures and
# object results.
{
    printf 'BM\066\006\000\000\000\000\000\000\066\000\000\000'
    printf '\050\000\000\000\040\000\000\000\020\000\000\000\001\000\030\000\000\000\000\000\000\006\000\000'
    printf '\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000'
    for y in $(seq 0 15); do
        for x in $(seq 0 31); do
            case $(((x / 4 + y / 4) % 3)) in
            0) printf '\000\000\377' ;;
            1) printf '\000\300\000' ;;
            *) printf '\377\000\000' ;;
            esac
        done
    done
} >"$OUT/attachments/01.bmp"
cp "$OUT/attachments/01.bmp" "$OUT/attachments/02.bmp"
printf 'not real OLE data' >"$OUT/attachments/02.ole"
printf 'C:\\docs\\linked.doc' >"$OUT/attachments/03.link"

{
    printf 'Plain text with {braces}, a back\\slash and caf\351.\r'
    printf 'A tab\tbetween words, a line break\nwithin a paragraph.\r'
} >"$OUT/samples/plain.old"

{
    cmd 'F14JB:Times New Roman'; printf 'Red bold Times 14'; cmd 'F---:-'; printf ' and back to the base font.\r'
    cmd 'F---IUp:-'; printf 'Italic underlined on white'; cmd 'F---:-'; printf ', '
    cmd 'F10MX:Courier New'; printf 'blue struck Courier'; cmd 'F---:-'; printf ', x'
    cmd 'F---S:-'; printf '2'; cmd 'F---:-'; printf ' and H'; cmd 'F---s:-'; printf '2'; cmd 'F---:-'; printf 'O.\r'
} >"$OUT/samples/fonts.old"

{
    cmd 'LC000000'; printf 'A centred paragraph.\r'
    cmd 'LR000100'; printf 'Right aligned with a right margin.\r'
    cmd 'LL100000-050200.400-'; printf 'Hanging indent\twith dotted\tand hyphen tabs.\r'
    cmd 'LL000000'; printf 'Left again.\r'
} >"$OUT/samples/layout.old"

# "\pagebb" is a paragraph property that stays in force until the next layout
# command's "\pard": without one, every later paragraph starts a new page.
{
    printf 'Before a page break.\r'; cmd 'PE'; printf 'After the page break.\r'
    cmd 'LL000000'; printf 'Same page again.\r'
} >"$OUT/samples/eject.old"

{
    printf 'Visit '; cmd "CH:the home page${S}http://example.com/home"; printf ' or read '
    cmd "CR:the introduction${S}doc:Intro"; printf '.\r'
    cmd "CN:1.${S}${S}A${S}${S}"; printf 'First numbered paragraph\r'
    cmd "CN:2.${S}${S}A${S}${S}"; printf 'Second numbered paragraph\r'
    cmd "CN:"$'\267'"${S}${S}q${S}${S}Symbol"; printf 'A bulleted paragraph\r'
    cmd 'CT:StartRow'; printf ' table tag text\r'
} >"$OUT/samples/links.old"

{
    printf 'A picture: '; cmd 'A01'; printf ' then an embedded object: '; cmd 'A02'
    printf ' then a linked object: '; cmd 'A03'; printf ' and the end.\r'
    printf 'A placeholder comes last: '; cmd 'A04'; printf '\r'
} >"$OUT/samples/attachments.old"

# About 100 KB: paragraphs with every kind of command.
for i in $(seq 1 700); do
    cmd 'F12JB:Georgia'; printf 'Paragraph %d {%d}' "$i" "$i"; cmd 'F---:-'; printf '\tplain '
    cmd "CH:link $i${S}http://example.com/$i"; cmd 'LL050000+025100.'; [ $((i % 50)) -eq 0 ] && cmd 'PE'
    printf ' with some more words to make a line.\r'
done >"$OUT/samples/big.old"

# The attachments go last: a placeholder (\objattph) has no group of its own,
# and our plain-text reader takes all that follows it in the document's group
# as picture data.
cat "$OUT/samples/plain.old" "$OUT/samples/fonts.old" "$OUT/samples/layout.old" "$OUT/samples/links.old" \
    "$OUT/samples/attachments.old" >"$OUT/samples/showcase.old"

printf 'Plain text notes\nwith {braces}, a back\\slash, tabs\tand caf\303\251.\n\nLast line\n' >"$OUT/samples/notes.txt"

# --- conversion and comparison ----------------------------------------------------
status=0
for old in "$OUT"/samples/*.old "$OUT"/samples/*.txt; do
    name=$(basename "${old%.*}")
    rtf="$OUT/$name.rtf"
    case "$old" in
    *.old) "$RTFCONV" old2rtf --attachments "$OUT/attachments" -o "$rtf" "$old" || { echo "$name: old2rtf failed"; status=1; continue; } ;;
    *.txt) "$RTFCONV" txt2rtf -o "$rtf" "$old" || { echo "$name: txt2rtf failed"; status=1; continue; } ;;
    esac
    # Our reader ends the text without a final line end when a placeholder
    # (\objattph, which it reads as the start of picture data) is last.
    { "$RTFCONV" rtf2txt "$rtf"; echo; } | sed 's/[ \t]*$//' | sed -e :a -e '/^\n*$/{$d;N;ba' -e '}' >"$OUT/ours/$name.txt"
    soffice --headless --convert-to 'txt:Text (encoded):UTF8' --outdir "$OUT/lo" "$rtf" >/dev/null 2>&1 ||
        { echo "$name: soffice failed"; status=1; continue; }
    # LibreOffice writes a byte-order mark and CR LF line ends, and keeps the
    # characters of the Symbol font in the private use area (U+F020 blank,
    # U+F0B7 bullet), where our reader gives their Unicode characters.
    { sed '1s/^\xEF\xBB\xBF//; s/\r$//; s/\xEF\x80\xA0/ /g; s/\xEF\x82\xB7/\xE2\x80\xA2/g; s/[ \t]*$//' \
        "$OUT/lo/$name.txt"; echo; } | sed -e :a -e '/^\n*$/{$d;N;ba' -e '}' >"$OUT/lo/$name.norm.txt"
    if diff -q "$OUT/ours/$name.txt" "$OUT/lo/$name.norm.txt" >/dev/null; then
        echo "$name: same text ($(wc -l <"$OUT/ours/$name.txt") lines)"
    else
        echo "$name: DIFFERENT text; ours < > LibreOffice's:"
        diff "$OUT/ours/$name.txt" "$OUT/lo/$name.norm.txt" | head -20 | sed 's/^/    /'
        status=1
    fi
done

soffice --headless --convert-to pdf --outdir "$OUT" "$OUT/showcase.rtf" >/dev/null 2>&1 &&
    pdftoppm -png -r 70 -f 1 -l 1 -singlefile "$OUT/showcase.pdf" "$OUT/showcase" &&
    echo "page 1 of the showcase: $OUT/showcase.png" || { echo "showcase: rendering failed"; status=1; }
exit $status
