#!/usr/bin/env bash
# Installs the built project into a scratch prefix and uses it as a host
# would: every installed header compiled on its own, a consumer built through
# find_package and through pkg-config (from a moved copy of the prefix, so
# that the .pc file is seen to be relocatable), and the installed rtfconv run.
set -euo pipefail
build="$1"; work="$2"; here="$(cd "$(dirname "$0")" && pwd)"
rm -rf "$work"; mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
include="$work/prefix/include"

# Each header compiles alone from the install tree.
count=0
while IFS= read -r header; do
  printf '#include <%s>\n' "${header#"$include"/}" >"$work/header.cpp"
  c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$include" "$work/header.cpp" ||
    { echo "installed header does not compile on its own: ${header#"$include"/}" >&2; exit 1; }
  count=$((count + 1))
done < <(find "$include" -name '*.h' -o -name '*.hpp' | sort)
[ "$count" -gt 0 ] || { echo "no header installed" >&2; exit 1; }

cmake -S "$here" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:${LD_LIBRARY_PATH:-}" "$work/consumer/consumer"

mv "$work/prefix" "$work/moved"
pc=$(find "$work/moved" -name rtfconverter.pc | head -n1)
flags=$(PKG_CONFIG_PATH="$(dirname "$pc")" pkg-config --cflags --libs rtfconverter)
libdir=$(PKG_CONFIG_PATH="$(dirname "$pc")" pkg-config --variable=libdir rtfconverter)
c++ -std=c++17 "$here/consumer.cpp" $flags -o "$work/consumer-pc"
LD_LIBRARY_PATH="$libdir:${LD_LIBRARY_PATH:-}" "$work/consumer-pc"

# The tool finds its library through its RUNPATH, without LD_LIBRARY_PATH.
text=$(printf '{\\rtf1 Hello\\par}' | env -u LD_LIBRARY_PATH "$work/moved/bin/rtfconv" rtf2txt)
[ "$text" = "Hello" ] || { echo "installed rtfconv gave: $text" >&2; exit 1; }
echo "package OK: $count headers, find_package, pkg-config, rtfconv"
