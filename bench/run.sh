#!/usr/bin/env bash
# Runs every benchmark program of a build directory, keeps their JSON results
# in <build>/bench-results and prints the table. Options after the build
# directory go to every program and override the defaults below, for example
# --benchmark_min_time=0.01 --benchmark_repetitions=1 for a smoke pass.
#
#   bench/run.sh <build directory> [benchmark options]
set -euo pipefail
# Absolute: the registry benchmarks work from a directory of their own.
build=$(cd "$1" && pwd)
shift
programs=$build/bench
results=$build/bench-results
scratch=$build/bench-scratch
rm -rf "$results"
mkdir -p "$results" "$scratch"

# Figures and anchors interleaved at random over several repetitions, so that
# whatever else the machine does falls on both.
defaults=(--benchmark_repetitions=5 --benchmark_enable_random_interleaving=true --benchmark_min_time=0.1)

run() {
  local name=$1
  shift
  echo "== $name" >&2
  "$@" "${defaults[@]}" "${options[@]}" \
    --benchmark_out="$results/$name.json" --benchmark_out_format=json >&2
}

options=("$@")
run hotpath "$programs/bench_hotpath"
for allocator in glibc mimalloc jemalloc; do
  if [ -x "$programs/bench_malloc_$allocator" ]; then
    run "malloc-$allocator" "$programs/bench_malloc_$allocator"
  fi
done
# The registry object is one per process: one process per size.
for classes in 10 1000 10000; do
  run "registry-$classes" "$programs/bench_registry" --classes="$classes" --scratch="$scratch"
done
# At 100,000 classes only a fresh process's first activation has goals, and the
# other figures are slow there and are not goals.
run registry-100000 "$programs/bench_registry" --classes=100000 --scratch="$scratch" --first-activation-only
python3 "$(dirname "$0")/table.py" "$results"/*.json
