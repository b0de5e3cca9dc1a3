#!/usr/bin/env bash
# Builds the release preset and runs all benchmarks, or those named (bench/run.sh log rpc): ours,
# the physical limit of the same work, and the ratio of medians, in one table.
set -euo pipefail
cd "$(dirname "$0")/.."

command -v ninja >/dev/null && export CMAKE_GENERATOR="${CMAKE_GENERATOR:-Ninja}"
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" >/dev/null

names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for source in bench/*_bench.cc; do
    name=$(basename "$source" _bench.cc)
    names+=("$name")
  done
fi
for name in "${names[@]}"; do
  "build/release/bench/${name}_bench" 2>/dev/null
done | awk '/^topic/ && seen++ { next } { print }'
