#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a consumer against it.
set -euo pipefail
build="$(cd "$1" && pwd)"; src="$(cd "$(dirname "$0")" && pwd)"; work="$build/install-check"
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$src" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"
