#!/usr/bin/env bash
# Installs the Debian packages the build needs, only when one is missing.
#   scripts/deps.sh        what the library, the tests and the benchmarks need
#   scripts/deps.sh fuzz   that, and clang with its libFuzzer runtime (scripts/fuzz.sh)
set -euo pipefail
pkgs=(cmake ninja-build g++ libfmt-dev libgtest-dev libgmock-dev libbenchmark-dev libabsl-dev
      libprotobuf-dev protobuf-compiler nlohmann-json3-dev libcpp-httplib-dev prometheus)
case "${1:-}" in
  "") ;;
  fuzz) pkgs+=(clang libclang-rt-dev) ;;
  *) echo "usage: $0 [fuzz]" >&2; exit 2 ;;
esac
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
