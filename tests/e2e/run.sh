#!/bin/sh
# Boots Debian's kernel in an emulated machine, plugs in a recorder of USB Audio Class 2 that is a
# program, records from it with `vorrel` and compares every sample of every take.
#   tests/e2e/run.sh BUILD-DIRECTORY WORK-DIRECTORY
# What is downloaded, made and logged stays in WORK-DIRECTORY. Where the emulator or the kernel
# cannot be had, says "skipped: ..." and succeeds. The environment may name another kernel package
# (VORREL_E2E_KERNEL) and another limit in seconds (VORREL_E2E_TIMEOUT).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
mkdir -p "$2"
work=$(cd "$2" && pwd)
log="$work/serial.log"
tree="$work/initramfs"
PATH="$PATH:/usr/sbin:/sbin"

skip() {
    echo "skipped: $*"
    exit 0
}

for tool in qemu-system-x86_64 busybox cpio depmod dpkg-deb apt-get apt-cache gzip timeout; do
    command -v "$tool" > /dev/null || skip "$tool is not installed (scripts/install-deps.sh e2e)"
done
ldd "$(command -v busybox)" 2>&1 | grep -Eq 'not a dynamic|statically' ||
    skip "busybox needs libraries (scripts/install-deps.sh e2e installs busybox-static)"

[ "$(dpkg --print-architecture)" = amd64 ] || skip "the emulated machine runs programs for amd64 only"

# --- the kernel, unpacked and not installed ---
package=${VORREL_E2E_KERNEL:-$(apt-cache depends linux-image-amd64 2> /dev/null |
    sed -n 's/^ *Depends: *\(linux-image-[^ ]*\)$/\1/p' | head -n 1)}
if [ -n "$package" ] && [ ! -e "$work/$package/unpacked" ]; then
    mkdir -p "$work/download"
    if (cd "$work/download" && apt-get download -q "$package") > "$work/download.log" 2>&1; then
        rm -rf "${work:?}/$package"
        dpkg-deb -x "$work"/download/*.deb "$work/$package"
        touch "$work/$package/unpacked"
    fi
    rm -rf "$work/download"
fi
if [ ! -e "$work/$package/unpacked" ]; then  # one of an earlier run will do
    unpacked=$(ls -t "$work"/linux-image-*/unpacked 2> /dev/null | head -n 1)
    [ -n "$unpacked" ] && [ -z "${VORREL_E2E_KERNEL:-}" ] ||
        skip "the kernel package ${package:-linux-image-amd64} cannot be had (apt-get update? $work/download.log)"
    package=$(basename "$(dirname "$unpacked")")
fi
kernel="$work/$package"
image=$(find "$kernel/boot" -name 'vmlinuz-*' | head -n 1)
release=${image##*/vmlinuz-}
modules=$(find "$kernel" -type d -path "*/lib/modules/$release" | head -n 1)
base=${modules%/lib/modules/*}
if [ -n "$(find "$modules" -name '*.ko.xz' | head -n 1)" ]; then
    command -v xz > /dev/null || skip "xz is not installed, and this kernel's modules are packed with it"
fi

# --- the initramfs ---
rm -rf "$tree"
mkdir -p "$tree/bin" "$tree/dev" "$tree/proc" "$tree/sys" "$tree/run" "$tree/tmp" "$tree/etc" "$tree/lib/modules/$release"
cp "$(command -v busybox)" "$tree/bin/busybox"

# A program and the libraries that it needs: all in one place, but for the loader, which a program
# looks for where it was.
add_program() {
    cp "$1" "$tree/bin/"
    ldd "$1" | sed -n -e 's/.*=> \(\/[^ ]*\).*/\1/p' | while read -r library; do
        cp -L "$library" "$tree/lib/"
    done
    loader=$(ldd "$1" | sed -n 's/^[[:space:]]*\(\/[^ ]*\) (.*/\1/p')
    mkdir -p "$tree$(dirname "$loader")"
    cp -L "$loader" "$tree$loader"
}

depmod -b "$base" "$release"
for module in vhci-hcd snd-usb-audio; do
    sed -n "s|^\(\S*/$module\.ko[^:]*\):\(.*\)|\1 \2|p" "$modules/modules.dep"
done | tr ' ' '\n' | sort -u | while read -r file; do
    [ -n "$file" ] || continue
    mkdir -p "$tree/lib/modules/$release/$(dirname "$file")"
    cp "$modules/$file" "$tree/lib/modules/$release/$file"
    case $file in
        *.xz) xz -d "$tree/lib/modules/$release/$file" ;;
    esac
done
for list in modules.order modules.builtin modules.builtin.modinfo; do
    [ ! -e "$modules/$list" ] || cp "$modules/$list" "$tree/lib/modules/$release/"
done
depmod -b "$tree" "$release"

add_program "$build/apps/cli/vorrel"
add_program "$build/tests/e2e/usb-recorder"
add_program "$build/tests/e2e/take-check"
add_program "$build/tests/e2e/hot-plug-host"
if [ -d /usr/share/alsa ]; then
    mkdir -p "$tree/usr/share/alsa"
    (cd /usr/share/alsa && cp -r alsa.conf cards pcm "$tree/usr/share/alsa/")
fi
cp "$here/guest-init.sh" "$tree/init"
chmod 755 "$tree/init"
(cd "$tree" && find . | cpio -o -H newc --quiet | gzip -1) > "$work/initramfs.gz"

# --- the machine: every instruction takes 2 ns of its time, and idle time takes none of ours ---
echo "booting $package; the log is $log"
rm -f "$log"
started=$(date +%s)
ended=0
timeout "${VORREL_E2E_TIMEOUT:-1200}" qemu-system-x86_64 \
    -machine pc,accel=tcg -cpu max -smp 1 -m 1536 -icount shift=1,sleep=off \
    -nodefaults -no-user-config -nographic -monitor none -serial "file:$log" -nic none -no-reboot \
    -kernel "$image" -initrd "$work/initramfs.gz" \
    -append "console=ttyS0 loglevel=3 panic=-1 mitigations=off" < /dev/null || ended=$?
took=$(($(date +%s) - started))

# --- what became of it: everything that the guest was to do has to have passed ---
results="$work/results.txt"
tr -d '\r' < "$log" | sed -n 's/^E2E //p' > "$results"
failed=0
total=0
for name in $(sed -n 's/^\(take\|check\) \([a-z0-9-]*\).*/\2/p' "$here/guest-init.sh"); do
    total=$((total + 1))
    line=$(sed -n "s/^[a-z]* $name //p" "$results" | head -n 1)
    verdict=$(sed -n "s/^\([a-z]*\) $name .*/\1/p" "$results" | head -n 1)
    printf '%-8s%-26s%s\n' "${verdict:-missing}" "$name" "$line"
    [ "$verdict" = pass ] || failed=$((failed + 1))
done
if [ "$ended" -ne 0 ] || ! grep -q '^end ' "$results"; then
    echo "the machine did not come to its end (qemu: $ended, 124 = out of time)"
    failed=$((failed + 1))
fi
echo "$total scenarios, $failed failed, $took s"
[ "$failed" -eq 0 ] || {
    echo "the log is $log"
    exit 1
}
