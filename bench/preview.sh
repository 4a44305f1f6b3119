#!/bin/bash
# Makes the preview of a stereo DSD256 take with libvorrel and decimates the same take with ffmpeg,
# one thread each, and prints the best seconds and their ratio. The take stands on tmpfs.
#   bench/preview.sh BUILD-DIRECTORY [RUNS [SECONDS]]
set -eu
preview_pass="$1/bench/convert/vorrel_preview_pass"
runs=${2:-5}
seconds=${3:-60}
work=$(mktemp -d /dev/shm/vorrel-preview.XXXXXX)
trap 'rm -rf "$work"' EXIT

"$preview_pass" "$work/take.dsf" "$seconds" "$runs" > "$work/ours"
for _ in $(seq "$runs"); do
    start=$(date +%s%N)
    ffmpeg -nostdin -v error -y -threads 1 -i "$work/take.dsf" -ar 176400 -c:a pcm_s16le "$work/out.wav"
    stop=$(date +%s%N)
    awk "BEGIN { print ($stop - $start) / 1e9 }"
done | sort -n | head -n 1 > "$work/theirs"

awk -v theirs="$(cat "$work/theirs")" '
    BEGIN { limit["avx512"] = "   (aim: at most 0.6)"; limit["avx2"] = "   (aim: at most 0.9)" }
    { printf "%-9s %6.3f s / ffmpeg %6.3f s = %.3f%s\n", $1, $2, theirs, $2 / theirs, limit[$1] }' "$work/ours"
