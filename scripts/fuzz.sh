#!/bin/sh
# Runs every fuzz target for a limited time, beginning with its seeds.
#   scripts/fuzz.sh BUILD_DIR
# VORREL_FUZZ_SECONDS: for each target (default 30). Prints executions and findings of each; ends with 1
# when there is a finding, which is then kept under BUILD_DIR/findings.
set -eu

build=$1
seeds=$(dirname "$0")/../fuzz/seeds
seconds=${VORREL_FUZZ_SECONDS:-30}
status=0
for target in "$seeds"/*; do
    name=$(basename "$target")
    [ -x "$build/fuzz/$name" ] || continue
    mkdir -p "$build/corpus/$name" "$build/findings/$name"
    log=$build/findings/$name.log
    result=0
    UBSAN_OPTIONS=print_stacktrace=1 "$build/fuzz/$name" -max_total_time="$seconds" -print_final_stats=1 \
        -rss_limit_mb=2048 -timeout=20 -max_len=20000 -artifact_prefix="$build/findings/$name/" \
        "$build/corpus/$name" "$target" >"$log" 2>&1 || result=$?
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    findings=$(find "$build/findings/$name" -type f | wc -l)
    if [ "$result" -ne 0 ] && [ "$findings" -eq 0 ]; then
        findings="ended with $result, see $log"
    fi
    printf '%-28s %10s executions, findings: %s\n' "$name" "${executions:-?}" "$findings"
    [ "$result" -eq 0 ] && [ "$findings" = 0 ] || status=1
done
exit $status
