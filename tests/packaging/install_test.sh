#!/usr/bin/env bash
# install_test.sh BUILD SOURCE VERSION CC - installs BUILD into a temporary folder, moves that folder, and builds and
# runs the example project and the host in README.md against it, by find_package and by pkg-config.
set -euo pipefail
build=$1 source=$2 version=$3 cc=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "install_test: $*" >&2
    exit 1
}

DESTDIR= cmake --install "$build" --prefix "$work/first" >"$work/log" || { cat "$work/log" && fail "cmake --install"; }
# Nothing in it may know where it was installed, or where it was built.
mv "$work/first" "$work/moved"
prefix=$work/moved
if grep -rIlF -e "$work/first" -e "$build" -e "$source" "$prefix"; then fail "the files above name a folder of the build"; fi
library=$(find "$prefix" -name "libzvxkvt.so.$version")
[ -n "$library" ] || fail "no libzvxkvt.so.$version"
readelf -d "$library" | grep 'SONAME.*\[libzvxkvt\.so\.3\]' >"$work/log" || fail "the soname is not libzvxkvt.so.3"
"$(find "$prefix" -name keyhost)" --help >/dev/null || fail "the installed keyhost does not find its library"

# With find_package: the right version, not the next one, nor an older one of another kind.
cp -r "$prefix"/share/doc/zvxkvt/examples/consumer "$work/consumer"
configure() { cmake -S "$work/consumer" -B "$work/$1" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc"; }
{ configure build && cmake --build "$work/build"; } >"$work/log" 2>&1 || { cat "$work/log" && fail "find_package"; }
"$work/build/consumer" || fail "the consumer ended with $?"
for wrong in 3.2 2.0 4.0; do
    sed -i "s/find_package(zvxkvt [0-9.]*/find_package(zvxkvt $wrong/" "$work/consumer/CMakeLists.txt"
    ! configure "wrong$wrong" >"$work/log" 2>&1 || fail "find_package takes $version for $wrong"
    grep -qF "version: $version" "$work/log" || { cat "$work/log" && fail "find_package fails for another reason"; }
done

# With pkg-config.
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zvxkvt.pc)")
export PKG_CONFIG_PATH LD_LIBRARY_PATH=${library%/*}
[ "$(pkg-config --modversion zvxkvt)" = "$version" ] || fail "pkg-config does not say $version"
sed -n '/^```c$/,/^```$/p' "$source/README.md" | sed '/^```/d' >"$work/readme.c"
grep -q InitUserThreadScheduler "$work/readme.c" || fail "no host in README.md"
flags=$(pkg-config --cflags --libs zvxkvt)
"$cc" -Wall -Wextra -Werror "$work/readme.c" -o "$work/readme" $flags || fail "the README's host is no C"
"$cc" "$work/consumer/consumer.c" -o "$work/by-hand" $flags || fail "the consumer by hand"
"$work/by-hand" || fail "the consumer by hand ended with $?"
[ "$("$work/readme" | sort | tr '\n' ,)" = "hello from a,hello from b," ] || fail "the README's host says something else"
