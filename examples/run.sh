#!/bin/sh
# Runs one example with the simulated recorder and checks the file that it leaves.
#   run.sh minimal|glib|qt|waveform PROGRAM
set -eu
example="$1" program="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export VORREL_BACKEND=simulated VORREL_SIMULATED=source=tone,channels=2,speed=4 TMPDIR="$work"
out="$work/take.wav"

case "$example" in
    minimal)
        mkdir "$work/spills"
        "$program" "$out" "$work/spills"
        seconds=3 ;;
    waveform)
        "$program" "$out" "$work/take.svg" 2 >"$work/levels"
        seconds=2 ;;
    *)
        "$program" "$out" 2
        seconds=2 ;;
esac

# Number N of SIZE bytes, low byte first, at OFFSET of the file.
number() {
    od -An -v -t "u$2" -j "$1" -N "$2" "$out" | tr -d ' '
}
fail() {
    echo "$example: $*" >&2
    exit 1
}
frames=$(($(number 40 4) / 6))
[ "$(number 22 2) $(number 24 4) $(number 34 2)" = "2 48000 24" ] || fail "the format is another one"
[ "$frames" -ge $((48000 * seconds)) ] || fail "only $frames frames"
[ "$(wc -c <"$out")" -eq $((44 + frames * 6)) ] || fail "the file is not as long as its header says"
# The tone fills half of the scale in both ways: some byte of its samples is not zero.
[ "$(tail -c 6000 "$out" | tr -d '\0' | wc -c)" -gt 1000 ] || fail "the file is silent"

if [ "$example" = waveform ]; then
    # 1 kHz at -6 dB: half of 60 characters, and half of a lane to either side in every column.
    grep -q '|##############################$' "$work/levels" || fail "no level was shown"
    [ "$(grep -c '<path' "$work/take.svg")" -eq 1600 ] || fail "the picture lacks columns"
    [ "$(grep -c ' \(49\|249\)\.[0-9]*V' "$work/take.svg")" -ge 1590 ] || fail "the picture is flat"
fi
left=$(find "$work" -mindepth 1 -name 'take-*' -o -name '*.partial' -o -name 'tmp*')
[ -z "$left" ] || fail "left behind: $left"
