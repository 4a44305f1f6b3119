#!/bin/sh
# Installs the packages into a clean root and tries what they are for: a take with the simulated recorder, and a
# program that is built against the library. The root is a Debian 12 of its own where debootstrap can make one, else a
# directory into which the packages are unpacked.
#   packaging/smoke.sh DIRECTORY-OF-PACKAGES [unpacked]
set -eu
packages=$(cd "$1" && pwd)
how="${2:-debootstrap}"
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
root="$work/root"
trap 'rm -rf --one-file-system "$work"' EXIT

fail() {
    echo "smoke: $*" >&2
    exit 1
}
set -- "$packages"/libvorrel1_*.deb "$packages"/libvorrel-dev_*.deb "$packages"/vorrel_*.deb
for package in "$@"; do
    [ -f "$package" ] || fail "no packages in $packages"
done
[ $# -eq 3 ] || fail "packages of several versions in $packages"

make_root() {
    if [ "$how" = unpacked ]; then
        return 1
    fi
    if ! command -v debootstrap >/dev/null || [ "$(id -u)" -ne 0 ]; then
        echo "skipped: debootstrap (it is missing, or this is not root); the packages are unpacked"
        return 1
    fi
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Release: bookworm' | head -n 1)
    if ! debootstrap --variant=minbase bookworm "$root" "${mirror:-http://deb.debian.org/debian}" >"$work/log" 2>&1; then
        tail -n 3 "$work/log"
        echo "skipped: debootstrap (it makes no root here); the packages are unpacked"
        rm -rf --one-file-system "$root"
        return 1
    fi
}

# in_root COMMAND...: with nothing of the build in reach.
if make_root; then
    cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
    [ ! -d /etc/apt/apt.conf.d ] || cp -n /etc/apt/apt.conf.d/*proxy* "$root/etc/apt/apt.conf.d/" 2>/dev/null || true
    mkdir "$root/packages"
    cp "$@" "$root/packages/"
    in_root() {
        chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
            DEBIAN_FRONTEND=noninteractive "$@"
    }
    # The program and what it needs first, and nothing else.
    in_root apt-get update -qq
    in_root sh -c 'apt-get install -y -qq --no-install-recommends /packages/libvorrel1_*.deb /packages/vorrel_*.deb' \
        >"$work/log" 2>&1 || { tail -n 20 "$work/log"; fail "the packages cannot be installed"; }
    place=""
    development() {
        in_root sh -c 'apt-get install -y -qq --no-install-recommends g++ pkg-config /packages/libvorrel-dev_*.deb' \
            >"$work/log" 2>&1 || { tail -n 20 "$work/log"; fail "libvorrel-dev cannot be installed"; }
    }
else
    mkdir -p "$root/tmp"
    for package in "$@"; do
        dpkg-deb -x "$package" "$root"
    done
    libraries=$(dirname "$(find "$root" -name libvorrel.so.1)")
    in_root() {
        env -i PATH="$root/usr/bin:/usr/bin:/bin" HOME="$root/tmp" LC_ALL=C.UTF-8 LD_LIBRARY_PATH="$libraries" \
            PKG_CONFIG_PATH="$libraries/pkgconfig" PKG_CONFIG_SYSROOT_DIR="$root" "$@"
    }
    place="$root"
    development() {
        for tool in c++ pkg-config; do
            if ! command -v $tool >/dev/null; then
                echo "skipped: building a host (no $tool)"
                exit 0
            fi
        done
    }
fi

# check_wav FILE FRAMES CHANNELS WIDTH: the header's own numbers and the length that they make.
check_wav() {
    [ "$(od -An -v -tu4 -j40 -N4 "$1" | tr -d ' ')" -ge $(($2 * $3 * $4 / 8)) ] || fail "$1 is too short"
    [ "$(wc -c <"$1")" -ge $(($2 * $3 * $4 / 8 + 44)) ] || fail "$1 is shorter than its header says"
    [ "$(od -An -v -tu2 -j34 -N2 "$1" | tr -d ' ')" -eq "$4" ] || fail "$1 is not of $4 bits"
}

in_root vorrel --version
in_root vorrel devices --simulate | grep -qx KD-WV770 || fail "no simulated recorder"
in_root vorrel record "$place/tmp/take.wav" --simulate=source=sweep,channels=2,speed=4 --rate 96000 --bits 24 \
    --duration 2 --title Smoke --waveform "$place/tmp/take.png" --quiet
check_wav "$root/tmp/take.wav" 192000 2 24
head -c 8 "$root/tmp/take.png" | tail -c 7 | grep -q PNG || fail "no picture"
in_root vorrel record "$place/tmp/take.dsf" --simulate --type dsd --duration 1 --quiet
[ "$(head -c 4 "$root/tmp/take.dsf")" = "DSD " ] || fail "no DSF file"
for file in usr/share/man/man1/vorrel.1.gz usr/share/bash-completion/completions/vorrel \
    usr/share/zsh/vendor-completions/_vorrel usr/lib/udev/rules.d/70-vorrel.rules; do
    # minbase keeps manual pages; a root that is set up to drop them would not.
    [ -f "$root/$file" ] || fail "$file is missing"
done

development
mkdir "$root/tmp/host"
cp "$here/../examples/minimal.cpp" "$root/tmp/host/"
in_root sh -c "cd $place/tmp/host && mkdir spills &&
    c++ -std=c++20 -Wall -Werror minimal.cpp \$(pkg-config --cflags --libs vorrel) -o minimal &&
    VORREL_BACKEND=simulated VORREL_SIMULATED=source=tone,channels=2,speed=4 ./minimal host.wav spills"
check_wav "$root/tmp/host/host.wav" 144000 2 24
if [ -z "$place" ]; then
    in_root sh -c 'apt-get remove -y -qq --purge vorrel libvorrel-dev libvorrel1' >"$work/log" 2>&1 ||
        { tail -n 20 "$work/log"; fail "the packages cannot be removed"; }
    left=$(find "$root/usr" -name '*vorrel*' ! -path '*/dpkg/*')
    [ -z "$left" ] || fail "left behind: $left"
fi
echo "the packages work"
