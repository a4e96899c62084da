#!/usr/bin/env bash
# Installs the built project into a scratch prefix, then builds and runs a
# consumer through find_package, and compiles one through pkg-config.
set -euo pipefail
build="$1"; work="$2"; here="$(cd "$(dirname "$0")" && pwd)"
rm -rf "$work"; mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$here" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/consumer/consumer"
if command -v pkg-config >/dev/null; then
  pcdir=$(dirname "$(find "$work/prefix" -name rtfconverter.pc | head -n1)")
  flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --define-variable=prefix="$work/prefix" --cflags --libs rtfconverter)
  c++ -std=c++17 "$here/consumer.cpp" $flags -o "$work/consumer-pc"
  LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/consumer-pc"
fi
echo "package OK"
