#!/usr/bin/env bash
# Installs a build, moves the installed tree, and builds and runs a consumer against it, through
# the CMake package and through pkg-config.
#
#     InstalledPackageTest.sh BUILD-FOLDER CXX
set -euo pipefail
build=$1
compiler=$2
here=$(cd "$(dirname "$0")" && pwd)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/installed"
mv "$work/installed" "$work/moved"

cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/moved" \
    -DCMAKE_CXX_COMPILER="$compiler"
cmake --build "$work/consumer"
"$work/consumer/consumer17"
"$work/consumer/consumer20"

PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name '*.pc')")
export PKG_CONFIG_PATH
read -ra flags <<<"$(pkg-config --cflags --libs qvagentspfendpointregistry)"
"$compiler" -std=c++17 "$here/consumer/main.cpp" -o "$work/by-pkg-config" "${flags[@]}"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir qvagentspfendpointregistry) "$work/by-pkg-config"

library=$(find "$work/moved" -name "libqvagentspfendpointregistry.so")
readelf -d "$library" | grep -q "SONAME.*libqvagentspfendpointregistry.so.0\]"

# Names of other libraries would be taken for those of whoever links this one, and internals would
# be used.
exported=$(nm -D --defined-only --format=posix "$library" | cut -d ' ' -f 1)
expect_none() {
    if strangers=$(grep -E "$2" <<<"$1"); then
        printf 'The library exports what it should not:\n%s\n' "$strangers" >&2
        exit 1
    fi
}
own='^_Z(T[ISV])?NK?(5agent3spf|2fl4i18n|10foundation(3log|5paths))'
grep -qE "$own" <<<"$exported"
expect_none "$(grep -vE "$own" <<<"$exported" || true)" .
expect_none "$exported" 'EntryFolder|PosixImpl|ArrayRows|SegmentPath|cityHash64|Roster'

"$compiler" "$here/consumer/unloading.cpp" -o "$work/unloading" -ldl
if ! "$work/unloading" "$library"; then
    echo "The library cannot be loaded, or goes when it is unloaded." >&2
    exit 1
fi
echo "The installed package works where it was moved to."
