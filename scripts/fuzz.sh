#!/usr/bin/env bash
# Builds the libFuzzer harnesses (fuzz/*.cpp) with clang in build-fuzz/ and runs each one for a
# bounded time, one after the other. Fails when any harness crashes; every crash input is kept
# under build-fuzz/crashes/<harness>/ (reproduce with: build-fuzz/fuzz/fuzz_<harness> <file>).
#   scripts/fuzz.sh                  every harness
#   scripts/fuzz.sh route_key ...    only the named harnesses
# Environment:
#   FUZZ_SECONDS        fuzzing time per harness (default 30)
#   FUZZ_TOTAL_SECONDS  cap on the fuzzing time of the whole run (default 600); when the
#                       harnesses would need more, each gets an equal share of it
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh fuzz
dir=build-fuzz
per="${FUZZ_SECONDS:-30}"
total="${FUZZ_TOTAL_SECONDS:-600}"
[[ "$per" =~ ^[0-9]+$ && "$total" =~ ^[0-9]+$ && "$per" -gt 0 && "$total" -gt 0 ]] ||
  { echo "FUZZ_SECONDS and FUZZ_TOTAL_SECONDS must be positive whole numbers" >&2; exit 2; }

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DMVPN_BUILD_FUZZ=ON -DMVPN_BUILD_TESTS=OFF -DMVPN_BUILD_BENCH=OFF -DMVPN_BUILD_TOOLS=OFF \
  >/dev/null
cmake --build "$dir" -j2

if (($#)); then
  names=("$@")
else
  names=()
  for src in fuzz/*.cpp; do names+=("$(basename "$src" .cpp)"); done
fi
((${#names[@]})) || { echo "no harnesses in fuzz/" >&2; exit 1; }
if ((per * ${#names[@]} > total)); then per=$((total / ${#names[@]})); fi
((per > 0)) || per=1

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
for name in "${names[@]}"; do
  bin="$dir/fuzz/fuzz_$name"
  [[ -x "$bin" ]] || { echo "no harness fuzz_$name" >&2; exit 2; }
  work="$dir/corpus/$name"  # grows with what the runs discover; the seeds stay untouched
  crashes="$dir/crashes/$name"
  mkdir -p "$work" "$crashes" "fuzz/corpus/$name"
  opts=(-max_total_time="$per" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="$crashes/")
  [[ -f "fuzz/$name.dict" ]] && opts+=(-dict="fuzz/$name.dict")
  # A harness that maps shared memory works in a namespace of its own, removed afterwards
  # (a crash leaves its segments behind otherwise).
  ns="fuzz-$name-$$"
  echo "== fuzz_$name: ${per}s"
  if MVPN_SHM_NAMESPACE="$ns" "$bin" "${opts[@]}" "$work" "fuzz/corpus/$name" \
      >"$dir/$name.log" 2>&1; then
    rm -f /dev/shm/"$ns".*
    grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$dir/$name.log" |
      tr '\n' ' ' | sed 's/stat:://g'
    echo
  else
    rm -f /dev/shm/"$ns".*
    echo "fuzz_$name FAILED (log: $dir/$name.log):"
    grep -E -A1 'ERROR|property violated|runtime error|SUMMARY|Test unit written' "$dir/$name.log" |
      head -20 || true
    failed+=("$name")
  fi
done
if ((${#failed[@]})); then
  echo "crashing harnesses: ${failed[*]}; inputs under $dir/crashes/" >&2
  exit 1
fi
echo "all ${#names[@]} harnesses ran ${per}s each without a crash"
