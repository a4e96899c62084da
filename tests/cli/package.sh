#!/usr/bin/env bash
# The Debian package: its contents and dependencies, and the tool run from a
# scratch root the package is unpacked into (dpkg -x), as it would run once
# installed. With --lintian, lintian must report no error.
# Usage: package.sh RTFCONV DEB|BUILD_DIR [--lintian]
# Given a build folder, the package is first built from it into a scratch
# folder. (RTFCONV is not used: lib.sh wants it.)
source "$(dirname "$0")/lib.sh"
DEB=${2:?usage: package.sh RTFCONV DEB|BUILD_DIR [--lintian]}
LINTIAN=${3:-}
if [ -d "$DEB" ]; then
    cpack -G DEB --config "$DEB/CPackConfig.cmake" -B "$TMP/package" >"$TMP/cpack.log" 2>&1 ||
        { cat "$TMP/cpack.log"; fail "cpack failed"; finish; }
    DEB=$(echo "$TMP"/package/rtfconverter_*.deb)
fi

depends=$(dpkg-deb -f "$DEB" Depends)
for package in libc6 libstdc++6; do
    [[ $depends == *"$package "* || $depends == *"$package" ]] || fail "Depends lacks $package: $depends"
done

dpkg-deb -c "$DEB" | awk '{print $6}' | sed 's|^\./|/|' >"$TMP/contents"
for path in /usr/bin/rtfconv '/usr/lib/.*librtfconverter\.so\.0$' '/usr/lib/.*librtfconverter\.so$' \
    /usr/include/rtfconverter/RtfToText.h '/usr/lib/.*cmake/rtfconverter/rtfconverterConfig\.cmake' \
    '/usr/lib/.*pkgconfig/rtfconverter\.pc' /usr/share/man/man1/rtfconv.1.gz \
    /usr/share/bash-completion/completions/rtfconv /usr/share/zsh/vendor-completions/_rtfconv \
    /usr/share/doc/rtfconverter/copyright /usr/share/doc/rtfconverter/changelog.gz; do
    grep -qx -- "$path" "$TMP/contents" || fail "the package lacks $path"
done

# The tool from the scratch root, its library found beside it.
ROOT=$TMP/root
dpkg -x "$DEB" "$ROOT" || fail "dpkg -x failed"
libdir=$(dirname "$(find "$ROOT/usr/lib" -name 'librtfconverter.so.*' | head -n 1)")
printf '{\\rtf1\\ansi Unpacked \\b and\\b0  running.\\par}' >"$TMP/doc.rtf"
LD_LIBRARY_PATH=$libdir "$ROOT/usr/bin/rtfconv" rtf2txt "$TMP/doc.rtf" >"$TMP/out" 2>"$TMP/err" ||
    fail "the unpacked tool failed: $(cat "$TMP/err")"
expect_file_bytes "$TMP/out" 'Unpacked and running.\n'
# The tool carries the library's code itself (no shared library to load at
# start); the shared library is there for other programs.
LD_LIBRARY_PATH=$libdir ldd "$ROOT/usr/bin/rtfconv" | grep -q "librtfconverter.so" &&
    fail "the unpacked tool loads the shared library"
MANWIDTH=80 man -l "$ROOT/usr/share/man/man1/rtfconv.1.gz" 2>"$TMP/err" | grep -q 'rtf2txt' && [ ! -s "$TMP/err" ] ||
    fail "the installed man page: $(cat "$TMP/err")"
bash -c "source '$ROOT/usr/share/bash-completion/completions/rtfconv' && complete -p rtfconv" >/dev/null ||
    fail "the installed bash completion does not load"

if [ "$LINTIAN" = --lintian ]; then
    lintian --no-tag-display-limit "$DEB" >"$TMP/lintian" 2>&1
    ! grep '^E:' "$TMP/lintian" || fail "lintian reports errors"
fi

finish
