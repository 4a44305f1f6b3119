#!/bin/bash
# Saves a 10-minute stereo 192 kHz take on tmpfs with libvorrel and with other people's programs, in
# turn, and prints the median seconds and ratios.
#   bench/compare.sh BUILD-DIRECTORY [RUNS [SECONDS]]
# "whole" is the whole process, reading the float WAV into the stores and their spill files and
# then saving; "save" is its second half alone, the work of a save request.
set -eu
save_take="$1/bench/writer/vorrel_save_take"
runs=${2:-5}
seconds=${3:-600}
work=$(mktemp -d /dev/shm/vorrel-compare.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/temp"

sox -D -n -r 192000 -c 2 -b 32 -e floating-point "$work/in.wav" synth "$seconds" sine 997 noise vol 0.9

declare -A times
run() { # NAME COMMAND...: one whole process, its wall seconds kept under NAME
    local name=$1 start stop
    shift
    rm -f "$work"/out.*
    start=$(date +%s%N)
    "$@" > "$work/log" 2>&1
    stop=$(date +%s%N)
    times[$name]="${times[$name]:-} $(awk "BEGIN { print ($stop - $start) / 1e9 }")"
}
ours() { # NAME BITS GAIN
    run "$1-whole" "$save_take" "$work/in.wav" "$work/out.wav" "$2" "$3" "$work/temp"
    times[$1-save]="${times[$1-save]:-} $(awk '{ print $4 }' "$work/log")"
}
median() {
    # shellcheck disable=SC2086  # a list of numbers
    printf '%s\n' ${times[$1]} | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}
ratio() { # OURS THEIRS LIMIT
    awk -v a="$(median "$1")" -v b="$(median "$2")" -v limit="$3" -v name="$1 / $2" \
        'BEGIN { printf "%-34s %6.3f s / %6.3f s = %.3f   (aim: at most %s)\n", name, a, b, a / b, limit }'
}

for _ in $(seq "$runs"); do
    ours pcm24-6dB 24 -6
    run sox24 sox -D "$work/in.wav" -b 24 -e signed-integer "$work/out.wav" gain -6
    run ffmpeg24 ffmpeg -nostdin -y -i "$work/in.wav" -af volume=-6dB -c:a pcm_s24le "$work/out.wav"
    ours pcm16 16 0
    run sox16 sox -D "$work/in.wav" -b 16 -e signed-integer "$work/out.wav"
    run sndfile16 sndfile-convert -pcm16 "$work/in.wav" "$work/out.wav"
    run cp cp "$work/in.wav" "$work/out.wav"
done

for part in whole save; do
    ratio pcm24-6dB-$part sox24 0.45
    ratio pcm24-6dB-$part ffmpeg24 0.33
    ratio pcm16-$part sox16 0.55
    ratio pcm16-$part sndfile16 0.35
    ratio pcm24-6dB-$part cp 1
    ratio pcm16-$part cp 1
done
