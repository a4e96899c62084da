#!/usr/bin/env bash
# Command-line conventions: every message begins "rtfconv: ", unknown names
# come with the nearest known one, several inputs go one after another to one
# output, -o writes through a symbolic link, and every command refuses an input
# of another kind (saying what it looks like) unless --force.
source "$(dirname "$0")/lib.sh"

# expect_error_line STATUS LINE CMD...: exactly that one line on stderr.
expect_error_line() {
    local want=$1 line=$2
    shift 2
    expect_status "$want" "$@"
    [ "$(cat "$TMP/err")" = "$line" ] || fail "$*: stderr was '$(cat "$TMP/err")', expected '$line'"
}

printf '{\\rtf1\\ansi one\\par}' >"$TMP/a.rtf"
printf '{\\rtf1\\ansi two\\par}' >"$TMP/b.rtf"

# Unknown commands and options: named, with the nearest known name.
commands="the commands are rtf2txt, rtf2old, old2rtf, txt2rtf, show"
expect_error_line 2 "rtfconv: unknown command 'rtf2tx' (did you mean 'rtf2txt'?); $commands" "$RTFCONV" rtf2tx a.rtf
expect_error_line 2 "rtfconv: unknown command 'foo' (did you mean 'show'?); $commands" "$RTFCONV" foo
expect_error_line 2 "rtfconv: unknown option '-V' (did you mean '--version'?); see 'rtfconv --help'" "$RTFCONV" -V
expect_error_line 2 "rtfconv: unknown option '--outptu' (did you mean '--output'?); see 'rtfconv rtf2txt --help'" \
    "$RTFCONV" rtf2txt --outptu x "$TMP/a.rtf"
expect_error_line 2 "rtfconv: unknown option '--sourse' (did you mean '--source'?); see 'rtfconv rtf2old --help'" \
    "$RTFCONV" rtf2old --sourse=ptr "$TMP/a.rtf"
expect_error_line 2 "rtfconv: no command given; $commands; see 'rtfconv --help'" "$RTFCONV"
# Every other usage error is one line with the prefix too.
for args in "rtf2txt --buffer 0" "rtf2txt -q -v" "rtf2txt --codepage nosuchpage" "show --raw --utf8" "rtf2txt --newline lfcr"; do
    expect_status 2 "$RTFCONV" $args "$TMP/a.rtf"
    [ "$(wc -l <"$TMP/err")" -eq 1 ] && grep -q '^rtfconv: ' "$TMP/err" || fail "$args: stderr was $(cat "$TMP/err")"
done

# Several inputs without --output-dir: one after another on standard output,
# or together in -o FILE.
expect_status 0 "$RTFCONV" rtf2txt "$TMP/a.rtf" "$TMP/b.rtf" "$TMP/a.rtf"
expect_file_bytes "$TMP/out" 'one\ntwo\none\n'
expect_status 0 "$RTFCONV" rtf2txt -o "$TMP/both.txt" "$TMP/a.rtf" - <"$TMP/b.rtf"
expect_file_bytes "$TMP/both.txt" 'one\ntwo\n'
# One that fails does not stop the others; -o FILE is then left as it was.
printf 'OLD' >"$TMP/kept.txt"
expect_status 3 "$RTFCONV" rtf2txt -o "$TMP/kept.txt" "$TMP/a.rtf" "$TMP/missing.rtf" "$TMP/b.rtf"
expect_file_bytes "$TMP/kept.txt" 'OLD'
expect_status 3 "$RTFCONV" rtf2txt "$TMP/a.rtf" "$TMP/missing.rtf" "$TMP/b.rtf"
expect_file_bytes "$TMP/out" 'one\ntwo\n'
[ "$(tail -n 1 "$TMP/err")" = "rtfconv: 1 of 3 inputs failed: $TMP/missing.rtf" ] || fail "summary: $(cat "$TMP/err")"

# -o through a symbolic link (relative, and a chain of two) writes the file it
# names, atomically, and keeps the links.
mkdir "$TMP/real" "$TMP/links"
printf 'OLD' >"$TMP/real/target.txt"
ln -s ../real/target.txt "$TMP/links/first"
ln -s first "$TMP/links/second"
expect_status 0 "$RTFCONV" rtf2txt -o "$TMP/links/second" "$TMP/a.rtf"
[ -L "$TMP/links/second" ] && [ -L "$TMP/links/first" ] || fail "-o replaced a link"
expect_file_bytes "$TMP/real/target.txt" 'one\n'
[ "$(ls -A "$TMP/real" "$TMP/links" | tr '\n' ' ')" = "$TMP/links: first second  $TMP/real: target.txt " ] ||
    fail "left behind: $(ls -A "$TMP/real" "$TMP/links")"
ln -s "$TMP/real/new.txt" "$TMP/links/dangling"
expect_status 0 "$RTFCONV" rtf2txt -o "$TMP/links/dangling" "$TMP/b.rtf"
expect_file_bytes "$TMP/real/new.txt" 'two\n'

# Input kinds. Rows: command, file, status, message ("" when accepted).
printf '\357\273\277 \r\n{\\rtf1 bom}' >"$TMP/bom.rtf"
printf '{\\pard fragment\\par}' >"$TMP/fragment.rtf"
printf 'Dear Sir,\nplain words.\n' >"$TMP/plain.txt"
printf 'x\001F12JB:Arial\002bold\r' >"$TMP/doc.old"
printf '%%PDF-1.7\n%%\342\343\n' >"$TMP/doc.pdf"
printf 'PK\003\004\024\000\006\000[Content_Types].xmlPK\003\004word/document.xml' >"$TMP/doc.docx"
printf 'PK\003\004\024\000\000\000content.xml' >"$TMP/other.zip"
printf '\320\317\021\340\241\261\032\341\000\000' >"$TMP/doc.doc"
printf '\211PNG\r\n\032\n\000\000\000\rIHDR' >"$TMP/pic.png"
printf 'BM\072\000\000\000\000\000\000\000\066\000' >"$TMP/pic.bmp"
printf 'BMW and Audi\n' >"$TMP/cars.txt"
printf '\377\376h\000i\000' >"$TMP/utf16.txt"
head -c 4096 "$RTFCONV" >"$TMP/program"
: >"$TMP/empty"
while read -r command file want message; do
    expect_status "$want" "$RTFCONV" "$command" "$TMP/$file"
    if [ -n "$message" ]; then
        [ "$(cat "$TMP/err")" = "rtfconv: $TMP/$file: $message" ] ||
            fail "$command $file: stderr was '$(cat "$TMP/err")', expected '$message'"
        # --force reads it anyway.
        run "$RTFCONV" "$command" --force "$TMP/$file"
        [ "$status" -ne 1 ] || ! grep -q "looks like\|is empty" "$TMP/err" || fail "$command --force $file still refused"
    fi
done <<'EOF'
rtf2txt a.rtf         0
rtf2txt bom.rtf       0
rtf2txt fragment.rtf  0
rtf2txt plain.txt     1 not RTF (looks like plain text)
rtf2txt doc.old       1 not RTF (looks like old-format text)
rtf2txt doc.pdf       1 not RTF (looks like PDF)
rtf2txt doc.docx      1 not RTF (looks like a Word .docx)
rtf2txt other.zip     1 not RTF (looks like ZIP)
rtf2txt doc.doc       1 not RTF (looks like a Word .doc)
rtf2txt pic.png       1 not RTF (looks like a PNG image)
rtf2txt pic.bmp       1 not RTF (looks like a BMP image)
rtf2txt program       1 not RTF (looks like a program)
rtf2txt empty         1 not RTF (it is empty)
rtf2old plain.txt     1 not RTF (looks like plain text)
rtf2old a.rtf         0
old2rtf doc.old       0
old2rtf plain.txt     0
old2rtf empty         0
old2rtf a.rtf         1 not old-format text (looks like RTF)
old2rtf pic.png       1 not old-format text (looks like a PNG image)
show    doc.old       0
show    fragment.rtf  1 not old-format text (looks like RTF)
txt2rtf plain.txt     0
txt2rtf cars.txt      0
txt2rtf empty         0
txt2rtf a.rtf         1 not plain text (looks like RTF)
txt2rtf doc.old       1 not plain text (looks like old-format text)
txt2rtf program       1 not plain text (looks like a program)
txt2rtf doc.docx      1 not plain text (looks like a Word .docx)
EOF
# Standard input is checked as well.
expect_error_line 1 "rtfconv: <stdin>: not RTF (looks like plain text)" "$RTFCONV" rtf2txt - <"$TMP/plain.txt"

# The same words for the encoding on every command, and --help says it once.
expect_status 0 "$RTFCONV" --help
grep -q -- "--raw gives the host's 8-bit bytes" "$TMP/out" || fail "--help does not tell the encoding story"
expect_status 0 "$RTFCONV" txt2rtf --help
grep -q 'ansicpg' "$TMP/out" && ! grep -q "default: the document's" "$TMP/out" ||
    fail "txt2rtf --help: $(grep -A1 -- --codepage "$TMP/out")"

finish
