#!/usr/bin/env bash
# show: commands as «...» without framing bytes, 0x03 as '|', other control
# bytes except CR, LF, TAB as \xHH; UTF-8 with LF by default, own bytes with
# --raw; --explain describes each command.
source "$(dirname "$0")/lib.sh"

# «F12JB:Arial»caf<e9> CR «CH:Home|x://a» TAB <04> and an unterminated command.
printf '\001F12JB:Arial\002caf\351\r\001CH:Home\003x://a\002\t\004\001P' >"$TMP/doc.old"
expect_status 0 "$RTFCONV" show "$TMP/doc.old"
expect_file_bytes "$TMP/out" '\302\253F12JB:Arial\302\273caf\303\251\n\302\253CH:Home|x://a\302\273\t\\x04\\x01P'
expect_status 0 "$RTFCONV" show --utf8 "$TMP/doc.old"
expect_file_bytes "$TMP/out" '\302\253F12JB:Arial\302\273caf\303\251\n\302\253CH:Home|x://a\302\273\t\\x04\\x01P'
expect_status 0 "$RTFCONV" show --raw "$TMP/doc.old"
expect_file_bytes "$TMP/out" '\302\253F12JB:Arial\302\273caf\351\r\302\253CH:Home|x://a\302\273\t\\x04\\x01P'
expect_status 0 "$RTFCONV" show --codepage 1251 "$TMP/doc.old"
grep -q "caf$(printf '\320\271')" "$TMP/out" || fail "--codepage 1251 should read 0xE9 as U+0439"

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

# Wrong usage: --raw with --utf8, an unknown code page.
expect_status 2 "$RTFCONV" show --raw --utf8 "$TMP/doc.old"
expect_status 2 "$RTFCONV" show --codepage no-such-page "$TMP/doc.old"

finish
