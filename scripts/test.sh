#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   scripts/test.sh           release build with assertions, in build/
#   scripts/test.sh asan      ASan+UBSan build, in build-asan/
#   scripts/test.sh tsan      TSan build, in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
kind="${1:-}"
case "$kind" in
  "")   dir=build;      extra=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan) dir=build-asan; extra=(-DCMAKE_BUILD_TYPE=Debug -DMVPN_SANITIZE=address -DMVPN_BUILD_BENCH=OFF) ;;
  tsan) dir=build-tsan; extra=(-DCMAKE_BUILD_TYPE=Debug -DMVPN_SANITIZE=thread -DMVPN_BUILD_BENCH=OFF) ;;
  *) echo "usage: $0 [asan|tsan]" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" -G Ninja "${extra[@]}" >/dev/null
cmake --build "$dir" -j2
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$dir" --output-on-failure --timeout 600
