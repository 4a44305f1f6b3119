#!/bin/sh
# Installs the Debian packages that building, testing and the demo need. Asks for nothing and does
# nothing when all of them are there.
#   scripts/install-deps.sh [e2e|examples|deb|coverage]
# With `e2e` also those of the end-to-end tests, which emulate a machine, with `examples` those of the
# example hosts, with `deb` those that make Debian packages and look at them, with `coverage` what
# reads a coverage build's counts.
set -eu

packages="
cmake ninja-build g++ clang-14 clang-tidy-14 clang-format-14 libclang-rt-14-dev pkg-config
libgtest-dev libgmock-dev libbenchmark-dev
libcli11-dev nlohmann-json3-dev libsndfile1-dev libcairo2-dev libfontconfig-dev libssl-dev
libasound2-dev libudev-dev libusb-1.0-0-dev umockdev libumockdev-dev dbus-daemon
ffmpeg sox libsox-fmt-all mediainfo wavpack mandoc python3 python3-mutagen sndfile-programs
"
case "${1:-}" in
    e2e) packages="$packages qemu-system-x86 busybox-static cpio kmod xz-utils" ;;
    examples) packages="$packages qt6-base-dev libglib2.0-dev" ;;
    deb) packages="$packages debhelper dpkg-dev fakeroot lintian debootstrap zsh" ;;
    coverage) packages="$packages gcovr" ;;
esac

missing=""
for package in $packages; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$'; then
        missing="$missing $package"
    fi
done
[ -n "$missing" ] || exit 0

echo "installing:$missing" >&2
as_root=""
if [ "$(id -u)" -ne 0 ]; then
    as_root="sudo"
fi
$as_root apt-get update -qq
# shellcheck disable=SC2086  # a list of words
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends $missing
