#!/usr/bin/env bash
# Inputs mapped and inputs piped: a file is mapped, standard input is read, and
# both must convert to the same bytes, whatever the size (empty, no trailing
# line end, ending exactly at a page boundary, where nothing may be read past
# the end). Large outputs: a full disk is still status 3 naming the file, and
# -o through a symbolic link still replaces the file it points to.
source "$(dirname "$0")/lib.sh"

# pad_to SIZE PREFIX SUFFIX: PREFIX, then 'x' and a line end every 64 bytes, then SUFFIX, SIZE bytes in all.
pad_to() {
    local size=$1 prefix=$2 suffix=$3
    local body=$((size - ${#prefix} - ${#suffix}))
    { printf '%s' "$prefix"; head -c "$body" /dev/zero | tr '\0' 'x' | fold -w 63; printf '%s' "$suffix"; } |
        head -c "$((size - ${#suffix}))" >"$TMP/pad"
    { cat "$TMP/pad"; printf '%s' "$suffix"; }
}

# Inputs for each command: name, bytes.
for size in 4096 8192; do
    pad_to "$size" '{\rtf1\ansi ' 'END}' >"$TMP/page$size.rtf"
    pad_to "$size" 'Text ' 'LAST' >"$TMP/page$size.txt"
    pad_to "$size" $'\x01''F12:Arial'$'\x02''Old ' 'LAST' >"$TMP/page$size.old"
    [ "$(stat -c %s "$TMP/page$size.rtf")" -eq "$size" ] || fail "page$size.rtf is $(stat -c %s "$TMP/page$size.rtf") bytes"
done
: >"$TMP/empty.txt"
printf '{\\rtf1\\ansi no line end}' >"$TMP/noeol.rtf"
printf 'no line end' >"$TMP/noeol.txt"
printf '\x01B\x02bold, no line end' >"$TMP/noeol.old"

# same_piped_and_mapped COMMAND... -- FILE: the file, the file as standard
# input and the file through a pipe give the same bytes and status.
same_piped_and_mapped() {
    local file=${*: -1} args=("${@:1:$#-1}")
    "$RTFCONV" "${args[@]}" "$file" >"$TMP/mapped" 2>"$TMP/err"
    local mappedStatus=$?
    "$RTFCONV" "${args[@]}" - <"$file" >"$TMP/redirected" 2>/dev/null
    local redirectedStatus=$?
    cat "$file" | "$RTFCONV" "${args[@]}" >"$TMP/piped" 2>/dev/null
    local pipedStatus=$?
    [ "$mappedStatus" -eq "$pipedStatus" ] && [ "$mappedStatus" -eq "$redirectedStatus" ] ||
        fail "${args[*]} $(basename "$file"): status $mappedStatus mapped, $redirectedStatus redirected, $pipedStatus piped"
    cmp -s "$TMP/mapped" "$TMP/piped" && cmp -s "$TMP/mapped" "$TMP/redirected" ||
        fail "${args[*]} $(basename "$file"): the mapped file converts otherwise than the piped one"
}

corpus="$(dirname "$0")/../corpus/rtf"
for file in "$TMP"/page*.rtf "$TMP/noeol.rtf" "$corpus/libreoffice__cs-bold.rtf"; do
    for cmd in "rtf2txt" "rtf2txt --raw" "rtf2old" "rtf2old --raw" "rtf2old --source ptr"; do
        same_piped_and_mapped $cmd "$file"
    done
done
for file in "$TMP"/page*.txt "$TMP/noeol.txt" "$TMP/empty.txt"; do
    for cmd in "txt2rtf" "txt2rtf --raw" "txt2rtf --lossy"; do same_piped_and_mapped $cmd "$file"; done
done
for file in "$TMP"/page*.old "$TMP/noeol.old"; do
    for cmd in "old2rtf" "old2rtf --raw" "show"; do same_piped_and_mapped $cmd "$file"; done
done

# The last bytes before a page boundary are converted, and nothing after them.
for size in 4096 8192; do
    expect_status 0 "$RTFCONV" rtf2txt "$TMP/page$size.rtf"
    [ "$(tail -c 5 "$TMP/out")" = 'xEND' ] || fail "page$size.rtf: the text ends with $(tail -c 20 "$TMP/out" | od -An -c)"
    for cmd in "txt2rtf --raw" "txt2rtf"; do
        expect_status 0 "$RTFCONV" $cmd "$TMP/page$size.txt"
        grep -q 'xLAST' "$TMP/out" || fail "$cmd page$size.txt: the RTF ends $(tail -c 20 "$TMP/out")"
    done
    expect_status 0 "$RTFCONV" old2rtf --raw "$TMP/page$size.old"
    grep -q 'xLAST' "$TMP/out" || fail "old2rtf --raw page$size.old: the RTF ends $(tail -c 20 "$TMP/out")"
done
# An empty file is converted as empty standard input is.
expect_status 0 "$RTFCONV" txt2rtf "$TMP/empty.txt"
grep -q '^{\\rtf1' "$TMP/out" || fail "txt2rtf of an empty file: $(head -c 40 "$TMP/out")"

# A large text (several MiB, more than the output's blocks) through every
# command that writes it, to a full disk: status 3, the file named.
big="$TMP/big.txt"
for i in $(seq 1 40000); do printf 'Line %d of a long text, with words enough to fill it up.\n' "$i"; done >"$big"
"$RTFCONV" txt2rtf "$big" -o "$TMP/big.rtf" || fail "txt2rtf of the big text"
"$RTFCONV" rtf2old "$TMP/big.rtf" -o "$TMP/big.old" || fail "rtf2old of the big RTF"
for args in "txt2rtf $big" "txt2rtf --raw $big" "rtf2txt $TMP/big.rtf" "rtf2old $TMP/big.rtf" "old2rtf $TMP/big.old" \
    "old2rtf --exact $TMP/big.old"; do
    expect_status 3 "$RTFCONV" $args -o /dev/full
    grep -qF "cannot write /dev/full: No space left on device" "$TMP/err" && [ "$(wc -l <"$TMP/err")" -eq 1 ] ||
        fail "$args -o /dev/full: $(cat "$TMP/err")"
    "$RTFCONV" $args >/dev/full 2>"$TMP/err"
    status=$?
    [ "$status" -eq 3 ] && grep -qF "cannot write standard output: No space left on device" "$TMP/err" ||
        fail "$args >/dev/full: status $status, $(cat "$TMP/err")"
done

# -o through a symbolic link, with an output larger than a block: the file
# linked to holds the whole output, the link stays a link.
mkdir "$TMP/links"
printf 'OLD' >"$TMP/links/target.rtf"
ln -s target.rtf "$TMP/links/link.rtf"
expect_status 0 "$RTFCONV" txt2rtf "$big" -o "$TMP/links/link.rtf"
[ -L "$TMP/links/link.rtf" ] || fail "-o replaced the link itself"
"$RTFCONV" txt2rtf "$big" >"$TMP/expected.rtf"
cmp -s "$TMP/links/target.rtf" "$TMP/expected.rtf" || fail "-o through a link: the target differs from standard output"
[ "$(stat -c %s "$TMP/expected.rtf")" -gt $((2 << 20)) ] || fail "the big RTF is only $(stat -c %s "$TMP/expected.rtf") bytes"

finish
