# tools/packages.sh - sourced by ./run and ./test: installs what a build needs, on Debian, when it is missing.

# A second checkout in another folder finds what the first one compiled.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1

zvx_say() { printf '== %s\n' "$*"; }

# zvx_need PACKAGE... : asks dpkg first, so that a machine that has everything needs no network.
zvx_need() {
    local missing=() package sudo=""
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ "${#missing[@]}" -eq 0 ] && return 0
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    zvx_say "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq >/dev/null || true
    # Another apt-get, as those that a fresh machine starts by itself, is waited for.
    if ! $sudo apt-get install -y -qq -o DPkg::Lock::Timeout=120 --no-install-recommends "${missing[@]}" \
        >/tmp/zvxkvt-apt.$$ 2>&1; then
        tail -20 /tmp/zvxkvt-apt.$$ >&2
        echo "could not install: ${missing[*]}" >&2
        exit 1
    fi
    rm -f /tmp/zvxkvt-apt.$$
}

ZVX_BUILD_PACKAGES="g++ cmake ninja-build pkg-config liburing-dev ccache libcli11-dev libfmt-dev"
ZVX_TEST_PACKAGES="libgtest-dev binutils lldb gdb python3 spin"
ZVX_HOST_PACKAGES="redis-tools"
ZVX_CLANG_PACKAGES="clang-14 libclang-rt-14-dev llvm-14"

# zvx_build PRESET [TARGET...] : quiet unless it fails.
zvx_build() {
    local preset=$1 log
    shift
    log=$(mktemp)
    zvx_say "building $preset ${*:+($*)}"
    if ! { cmake --preset "$preset" && cmake --build "build/$preset" -j "$(nproc)" ${*:+--target "$@"}; } >"$log" 2>&1; then
        grep -E 'error|warning|FAILED|CMake Error' "$log" | head -40 >&2
        tail -30 "$log" >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}
