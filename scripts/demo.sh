#!/bin/sh
# Records a PCM and a DSD take from the simulated recorder with the built program and lets other
# people's tools read what came out.
#   scripts/demo.sh BUILD-DIRECTORY OUTPUT-DIRECTORY
set -eu
vorrel="$1/apps/cli/vorrel"
out="$2"
rm -rf "$out"
mkdir -p "$out"

"$vorrel" devices --simulate
"$vorrel" info --simulate
"$vorrel" record "$out/take.wav" --simulate=source=sweep,channels=2 --rate 96000 --bits 24 \
    --duration 5 --gain -3 --title "Sweep" --artist "Simulated recorder" --album "Demo" \
    --album-artist "libvorrel" --range 1-2.5="$out/second.wav" --waveform "$out/take.png"
# Tracks that join without a gap, and a picture that can be scaled.
"$vorrel" record "$out/concert.wav" --simulate=source=tone,channels=2 --duration 4 --split-at 1.5,3 \
    --waveform "$out/concert.svg"
"$vorrel" record "$out/take.dsf" --type dsd --simulate=source=tone,channels=2 --rate 2822400 \
    --duration 5 --title "Tone" --artist "Simulated recorder" --album "Demo" \
    --album-artist "libvorrel" --range 1-2.5="$out/second.dsf"

for file in "$out"/*.wav "$out"/*.dsf; do
    echo
    echo "$file, as ffprobe reads it:"
    ffprobe -hide_banner -v error -show_entries \
        stream=codec_name,sample_rate,channels,bits_per_sample:format=duration,size:format_tags "$file"
done
