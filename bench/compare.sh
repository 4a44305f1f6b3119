#!/bin/bash
# Saves takes on tmpfs with libvorrel and with other people's programs, in turn, and prints the median
# seconds and ratios: 10 minutes of stereo at 192 kHz as WAV, a minute of stereo DSD as DSF.
#   bench/compare.sh BUILD-DIRECTORY [RUNS [PCM-SECONDS [DSD-SECONDS]]]
# "whole" is the whole process, reading a file into the stores and their spill files and then saving;
# "save" is its second half alone, the work of a save request.
set -eu
save_take="$1/bench/writer/vorrel_save_take"
save_dsd_take="$1/bench/writer/vorrel_save_dsd_take"
runs=${2:-5}
seconds=${3:-600}
dsd_seconds=${4:-60}
work=$(mktemp -d /dev/shm/vorrel-compare.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/temp"

declare -A times
# A virtual machine's host may have taken free memory back, and who is the first to touch it again waits for
# it: not the one that is measured.
warm() {
    head -c "$((2 << 30))" /dev/zero > "$work/warm"
    rm "$work/warm"
}
run() { # NAME COMMAND...: one whole process, its wall seconds kept under NAME
    local name=$1 start stop
    shift
    rm -f "$work"/out.*
    warm
    start=$(date +%s%N)
    "$@" > "$work/log" 2>&1
    stop=$(date +%s%N)
    times[$name]="${times[$name]:-} $(awk "BEGIN { print ($stop - $start) / 1e9 }")"
}
ours() { # NAME BITS GAIN
    run "$1-whole" "$save_take" "$work/in.wav" "$work/out.wav" "$2" "$3" "$work/temp"
    times[$1-save]="${times[$1-save]:-} $(awk '{ print $4 }' "$work/log")"
}
ours_dsd() { # NAME FILE GAIN
    run "$1-whole" "$save_dsd_take" "$work/$2.dsf" "$work/out.dsf" "$3" "$work/temp"
    times[$1-save]="${times[$1-save]:-} $(awk '{ print $4 }' "$work/log")"
}
# Decodes, scales and modulates again, on one thread each.
ffmpeg_and_sox() { # FILE RATE
    # shellcheck disable=SC2016  # for the inner shell
    run "ffmpeg-sox" bash -c 'ffmpeg -nostdin -v error -threads 1 -i "$1" -f f32le - |
        sox -t f32 -r "$(($2 / 8))" -c 2 - -n gain -6 rate -m "$2"' - "$work/$1.dsf" "$2"
}
median() {
    # shellcheck disable=SC2086  # a list of numbers
    printf '%s\n' ${times[$1]} | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}
ratio() { # OURS THEIRS LIMIT
    awk -v a="$(median "$1")" -v b="$(median "$2")" -v limit="$3" -v name="$1 / $2" \
        'BEGIN { printf "%-34s %6.3f s / %6.3f s = %.3f   (aim: at most %s)\n", name, a, b, a / b, limit }'
}

sox -D -n -r 192000 -c 2 -b 32 -e floating-point "$work/in.wav" synth "$seconds" sine 997 noise vol 0.9
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
rm "$work"/*.wav

for rate in 64 256; do
    "$save_dsd_take" tone 2 "$((rate * 44100))" "$dsd_seconds" "$work/dsd$rate.dsf" 0 "$work/temp" > "$work/log"
done
for _ in $(seq "$runs"); do
    ours_dsd dsd256 dsd256 0
    run cp-dsd256 cp "$work/dsd256.dsf" "$work/out.dsf"
    ours_dsd dsd64 dsd64 0
    run cp-dsd64 cp "$work/dsd64.dsf" "$work/out.dsf"
    ours_dsd dsd64-6dB dsd64 -6
    ffmpeg_and_sox dsd64 2822400
    ours_dsd dsd256-6dB dsd256 -6
done

ratio dsd256-save cp-dsd256 1.25
ratio dsd64-save cp-dsd64 1.25
for part in whole save; do
    ratio dsd64-6dB-$part ffmpeg-sox 0.40
done
awk -v take="$dsd_seconds" -v save="$(median dsd256-6dB-save)" \
    'BEGIN { printf "%-34s %6.1f x real time   (aim: at least 14)\n", "dsd256-6dB-save, stereo", take / save }'
