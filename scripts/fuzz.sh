#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang (library and targets
# under AddressSanitizer and UndefinedBehaviorSanitizer, in build-fuzz/) and
# runs each for a bounded time on a copy of its seed corpus, keeping the new
# inputs it finds in that copy.
#   scripts/fuzz.sh                         every target, 30 s each
#   scripts/fuzz.sh --seconds 600 CuckooHitlessFuzz
# Prints the executions of each target. A crash, sanitizer report or model
# mismatch fails the run; the log then shows the reproducer's path, a hex
# dump and its base64 text, and the path is kept for replay:
#   build-fuzz/tests/fuzz/<Target> <reproducer>
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=30
targets=()
while [[ $# -gt 0 ]]; do
  case "$1" in
    --seconds) seconds="$2"; shift 2 ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    *) targets+=("$1"); shift ;;
  esac
done

scripts/setup.sh clang-14 libclang-rt-14-dev llvm-14 xxd
dir=build-fuzz
CXX=clang++-14 cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOLK_FUZZ=ON >/dev/null
cmake --build "$dir" -j "$(nproc)"

if [[ ${#targets[@]} -eq 0 ]]; then
  for src in tests/fuzz/*Fuzz.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/olk-fuzz.XXXXXX")
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
command -v llvm-symbolizer-14 >/dev/null && export ASAN_SYMBOLIZER_PATH="$(command -v llvm-symbolizer-14)"

failed=()
for t in "${targets[@]}"; do
  corpus="$work/corpus/$t"
  mkdir -p "$corpus" "$work/crashes/$t"
  [[ -d "tests/fuzz/corpus/$t" ]] && cp tests/fuzz/corpus/"$t"/* "$corpus"/
  log="$work/$t.log"
  rc=0
  "$dir/tests/fuzz/$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$work/crashes/$t/" "$corpus" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  printf '%-28s %10s executions in %ss, corpus %s files\n' "$t" "${execs:-?}" "$seconds" "$(ls "$corpus" | wc -l)"
  if [[ $rc -ne 0 ]]; then
    failed+=("$t")
    echo "---- $t failed (exit $rc); its log ends:"
    tail -n 60 "$log"
    for crash in "$work/crashes/$t"/*; do
      [[ -f "$crash" ]] || continue
      echo "---- reproducer $crash ($(stat -c %s "$crash") bytes); replay: $dir/tests/fuzz/$t $crash"
      xxd "$crash" | head -n 64
      echo "---- base64:"
      base64 -w 76 "$crash"
    done
  fi
done

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzz: FAILED: ${failed[*]} (inputs and logs kept in $work)"
  exit 1
fi
rm -rf "$work"
echo "fuzz: ${#targets[@]} targets, no crash"
