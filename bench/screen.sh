#!/bin/sh
# Processor time of five seconds of recording on a terminal of 100 columns, with the screen and without it.
#   bench/screen.sh PROGRAM
set -eu
program=$1
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
for quiet in "" --quiet; do
    for round in 1 2 3; do
        # The times are of the shell's child; script(1) is the terminal.
        script -qec "stty cols 100 rows 24; TERM=xterm LC_ALL=C.UTF-8 bash -c 'TIMEFORMAT=\"%U user %S system\"; \
            time \"$program\" record \"$directory/a.wav\" --simulate=source=noise,speed=1 --duration 5 --force $quiet \
            --temp-dir \"$directory\" 2>/dev/tty' 2>\"$directory/time\"" "$directory/log" > /dev/null < /dev/null
        printf '%-10s %s\n' "${quiet:-screen}" "$(tail -1 "$directory/time")"
    done
done
