#!/usr/bin/env bash
# Completes command lines with the function that bash would call.
#   completion-test.sh COMPLETION PROGRAM
set -u
completion="$1" program="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# shellcheck disable=SC1090  # the file under test
source "$completion"
mkdir "$work/files"
cd "$work/files" || exit 1
touch take.wav take.dsf picture.png notes.txt "with blank.wav"
mkdir folder
export VORREL_BACKEND=simulated XDG_CACHE_HOME="$work/cache"

# expect "WHAT FITS" WORD...: the last word is the one being typed.
expect() {
    local wanted="$1" found
    shift
    COMP_WORDS=("$program" "$@") COMP_CWORD=$# COMPREPLY=()
    _vorrel
    found=$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd ' ')
    if [[ $found != "$wanted" ]]; then
        echo "completing \"$*\": \"$found\" instead of \"$wanted\""
        failures=1
    fi
}

complete -p vorrel >/dev/null || failures=1
expect "devices doctor info record salvage" ""
expect "record" re
expect "--help --version" --
expect "--help --json --simulate" devices -
expect "--pre-record --pre-roll" record take.wav --pre
expect "" devices --pre
expect "dsd pcm" record --type ""
expect "16 24 32" record --bits ""
expect "16 24 32" salvage --bits ""
expect "2822400" record --type dsd --rate 28
expect "192000" record --rate 19
expect "folder take.wav with blank.wav" record --title take ""
expect "folder take.dsf" record --type dsd ""
expect "folder picture.png" record --waveform ""
expect "folder" record --temp-dir ""
expect "" record --title ""
expect "album-artist= album=" record --tag al
expect "KD-WV770" record --device ""
expect "" record --simulate so
expect "seed= source= speed=" record --simulate = s
expect "silence sweep" record --simulate = source = s
expect "counter file: noise silence sweep tone" record --simulate = source =
expect "2,seed= 2,source= 2,speed=" record --simulate = channels = 2,s
expect "folder take.wav with blank.wav" record --simulate = channels = 2 ""

# A take that was killed.
mkdir -p "$work/cache/vorrel/vorrel-Ab12Cd"
printf x >"$work/cache/vorrel/vorrel-Ab12Cd/tmpabcdef"
expect "vorrel-Ab12Cd" salvage ""
expect "folder take.dsf take.wav with blank.wav" salvage vorrel-Ab12Cd ""

# Every option of every command, as the program lists them.
for command in devices info record salvage doctor; do
    listed=$("$program" $command --help | sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]*\) .*/\2/p' |
        LC_ALL=C sort -u | paste -sd ' ')
    expect "$listed" $command --
done
exit $failures
