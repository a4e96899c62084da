#!/usr/bin/env bash
# show: commands as «...» without framing bytes, 0x03 as '|', other control
# bytes except CR, LF, TAB as \xHH, in UTF-8 with LF; the input UTF-8 by
# default, the host's 8-bit bytes with --raw; --explain describes each command.
source "$(dirname "$0")/lib.sh"

# «F12JB:Arial»café CR «CH:Home|x://a» TAB <04> and an unterminated command,
# as UTF-8 and as the host's bytes.
printf '\001F12JB:Arial\002caf\303\251\r\001CH:Home\003x://a\002\t\004\001P' >"$TMP/doc.old"
printf '\001F12JB:Arial\002caf\351\r\001CH:Home\003x://a\002\t\004\001P' >"$TMP/raw.old"
listing='\302\253F12JB:Arial\302\273caf\303\251\n\302\253CH:Home|x://a\302\273\t\\x04\\x01P'
for args in "$TMP/doc.old" "--utf8 $TMP/doc.old" "--raw $TMP/raw.old" "--raw --codepage 1252 $TMP/raw.old"; do
    # shellcheck disable=SC2086
    expect_status 0 "$RTFCONV" show $args
    expect_file_bytes "$TMP/out" "$listing"
done
expect_status 0 "$RTFCONV" show --raw --codepage 1251 "$TMP/raw.old"
grep -q "caf$(printf '\320\271')" "$TMP/out" || fail "--codepage 1251 should read 0xE9 as U+0439"
# 8-bit input without --raw: listed as it is, with a warning.
expect_status 0 "$RTFCONV" show "$TMP/raw.old"
grep -q "not UTF-8" "$TMP/err" || fail "no warning for 8-bit input: $(cat "$TMP/err")"

# A font command's character set decides the code page of --raw text, and
# rtf2old's UTF-8 output lists as it is.
printf '{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}{\\f1\\fcharset204 Arial;}}\\f0 a\\f1 \\u1055?}' >"$TMP/ru.rtf"
expect_status 0 "$RTFCONV" rtf2old -o "$TMP/ru.old" "$TMP/ru.rtf"
expect_status 0 "$RTFCONV" show "$TMP/ru.old"
grep -q "$(printf '\302\273\320\237')" "$TMP/out" || fail "rtf2old | show: $(cat "$TMP/out")"
expect_status 0 "$RTFCONV" rtf2old --raw -o "$TMP/ru-raw.old" "$TMP/ru.rtf"
expect_status 0 "$RTFCONV" show --raw "$TMP/ru-raw.old"
grep -q "$(printf '\302\273\320\237')" "$TMP/out" || fail "rtf2old --raw | show --raw: $(cat "$TMP/out")"

# --explain: one description per command, decoded with the command classes.
printf '\001F12JB:Arial\002x\001LC100050-025150.\002\001CN:(bb)\003\003F\003\003\003\003\003\00328\002\001PE\002\001A07\002\001F12Q:-\002' >"$TMP/explain.old"
expect_status 0 "$RTFCONV" show --explain "$TMP/explain.old"
cat >"$TMP/expected" <<'EOF'
«F12JB:Arial» font 12 pt, colour Red, bold, face Arial
x«LC100050-025150.» layout centred, left margin 1.00 in, right margin 0.50 in, first line -0.25 in, tab 1.50 in dots
«CN:(bb)||F||||||28» numbering style (a), text "(bb)"
«PE» page eject
«A07» attachment 07
«F12Q:-» invalid font command
EOF
cmp -s "$TMP/out" "$TMP/expected" || fail "--explain: got $(cat "$TMP/out")"

# Wrong usage: --raw with --utf8, --codepage without --raw, an unknown code page.
expect_status 2 "$RTFCONV" show --raw --utf8 "$TMP/doc.old"
expect_status 2 "$RTFCONV" show --codepage 1251 "$TMP/doc.old"
expect_status 2 "$RTFCONV" show --raw --codepage no-such-page "$TMP/raw.old"

finish
