#!/usr/bin/env bash
# Builds the benchmark programs, runs every side-by-side benchmark and prints
# one table: libOlk's cost per operation divided by each named peer's or
# floor's, measured in the same program run, as the median over repetitions
# with its spread. Below 1.00 libOlk is faster. Also plots cost per operation
# against size (SVG, gnuplot) for every operation measured at three or more
# sizes.
#
#   scripts/bench.sh                    every program
#   scripts/bench.sh IdSet HTimerWheel  only programs whose name matches
#   scripts/bench.sh --docs ...         also copy the plots into docs/perf/
#
# BENCH_REPS (default 5) and BENCH_MIN_TIME (seconds per repetition, default
# 0.2) trade time for spread. Results land in build-bench/results/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh gnuplot-nox

docs=false
if [[ "${1:-}" == "--docs" ]]; then docs=true; shift; fi
reps=${BENCH_REPS:-5}
min_time=${BENCH_MIN_TIME:-0.2}

dir=build-bench
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOLK_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" >/dev/null
out=$dir/results
rm -rf "$out" && mkdir -p "$out"

selected() {  # selected NAME [PATTERN...]: no pattern selects everything
  local name=$1; shift
  [[ $# -eq 0 ]] && return 0
  for pattern in "$@"; do [[ "$name" == *"$pattern"* ]] && return 0; done
  return 1
}

for program in "$dir"/bench/*Bench; do
  name=$(basename "$program")
  selected "$name" "$@" || continue
  echo "bench: $name" >&2
  "$program" --benchmark_repetitions="$reps" --benchmark_min_time="$min_time" \
    --benchmark_enable_random_interleaving=true \
    --benchmark_format=json --benchmark_out="$out/$name.json" --benchmark_out_format=json >/dev/null
done

echo "Ratios libOlk / peer (cost per operation; median of $reps repetitions, spread lowest-highest)"
echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
python3 scripts/bench_report.py "$out" "$out"/*.json > "$out/report.txt"
grep -v '\.dat$' "$out/report.txt"

for dat in "$out"/*.dat; do
  [[ -e "$dat" ]] || continue
  svg=${dat%.dat}.svg
  title=$(basename "${dat%.dat}")
  columns=$(head -1 "$dat" | wc -w)
  gnuplot <<EOF
set terminal svg size 640,400 dynamic font "sans,11"
set output "$svg"
set title "$title: cost per operation"
set xlabel "size"
set ylabel "ns per operation"
set logscale xy
set key left top
set grid
plot for [c=2:$columns] "$dat" using 1:c with linespoints title columnheader(c)
EOF
  if $docs; then mkdir -p docs/perf && cp "$svg" docs/perf/; fi
done
echo "plots: $out/*.svg"
