#!/bin/sh
# Builds the Debian packages and looks at them with lintian. The source tree stays as it is.
#   packaging/build-deb.sh OUTPUT-DIRECTORY
set -eu
cd "$(dirname "$0")/.."
mkdir -p "$1"
out=$(cd "$1" && pwd)
source="$out/source"

for tool in dpkg-buildpackage dh fakeroot; do
    if ! command -v "$tool" >/dev/null; then
        echo "skipped: no $tool (scripts/install-deps.sh deb)"
        exit 0
    fi
done

rm -rf "$source" "$out"/*.deb "$out"/*.buildinfo "$out"/*.changes
mkdir "$source"
tar -c --exclude=./build --exclude=./demo --exclude=./.git . | tar -x -C "$source"
cp -r packaging/debian "$source/debian"
(cd "$source" && dpkg-buildpackage -us -uc -b)
rm -rf "$source"

if command -v lintian >/dev/null; then
    # Root is what a container has.
    lintian --allow-root --fail-on error --tag-display-limit 0 "$out"/*.changes
else
    echo "skipped: no lintian"
fi
ls -l "$out"/*.deb
