#!/bin/busybox sh
# Runs as the first process of the emulated machine: plugs recorders in, records, compares, and
# switches the machine off. Every line "E2E ..." is for run.sh; it takes the names of what has to
# be there from the lines that begin with "take" or "check" below.
/bin/busybox --install -s /bin
export PATH=/bin LD_LIBRARY_PATH=/lib HOME=/tmp TMPDIR=/tmp VORREL_BACKEND=alsa
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs dev /dev
mount -t tmpfs -o size=1000m tmpfs /tmp
mount -t tmpfs tmpfs /run

: > /tmp/recorder
recorder=

# --- recorders ---

# Waits until that many cards capture; they come and go by themselves.
await_cards() {
    left=200
    while [ "$(ls -d /proc/asound/card*/pcm0c 2> /dev/null | wc -l)" -ne "$1" ]; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || { echo "no $1 cards:"; cat /proc/asound/cards; return 1; }
        usleep 50000
    done
}

# plug CARDS [OPTION...]: options of usb-recorder. It writes to a file, because a console makes it wait.
plug() {
    usb-recorder --recorders "$@" >> /tmp/recorder 2>&1 &
    recorder=$!
    await_cards "$1"
}

unplug() {
    kill "$recorder" 2> /dev/null
    wait "$recorder" 2> /dev/null
    await_cards 0
}

# Two programs that never wait, beside everything else; `idle` ends them.
busy() {
    (while :; do :; done) &
    hogs=$!
    (while :; do :; done) &
    hogs="$hogs $!"
}

# shellcheck disable=SC2086  # a list of words
idle() {
    kill $hogs
    wait $hogs 2> /dev/null
}

# --- results ---

# outcome NAME STATUS TEXT: one line for run.sh, and what was said; where it failed, what may tell why.
outcome() {
    if [ "$2" -eq 0 ]; then
        echo "E2E pass $1 $3"
        cat /tmp/said /tmp/recorder
    else
        echo "E2E fail $1 $3"
        cat /tmp/said /tmp/recorder
        dmesg | tail -n 30
        cat /proc/asound/cards /proc/asound/card*/pcm0c/sub0/status
    fi
    : > /tmp/recorder
}

# take NAME FILE RATE-HZ SECONDS EXIT-CODE [OPTION...]: options of vorrel record. Rate and length
# are those of the file, which has to hold the recorder's samples without a gap.
take() {
    name=$1 file=/tmp/$2 rate=$3 seconds=$4 wanted=$5
    shift 5
    vorrel record "$file" --quiet --rate "$rate" "$@" > /tmp/said 2>&1 < /dev/null
    code=$?
    counts=$(take-check "$file" "$rate" "$seconds")
    clean=$?
    [ "$code" -eq "$wanted" ] && [ "$clean" -eq 0 ]
    outcome "$name" $? "exit=$code $counts"
    rm -f "$file"
}

# check NAME COMMAND...: a command that has to succeed. Its last line is the result's.
check() {
    name=$1
    shift
    "$@" > /tmp/said 2>&1
    outcome "$name" $? "$(tail -n 1 /tmp/said)"
}

# `vorrel devices` lists that many recorders and nothing else, or says that there are none.
lists() {
    vorrel devices > /tmp/devices 2> /tmp/none
    code=$?
    cat /tmp/devices /tmp/none
    [ "$code" -eq 0 ] && [ "$(wc -l < /tmp/devices)" -eq "$1" ] || return 1
    if [ "$1" -eq 0 ]; then
        grep -q '^no recorder is connected$' /tmp/none
    else
        [ "$(grep -c '^KD-WV770$' /tmp/devices)" -eq "$1" ]
    fi
}

# Waits until a program records from that card.
await_running() {
    left=100
    until grep -q RUNNING "/proc/asound/card$1/pcm0c/sub0/status"; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || return 1
        usleep 50000
    done
}

# is_unplugged FILE RATE-HZ [OPTION...]: a recorder that is unplugged after two seconds. The host
# says so, saves what it has, all but the last buffers, and its exit code is that of the device.
is_unplugged() {
    file=/tmp/unplugged-$1 rate=$2
    shift 2
    plug 1 --unplug-after 2
    vorrel record "$file" --quiet --rate "$rate" "$@" --duration 10 < /dev/null
    code=$?
    unplug
    echo "exit $code"
    [ "$code" -eq 2 ] && grep -q 'the recorder is lost; what was recorded will be saved' /tmp/said &&
        take-check "$file" "$rate" 1.9
}

# A second program finds the first of two recorders busy, and the second one stays free.
is_exclusive() {
    vorrel record /tmp/holder.wav --quiet --rate 48000 --duration 3 < /dev/null &
    holder=$!
    await_running 0
    vorrel record /tmp/refused.wav --quiet --rate 48000 --duration 1 < /dev/null
    refused=$?
    other=$(cat /proc/asound/card1/pcm0c/sub0/status)
    wait "$holder"
    code=$?
    echo "first program: exit $code, second: exit $refused, other recorder: $other"
    [ "$code" -eq 0 ] && [ "$refused" -eq 2 ] && [ "$other" = closed ] &&
        take-check /tmp/holder.wav 48000 3
}

# A take goes on while another recorder is unplugged.
is_undisturbed() {
    usb-recorder --port 1 >> /tmp/recorder 2>&1 &
    other=$!
    await_cards 2
    vorrel record /tmp/undisturbed.wav --quiet --rate 96000 --duration 3 < /dev/null &
    take=$!
    await_running 0
    kill "$other"
    await_cards 1
    wait "$take" && take-check /tmp/undisturbed.wav 96000 3
}

# Of two recorders the second can be recorded from when the first has been unplugged.
is_replaced() {
    usb-recorder --port 1 >> /tmp/recorder 2>&1 &
    other=$!
    await_cards 2
    kill "$recorder"
    await_cards 1
    vorrel record /tmp/replaced.wav --quiet --rate 96000 --duration 1 < /dev/null &&
        take-check /tmp/replaced.wav 96000 1
    code=$?
    kill "$other"
    return "$code"
}

# A program that was stopped for two seconds has lost them, says so, and goes on without another
# fault; what it lost is one gap in the take.
is_recovered() {
    vorrel record /tmp/stopped.wav --quiet --rate 192000 --bits 32 --duration 3 < /dev/null &
    take=$!
    await_running 0
    sleep 1
    kill -STOP "$take"
    sleep 2
    kill -CONT "$take"
    wait "$take"
    code=$?
    echo "exit $code"
    take-check /tmp/stopped.wav 192000 3 > /tmp/counts
    cat /tmp/counts
    grep -qi 'overrun' /tmp/said && [ "$code" = 4 ] &&
        grep -q ' gaps=[12] missing=[0-9]* repeats=0 repeated=0 wrong=0 ' /tmp/counts
}

# Waits until the host of is_found_later says a line.
await_said() {
    left=400
    until grep -q "^$1\$" /tmp/host; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || { echo "it does not say: $1"; return 1; }
        usleep 50000
    done
}

# One process, from before the first recorder to after the second: each is found when it is plugged
# in, can be recorded from, and is gone when it is unplugged.
is_found_later() {
    mkdir -p /tmp/hot-plug
    hot-plug-host /tmp/hot-plug 2 > /tmp/host 2>&1 &
    host=$!
    code=0
    for number in 1 2; do
        await_said "waiting $number" && plug 1 && await_said "recorded $number" || code=1
        unplug
    done
    wait "$host" || code=1
    cat /tmp/host
    for number in 1 2; do
        take-check "/tmp/hot-plug/hot-plug-$number.wav" 96000 1 || code=1
    done
    rm -rf /tmp/hot-plug
    return "$code"
}

# A user's program is refused while the nodes are root's. It needs those of the
# card and, for the vendor request, that of the USB device: no real-time priority, no other right.
is_permitted() {
    echo 'user:x:1000:1000::/tmp:/bin/sh' > /etc/passwd
    su -m -s /bin/sh -c 'vorrel record /tmp/user.dsf --quiet --type dsd --duration 1' user < /dev/null
    none=$?
    chown user /dev/snd/*
    su -m -s /bin/sh -c 'vorrel record /tmp/user.dsf --quiet --type dsd --duration 1' user < /dev/null
    card=$?
    for device in /sys/bus/usb/devices/*; do
        [ "$(cat "$device/product" 2> /dev/null)" != KD-WV770 ] ||
            chown user "/dev/bus/usb/$(printf '%03d/%03d' "$(cat "$device/busnum")" "$(cat "$device/devnum")")"
    done
    su -m -s /bin/sh -c 'vorrel record /tmp/user.dsf --quiet --type dsd --duration 1' user < /dev/null
    both=$?
    echo "no node: exit $none, card: exit $card, card and USB device: exit $both"
    grep -q 'this user may not open its nodes in /dev/snd' /tmp/said &&
        grep -q 'no permission to write to /dev/bus/usb/' /tmp/said && [ "$none" -eq 2 ] && [ "$card" -eq 2 ] &&
        [ "$both" -eq 0 ] && take-check /tmp/user.dsf 2822400 0.99
}

# --- what is to be shown ---

echo  # the firmware leaves its line open
modprobe vhci-hcd && modprobe snd-usb-audio || echo "E2E fail modules"

check no-recorder lists 0

check hot-plug is_found_later

plug 1
check one-recorder lists 1
take pcm-48000 take.wav 48000 3 0 --bits 32 --duration 3
take pcm-192000 take.wav 192000 3 0 --bits 32 --duration 3
take pcm-384000 take.wav 384000 3 0 --bits 32 --duration 3
take dsd-2822400 take.dsf 2822400 2.99 0 --type dsd --duration 3
take dsd-5644800 take.dsf 5644800 2.99 0 --type dsd --duration 3
take dsd-11289600 take.dsf 11289600 2.99 0 --type dsd --duration 3
take pcm-after-dsd take.wav 96000 1 0 --bits 24 --duration 1
busy
take pcm-384000-loaded take.wav 384000 2 0 --bits 32 --duration 2
take dsd-11289600-loaded take.dsf 11289600 1.99 0 --type dsd --duration 2
idle
check overrun is_recovered
unplug
check none-left lists 0

plug 1 --formats 16
take pcm-16-bits take.wav 44100 2 0 --bits 16 --duration 2
unplug
plug 1 --formats 16,24
take pcm-24-bits take.wav 192000 2 0 --bits 24 --duration 2
unplug
plug 1 --formats 16,24in4
take pcm-24-bits-in-4-bytes take.wav 48000 2 0 --bits 24 --duration 2
unplug

check unplugged-pcm is_unplugged take.wav 192000 --bits 32
check unplugged-dsd is_unplugged take.dsf 2822400 --type dsd

plug 1
check user is_permitted
unplug

plug 2
check two-recorders lists 2
check exclusive is_exclusive
unplug

plug 1
check undisturbed is_undisturbed
check replaced is_replaced
unplug

plug 1 --name "KD-WV770 "
check other-name lists 0
unplug
plug 1 --product-id 0xffff
check other-product lists 0
unplug

echo "E2E end $(cut -d ' ' -f 1 /proc/uptime)"
poweroff -f
