#!/bin/sh
# Runs every benchmark program of a build; each prints ratios measured in the same run.
#   bench/run.sh BUILD-DIRECTORY
set -eu
for program in "$1"/bench/*/vorrel_*_bench; do
    echo "== $(basename "$program")"
    "$program" --benchmark_min_time=0.2
done
echo "== saving, against other people's programs"
"$(dirname "$0")/compare.sh" "$1"
echo "== previewing, against other people's programs"
"$(dirname "$0")/preview.sh" "$1"
