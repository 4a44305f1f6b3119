#!/bin/sh
# How much of src/ the tests come by: runs them in a build of the preset `coverage` and prints lines, branches and
# the sources with the most lines left. The pages below BUILD_DIR/coverage-report show every line.
#   scripts/coverage.sh BUILD_DIR [JOBS]
# VORREL_COVERAGE_TESTS=REGEX runs the tests of these names alone, in addition to what was counted before.
# Ends with 1 if a test failed, with 2 and more if the aim is missed: 95 % of lines, 85 % of branches.
set -eu

build="$1"
jobs="${2:-$(nproc)}"
report="$build/coverage-report"
cd "$(dirname "$0")/.."

failed=0
if [ -n "${VORREL_COVERAGE_TESTS:-}" ]; then
    ctest --test-dir "$build" -j "$jobs" -R "$VORREL_COVERAGE_TESTS" --output-on-failure || failed=1
else
    find "$build" -name '*.gcda' -delete
    # Long loads come by nothing that the rest does not.
    ctest --test-dir "$build" -j "$jobs" -LE stress --output-on-failure || failed=1
fi

# Branches that only an exception takes, out of almost every call, and those of lines without a statement of ours,
# as closing braces are, say nothing about a test: they are not counted.
mkdir -p "$report"
missed=0
gcovr --root . --filter src/ --exclude src/device/coreaudio/ --exclude-throw-branches --exclude-unreachable-branches \
    -j "$jobs" --print-summary --sort-uncovered --fail-under-line 95 --fail-under-branch 85 \
    --txt "$report/coverage.txt" --csv "$report/coverage.csv" --html-details "$report/index.html" \
    "$build" > "$report/summary.txt" || missed=$?

echo "worst of src/: lines never run, source, lines, branches"
# name, lines, covered, share, branches, covered, share
tail -n +2 "$report/coverage.csv" | tr -d '\r' |
    awk -F, '{ printf "%5d  %-45s %5.1f %% %5.1f %%\n", $2 - $3, $1, 100 * $4, 100 * $7 }' | sort -rn | head -n 15
grep -E '^(lines|branches):' "$report/summary.txt"
echo "every line: $report/index.html"
[ "$failed" -eq 0 ] || exit 1
exit "$missed"
